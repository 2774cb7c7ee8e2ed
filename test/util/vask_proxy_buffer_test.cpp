#include "liborlith/util/vask_proxy_buffer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ruxo/util.h"
#include "ruxo/zipkin.h"
#include "test/support/curl_calls.h"
#include "test/support/faults.h"
#include "test/support/http_peer.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"
#include "test/util/vask_proxy_buffer_support.h"

namespace {

using faults::Call;
using faults::Fail;
using http_peer::answer;
using http_peer::End;
using http_peer::HttpPeer;
using http_peer::Reply;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Pair;

using Headers = std::vector<std::pair<std::string, std::string>>;

using namespace proxy_buffer_test;
struct CurlCleanup {
  void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlCleanup>;

void keep_header(char *key, char *value, void *closure) {
  static_cast<Headers *>(closure)->emplace_back(key, value);
}

std::vector<std::string> lines_of(const curl_slist *list) {
  std::vector<std::string> result;
  for (; list != nullptr; list = list->next) result.emplace_back(list->data);
  return result;
}

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

class VaskProxyBuffer : public testing::Test {
 protected:
  int perform(const std::string &url, int timeout_ms = kTimeoutMs) {
    return vask_proxy_buffer_perform_curl(pb_.get(), nullptr, url.c_str(), timeout_ms, nullptr, nullptr,
                                          nullptr);
  }
  // As spooled, from the first byte.
  std::string body() {
    std::string text(pb_->len + 1, '\0');
    EXPECT_TRUE(vask_proxy_buffer_reset_fd_position(pb_.get()));
    const ssize_t got = vask_proxy_buffer_read_fd(pb_.get(), text.data(), text.size());
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
  }
  void expect_no_body() {
    EXPECT_EQ(vask_proxy_buffer_get_len(pb_.get()), 0U);
    EXPECT_FALSE(vask_proxy_buffer_has_valid_fd(pb_.get()));
    EXPECT_EQ(pb_->fd, -1);
    EXPECT_FALSE(pb_->mmap);
    EXPECT_EQ(vask_proxy_buffer_mmap(pb_.get(), MAP_PRIVATE), nullptr);
    EXPECT_FALSE(vask_proxy_buffer_reset_fd_position(pb_.get()));
    EXPECT_EQ(vask_proxy_buffer_to_json_object(pb_.get()), nullptr);
  }
  size_t receive(const std::string &bytes) {
    std::string copy = bytes;
    return vask_proxy_buffer_handle_curl_data(copy.data(), 1, copy.size(), pb_.get());
  }
  static std::string failed(const std::string &function, const std::string &url) {
    return function + ": curl to " + url + " failed - ";
  }

  const std::string root_ = spool_root();
  Buffer pb_{vask_proxy_buffer_new()};
  LogCapture errors_{&vask_proxy_buffer_error_ls};
};

using VaskProxyBufferDeathTest = VaskProxyBuffer;
constexpr char kTopo[] = "vask_proxy_buffer_perform_curl_topo";
constexpr char kBorrow[] = "vask_proxy_buffer_perform_borrow_curl_topo";

// ---- Starting ----

TEST_F(VaskProxyBuffer, StartingMakesTheSpoolFolderWithItsParents) {
  struct stat info {};
  ASSERT_EQ(stat((root_ + "/proxy_tmp_files").c_str(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(info.st_mode & 07777, mode_t{0755} & ~mask);
  EXPECT_FALSE(std::filesystem::exists(root_ + "/proxy_tmp_files/dummy"));
}

TEST_F(VaskProxyBufferDeathTest, StartingNeedsAFolder) {
  EXPECT_DEATH(vask_proxy_buffer_init(nullptr, 0),
               "\\[FATAL\\] assertion \\(dir != NULL\\) at util/vask_proxy_buffer\\.cpp:[0-9]+ failed");
}

TEST_F(VaskProxyBufferDeathTest, StartingTwiceStopsTheProcess) {
  EXPECT_DEATH(vask_proxy_buffer_init("/tmp", 0),
               "\\[FATAL\\] assertion \\(proxy_dir == NULL\\) at util/vask_proxy_buffer\\.cpp:[0-9]+ failed");
}

// In a process of its own, where the module has not been started.
class VaskProxyBufferStartDeathTest : public testing::Test {
 protected:
  VaskProxyBufferStartDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~VaskProxyBufferStartDeathTest() override { GTEST_FLAG_SET(death_test_style, "fast"); }
};

TEST_F(VaskProxyBufferStartDeathTest, AFolderThatCannotBeMadeStopsTheProcess) {
  const auto start = [](const std::string &dir) {
    vask_proxy_buffer_error_ls = ruxo_error;
    vask_proxy_buffer_init(dir.c_str(), 0);
  };
  EXPECT_EXIT(
      start("/dev/null/x"), testing::KilledBySignal(SIGABRT),
      "\\[FATAL\\] vask_proxy_buffer_init: could not create dir for /dev/null/x/proxy_tmp_files/dummy - 20 "
      "\\(Not a directory\\)");
  EXPECT_EXIT(
      start(std::string(5000, 'x')), testing::KilledBySignal(SIGABRT),
      "\\[FATAL\\] vask_proxy_buffer_init: could not create dir for x+ - 36 \\(File name too long\\)");
}

TEST_F(VaskProxyBufferStartDeathTest, TheSteppingInAndOutIsLogged) {
  const auto start = [] {
    std::vector<std::string> lines;
    {
      const TempDir folder;
      const LogCapture debug(&vask_proxy_buffer_debug_ls);
      vask_proxy_buffer_init(folder.path().c_str(), 5);
      lines = debug.lines();
    }
    _exit(
        lines == std::vector<std::string>{"Begin vask_proxy_buffer_init\n", "Finish vask_proxy_buffer_init\n"}
            ? 0
            : 1);
  };
  EXPECT_EXIT(start(), testing::ExitedWithCode(0), "");
}

TEST_F(VaskProxyBufferStartDeathTest, BeforeTheStartNothingCanBeSpooled) {
  const auto receive = [] {
    const Buffer pb(vask_proxy_buffer_new());
    char byte = 'x';
    const bool refused =
        vask_proxy_buffer_handle_curl_data(&byte, 1, 1, pb.get()) == SIZE_MAX && pb->error != 0;
    _exit(refused ? 0 : 1);
  };
  EXPECT_EXIT(receive(), testing::ExitedWithCode(0), "");
}

TEST_F(VaskProxyBuffer, ANewBufferIsEmpty) {
  EXPECT_EQ(pb_->state, PC_NONE);
  EXPECT_EQ(pb_->error, 0);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 0);
  EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb_.get()), CURLE_OK);
  EXPECT_EQ(vask_proxy_buffer_transfer_fd_ownership(pb_.get()), -1);
  expect_no_body();
  vask_proxy_buffer_destroy(nullptr);
  const Fail no_memory(Call::calloc, ENOMEM);
  EXPECT_EQ(vask_proxy_buffer_new(), nullptr);
}

// ---- Handles ----

TEST_F(VaskProxyBufferDeathTest, AHandleThatCannotBeMadeStopsTheProcess) {
  EXPECT_DEATH(
      {
        const curl_calls::RefuseHandles refuse;
        vask_proxy_buffer_make_curl_object(nullptr, nullptr, nullptr, 0);
      },
      "\\[FATAL\\] assertion \\(local_curl\\) at util/vask_proxy_buffer\\.cpp:[0-9]+ failed");
}

TEST_F(VaskProxyBuffer, AHandleGetsWhatIsGiven) {
  const auto options_set = [&](const char *url, curl_slist *headers, int timeout_ms) {
    curl_calls::options.clear();
    const Curl curl(vask_proxy_buffer_make_curl_object(nullptr, url, headers, timeout_ms));
    std::vector<CURLoption> result;
    for (const auto &[option, text] : curl_calls::options) result.push_back(option);
    return result;
  };
  curl_slist *const list = curl_slist_append(nullptr, "X: y");
  for (const CURLoption always : {CURLOPT_CONNECTTIMEOUT_MS, CURLOPT_NOSIGNAL, CURLOPT_PROTOCOLS_STR})
    EXPECT_THAT(options_set(nullptr, nullptr, 0), testing::Contains(always));
  for (const CURLoption given : {CURLOPT_URL, CURLOPT_HTTPHEADER, CURLOPT_TIMEOUT_MS}) {
    EXPECT_THAT(options_set("http://a/", list, 1), testing::Contains(given));
    EXPECT_THAT(options_set(nullptr, nullptr, 0), testing::Not(testing::Contains(given)));
    EXPECT_THAT(options_set(nullptr, nullptr, -1), testing::Not(testing::Contains(given)));
  }
  curl_slist_free_all(list);
  const Curl mine(curl_easy_init());
  EXPECT_EQ(vask_proxy_buffer_make_curl_object(mine.get(), nullptr, nullptr, 0), mine.get());
}

// ---- Answers ----

TEST_F(VaskProxyBuffer, KeepsTheBodyOfA200) {
  HttpPeer peer(answer(200, "the body"));
  EXPECT_EQ(perform(peer.url() + "/x"), 0);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 200);
  EXPECT_EQ(vask_proxy_buffer_get_len(pb_.get()), 8U);
  EXPECT_TRUE(vask_proxy_buffer_has_valid_fd(pb_.get()));
  EXPECT_EQ(body(), "the body");
  EXPECT_EQ(pb_->state, PC_STARTED);
  EXPECT_EQ(peer.requests().at(0).line(), "GET /x");
  EXPECT_THAT(errors_.lines(), IsEmpty());
}

TEST_F(VaskProxyBuffer, A200WithAnEmptyBodyMakesNoFile) {
  HttpPeer peer(answer(200, ""));
  const faults::Uses uses;
  EXPECT_EQ(perform(peer.url()), 0);
  EXPECT_EQ(uses(Call::mkstemp), 0);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 200);
  EXPECT_EQ(pb_->state, PC_NONE);
  expect_no_body();
}

TEST_F(VaskProxyBuffer, AnotherStatusDropsTheBody) {
  for (const int status : {201, 302, 404, 500, 503}) {
    HttpPeer peer(answer(status, "why", "Location: http://127.0.0.1:1/\r\n"));
    pb_.reset(vask_proxy_buffer_new());
    EXPECT_EQ(perform(peer.url()), 0) << status;
    EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), status);
    EXPECT_EQ(pb_->state, PC_STARTED);
    expect_no_body();
  }
  EXPECT_THAT(errors_.lines(), IsEmpty());
}

TEST_F(VaskProxyBuffer, ATimeoutWithoutAnAnswerIs500) {
  HttpPeer peer(Reply{"", End::stall});
  EXPECT_EQ(perform(peer.url(), 150), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb_.get()), CURLE_OPERATION_TIMEDOUT);
  expect_no_body();
  EXPECT_THAT(
      errors_.lines(),
      ElementsAre(MatchesRegex(failed(kTopo, peer.url()) +
                               "curl error code 28 \\(\"Timeout was reached\"\\), httpcode \\(not set\\) - "
                               "timeout set to 150ms - total time [0-9]+ms\n")));
}

TEST_F(VaskProxyBuffer, ATimeoutInTheBodyKeepsTheStatus) {
  HttpPeer peer(Reply{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", End::stall});
  EXPECT_EQ(perform(peer.url(), 150), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 200);
  expect_no_body();
  EXPECT_THAT(errors_.lines(), ElementsAre(testing::HasSubstr("httpcode 200 - timeout set to 150ms")));
}

TEST_F(VaskProxyBuffer, AResetAfterTheStatusKeepsTheStatus) {
  HttpPeer peer(Reply{"HTTP/1.1 203 Text\r\nContent-Length: 10\r\n\r\nhalf", End::reset});
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 203);
  expect_no_body();
  EXPECT_THAT(errors_.lines(),
              ElementsAre(MatchesRegex(failed(kTopo, peer.url()) +
                                       "curl error code (18|56) \\(\".*\"\\), httpcode 203 - total "
                                       "time [0-9]+ms\n")));
}

TEST_F(VaskProxyBuffer, AResetAtAnyByteIsAFailure) {
  const std::string whole = "HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody";
  for (size_t len = 0; len < whole.size(); ++len) {
    HttpPeer peer(Reply{whole.substr(0, len), End::reset});
    pb_.reset(vask_proxy_buffer_new());
    errors_.clear();
    EXPECT_EQ(perform(peer.url()), -1) << len;
    EXPECT_THAT(vask_proxy_buffer_get_httpcode(pb_.get()), testing::AnyOf(200, 500)) << len;
    EXPECT_EQ(errors_.lines().size(), 1U) << len;
    expect_no_body();
  }
}

TEST_F(VaskProxyBuffer, APeerThatLiesAboutItsLengthFails) {
  HttpPeer peer(Reply{"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\nshort", End::close});
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 200);
  EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb_.get()), CURLE_PARTIAL_FILE);
  expect_no_body();
}

TEST_F(VaskProxyBuffer, NobodyThereIsAFailure) {
  const http_peer::ClosedPort nobody;
  EXPECT_EQ(perform(nobody.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  EXPECT_THAT(
      errors_.lines(),
      ElementsAre(MatchesRegex(failed(kTopo, nobody.url()) +
                               "curl error code 7 \\(\"Couldn't connect to server\"\\), httpcode \\(not "
                               "set\\) - total time [0-9]+ms\n")));
}

TEST_F(VaskProxyBuffer, TlsWithAPeerThatHasNoneIsAFailure) {
  HttpPeer peer(answer(200, "plain"));
  EXPECT_EQ(perform("https" + peer.url().substr(4)), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  expect_no_body();
}

TEST_F(VaskProxyBuffer, ARedirectionIsNotFollowed) {
  HttpPeer other(answer(200, "elsewhere"));
  HttpPeer peer(answer(302, "moved", "Location: " + other.url() + "/\r\n"));
  Curl eager(curl_easy_init());
  curl_easy_setopt(eager.get(), CURLOPT_FOLLOWLOCATION, 1L);
  EXPECT_EQ(vask_proxy_buffer_perform_curl(pb_.get(), eager.release(), peer.url().c_str(), kTimeoutMs,
                                           nullptr, nullptr, nullptr),
            0);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 302);
  EXPECT_THAT(other.requests(), IsEmpty());
}

TEST_F(VaskProxyBuffer, OnlyHttpAndHttpsAreSpoken) {
  EXPECT_EQ(perform("file:///etc/hostname"), -1);
  EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb_.get()), CURLE_UNSUPPORTED_PROTOCOL);
  expect_no_body();
}

TEST_F(VaskProxyBuffer, APeerIsReachedOverIpv6) {
  if (!HttpPeer::has_ipv6()) GTEST_SKIP() << "no IPv6 loopback here";
  HttpPeer peer(answer(200, "six"), AF_INET6);
  EXPECT_EQ(perform(peer.url()), 0);
  EXPECT_EQ(body(), "six");
}

TEST_F(VaskProxyBuffer, AnUnknownStatusIsAFailure) {
  HttpPeer peer(answer(200, "body"));
  const curl_calls::RefuseInfo refuse({CURLINFO_RESPONSE_CODE});
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  expect_no_body();
  EXPECT_THAT(errors_.lines(),
              ElementsAre(MatchesRegex(failed(kTopo, peer.url()) +
                                       "failed to fetch info from response: error code 48 \\(\".*\"\\) "
                                       "- total time [0-9]+ms\n")));
}

TEST_F(VaskProxyBuffer, AFailedTransferWhoseStatusIsUnknownIs500) {
  HttpPeer peer(Reply{"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhalf", End::close});
  const curl_calls::RefuseInfo refuse({CURLINFO_RESPONSE_CODE});
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  EXPECT_THAT(errors_.lines(), ElementsAre(testing::HasSubstr("httpcode (not set) - total time ")));
}

TEST_F(VaskProxyBuffer, ABodyOfManyPiecesIsWhole) {
  std::string bytes(5 << 20, ' ');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i ^ (i >> 9));
  HttpPeer peer(answer(200, bytes));
  EXPECT_EQ(perform(peer.url()), 0);
  const uint8_t *const map = vask_proxy_buffer_mmap(pb_.get(), MAP_PRIVATE);
  ASSERT_NE(map, nullptr);
  ASSERT_EQ(pb_->len, bytes.size());
  EXPECT_EQ(memcmp(map, bytes.data(), bytes.size()), 0);
}

// ---- What is sent ----

TEST_F(VaskProxyBuffer, ARequestCarriesItsTaskAndTheCallersHeaders) {
  HttpPeer peer(answer(200, "x"));
  EXPECT_EQ(vask_proxy_buffer_perform_curl(pb_.get(), nullptr, peer.url().c_str(), kTimeoutMs,
                                           curl_slist_append(nullptr, "X-Mine: 1"), nullptr, nullptr),
            0);
  const auto request = peer.requests().at(0);
  EXPECT_EQ(request.header("X-Mine"), "1");
  EXPECT_EQ(request.header("X-Orlith-TaskId"), std::to_string(ruxo_task_id()));
  EXPECT_EQ(request.count_of("X-B3-"), 0U) << "tracing is off";
}

TEST_F(VaskProxyBuffer, ARequestIsPartOfTheTraceAndReported) {
  HttpPeer collector(answer(202, ""));
  HttpPeer peer(answer(200, "x"));
  ASSERT_TRUE(ruxo_zipkin_report_to(collector.url().c_str(), "test", 1.0));
  ruxo_zipkin_span *const server =
      ruxo_zipkin_server_start("GET", "00000000000000ff", nullptr, "00000000000000fe", "1");
  EXPECT_EQ(perform(peer.url()), 0);
  ruxo_zipkin_set_active_span(server);
  pb_.reset(vask_proxy_buffer_new());
  EXPECT_EQ(perform(peer.url()), 0);
  ruxo_zipkin_set_active_span(nullptr);
  ruxo_zipkin_span_free(server);
  EXPECT_TRUE(ruxo_zipkin_flush(60000));
  ruxo_zipkin_report_to(nullptr, nullptr, 0);

  const auto requests = peer.requests();
  EXPECT_EQ(requests.at(0).count_of("X-B3-"), 3U) << "a trace that begins here has no parent";
  EXPECT_EQ(requests.at(1).count_of("X-B3-"), 4U);
  EXPECT_EQ(requests.at(1).header("X-B3-TraceId"), "00000000000000ff");
  EXPECT_EQ(requests.at(1).header("X-B3-ParentSpanId"), "00000000000000fe");
  EXPECT_EQ(requests.at(1).header("X-B3-Sampled"), "1");
  std::string reported;
  for (const auto &batch : collector.requests()) reported += batch.body;
  EXPECT_THAT(reported, testing::HasSubstr("\"id\":\"" + requests.at(1).header("X-B3-SpanId") + "\""));
  EXPECT_THAT(reported, testing::HasSubstr("\"name\":\"curl: request\""));
  EXPECT_THAT(reported, testing::HasSubstr("\"http.status_code\":\"200\""));
}

TEST_F(VaskProxyBuffer, HeadersOfTheAnswerAreHandedOver) {
  HttpPeer peer(answer(200, "x", "X-One: 1\r\nContent-Type: text/plain\r\n"));
  Headers headers;
  EXPECT_EQ(vask_proxy_buffer_perform_curl_topo(pb_.get(), nullptr, peer.url().c_str(), kTimeoutMs, nullptr,
                                                keep_header, &headers, nullptr),
            0);
  EXPECT_THAT(headers, ElementsAre(Pair("content-length", "1"), Pair("connection", "close"),
                                   Pair("x-one", "1"), Pair("content-type", "text/plain")));
}

// ---- Handles of the caller's ----

TEST_F(VaskProxyBuffer, ABorrowedHandleServesManyRequestsAndTheListStays) {
  HttpPeer peer(answer(200, "x", "X-One: 1\r\n"));
  const Curl curl(curl_easy_init());
  curl_slist *const list = curl_slist_append(curl_slist_append(nullptr, "X-Mine: 1"), "X-Too: 2");
  Headers headers;
  for (int n = 0; n < 3; ++n) {
    pb_.reset(vask_proxy_buffer_new());
    // The header callback of one request must not be called for the next.
    const auto cb = n == 1 ? keep_header : nullptr;
    EXPECT_EQ(vask_proxy_buffer_perform_borrow_curl(pb_.get(), curl.get(), peer.url().c_str(), kTimeoutMs,
                                                    list, cb, &headers),
              0);
    EXPECT_EQ(body(), "x");
    EXPECT_THAT(lines_of(list), ElementsAre("X-Mine: 1", "X-Too: 2"));
  }
  EXPECT_EQ(headers.size(), 3U);
  for (const auto &request : peer.requests()) EXPECT_EQ(request.count_of("X-Orlith-TaskId"), 1U);
  curl_slist_free_all(list);
}

TEST_F(VaskProxyBuffer, ABorrowedHandleMayBringItsUrlAndNoHeaders) {
  HttpPeer peer(answer(200, "x"));
  const Curl curl(curl_easy_init());
  curl_easy_setopt(curl.get(), CURLOPT_URL, (peer.url() + "/own").c_str());
  for (int n = 0; n < 2; ++n) {
    pb_.reset(vask_proxy_buffer_new());
    EXPECT_EQ(vask_proxy_buffer_perform_borrow_curl_topo(pb_.get(), curl.get(), nullptr, kTimeoutMs, nullptr,
                                                         nullptr, nullptr, nullptr),
              0);
  }
  EXPECT_EQ(peer.requests().at(1).line(), "GET /own");
  EXPECT_EQ(peer.requests().at(1).count_of("X-Orlith-TaskId"), 1U);
  // A request of the caller's own: the list that was made for ours is gone.
  curl_easy_setopt(
      curl.get(), CURLOPT_WRITEFUNCTION,
      +[](char *, size_t size, size_t count, void *) { return size * count; });
  EXPECT_EQ(curl_easy_perform(curl.get()), CURLE_OK);
  EXPECT_EQ(peer.requests().at(2).count_of("X-Orlith-TaskId"), 0U);
}

TEST_F(VaskProxyBuffer, WithoutAHandleToBorrowOneIsMade) {
  HttpPeer peer(answer(200, "x"));
  EXPECT_EQ(vask_proxy_buffer_perform_borrow_curl(pb_.get(), nullptr, peer.url().c_str(), kTimeoutMs, nullptr,
                                                  nullptr, nullptr),
            0);
  EXPECT_EQ(body(), "x");
}

TEST_F(VaskProxyBuffer, LinesNameTheVariantAndTheUrlOfTheHandle) {
  const http_peer::ClosedPort nobody;
  const Curl curl(curl_easy_init());
  curl_easy_setopt(curl.get(), CURLOPT_URL, (nobody.url() + "/own").c_str());
  EXPECT_EQ(vask_proxy_buffer_perform_borrow_curl(pb_.get(), curl.get(), nullptr, kTimeoutMs, nullptr,
                                                  nullptr, nullptr),
            -1);
  EXPECT_THAT(errors_.lines(), ElementsAre(testing::StartsWith(failed(kBorrow, nobody.url() + "/own") +
                                                               "curl error code 7 ")));
}

// ---- The spool ----

TEST_F(VaskProxyBuffer, TheFileHasNoNameFromTheStart) {
  ASSERT_EQ(receive("bytes"), 5U);
  EXPECT_THAT(faults::last_template(), MatchesRegex(root_ + "/proxy_tmp_files/proxy_data_[0-9a-f]+_XXXXXX"));
  const std::string unlinked = faults::last_unlinked();
  EXPECT_THAT(unlinked,
              testing::StartsWith(faults::last_template().substr(0, faults::last_template().size() - 6)));
  EXPECT_TRUE(std::filesystem::is_empty(root_ + "/proxy_tmp_files"));
  struct stat info {};
  ASSERT_EQ(fstat(pb_->fd, &info), 0);
  EXPECT_EQ(info.st_nlink, 0U);
  EXPECT_NE(fcntl(pb_->fd, F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(VaskProxyBuffer, EachBufferTakesANumberOfItsOwn) {
  ASSERT_EQ(receive("a"), 1U);
  const std::string first = faults::last_template();
  pb_.reset(vask_proxy_buffer_new());
  ASSERT_EQ(receive("a"), 1U);
  EXPECT_NE(faults::last_template(), first);
}

TEST_F(VaskProxyBuffer, PiecesFollowEachOther) {
  EXPECT_EQ(receive("one "), 4U);
  EXPECT_EQ(receive(""), 0U);
  char text[] = "two";
  EXPECT_EQ(vask_proxy_buffer_handle_curl_data(text, 3, 1, pb_.get()), 3U);
  EXPECT_EQ(body(), "one two");
  EXPECT_EQ(vask_proxy_buffer_get_len(pb_.get()), 7U);
}

TEST_F(VaskProxyBuffer, AFileThatCannotBeMadeEndsTheRequest) {
  HttpPeer peer(answer(200, "body"));
  const Fail fail(Call::mkstemp, EMFILE);
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
  EXPECT_NE(pb_->error, 0);
  EXPECT_EQ(pb_->state, PC_NONE);
  expect_no_body();
  EXPECT_THAT(errors_.lines(),
              ElementsAre(MatchesRegex(failed(kTopo, peer.url()) +
                                       "internal file handling error - total time [0-9]+ms\n")));
}

TEST_F(VaskProxyBuffer, AWriteThatFailsOrIsShortEndsTheRequest) {
  HttpPeer peer(answer(200, "body"));
  const auto run = [&] {
    pb_.reset(vask_proxy_buffer_new());
    errors_.clear();
    EXPECT_EQ(perform(peer.url()), -1);
    EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb_.get()), 500);
    EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb_.get()), CURLE_WRITE_ERROR);
    EXPECT_NE(pb_->error, 0);
    EXPECT_FALSE(is_open(faults::last_closed()));
    expect_no_body();
    EXPECT_THAT(errors_.lines(), ElementsAre(testing::HasSubstr("internal file handling error")));
  };
  for (const int error : {ENOSPC, EIO}) {
    const Fail fail(Call::write, error);
    run();
  }
  const faults::Short full_disk(Call::write, 3);
  run();
}

TEST_F(VaskProxyBuffer, OtherRequestsDoNotSufferFromAFullDisk) {
  HttpPeer peer(answer(200, "body"));
  {
    const faults::Short full_disk(Call::write, 3);
    EXPECT_EQ(perform(peer.url()), -1);
  }
  pb_.reset(vask_proxy_buffer_new());
  EXPECT_EQ(perform(peer.url()), 0);
  EXPECT_EQ(body(), "body");
}

TEST_F(VaskProxyBuffer, AnInterruptedWriteIsMadeAgain) {
  const Fail interrupted(Call::write, EINTR, 1, 2);
  EXPECT_EQ(receive("body"), 4U);
  EXPECT_TRUE(interrupted.hit());
  EXPECT_EQ(body(), "body");
}

TEST_F(VaskProxyBuffer, AfterAnErrorNothingIsTaken) {
  {
    const Fail fail(Call::write, EIO);
    EXPECT_EQ(receive("body"), SIZE_MAX);
  }
  EXPECT_EQ(receive("more"), SIZE_MAX);
  expect_no_body();
}

TEST_F(VaskProxyBuffer, ADescriptorInTheWayIsClosedWithAWarning) {
  const int other = open("/dev/null", O_WRONLY | O_CLOEXEC);
  pb_->fd = other;
  EXPECT_EQ(receive("body"), 4U);
  EXPECT_EQ(faults::last_closed(), other);
  EXPECT_EQ(body(), "body");
  EXPECT_THAT(errors_.lines(),
              ElementsAre("warning: vask_proxy_buffer_handle_curl_data - trying to create file handle, "
                          "but already exists\n"));
}

// A buffer serves one request; a second one is refused as a failure of its own, not mixed up with the first.
TEST_F(VaskProxyBuffer, ASecondRequestOnABufferFails) {
  HttpPeer gone(answer(404, "why")), peer(answer(200, "body"));
  EXPECT_EQ(perform(gone.url()), 0);
  EXPECT_EQ(perform(peer.url()), -1);
  EXPECT_NE(pb_->error, 0);
  expect_no_body();
  EXPECT_THAT(errors_.lines(), ElementsAre(testing::HasSubstr("internal file handling error")));
}

// ---- Readers ----

TEST_F(VaskProxyBuffer, TheCallerMayTakeTheDescriptor) {
  ASSERT_EQ(receive("body"), 4U);
  const int fd = vask_proxy_buffer_transfer_fd_ownership(pb_.get());
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(vask_proxy_buffer_has_valid_fd(pb_.get()));
  pb_.reset();
  EXPECT_TRUE(is_open(fd));
  char text[8];
  EXPECT_EQ(pread(fd, text, sizeof text, 0), 4);
  close(fd);
}

TEST_F(VaskProxyBuffer, DestroyingClosesTheDescriptor) {
  ASSERT_EQ(receive("body"), 4U);
  const int fd = pb_->fd;
  pb_.reset();
  EXPECT_EQ(faults::last_closed(), fd);
  EXPECT_FALSE(is_open(fd));
}

TEST_F(VaskProxyBuffer, TheBodyIsMappedOnce) {
  ASSERT_EQ(receive("body"), 4U);
  uint8_t *const map = vask_proxy_buffer_mmap(pb_.get(), MAP_SHARED);
  ASSERT_NE(map, nullptr);
  EXPECT_EQ(memcmp(map, "body", 4), 0);
  EXPECT_TRUE(pb_->mmap);
  EXPECT_EQ(pb_->mmap_buf, map);
  const faults::Uses uses;
  EXPECT_EQ(vask_proxy_buffer_mmap(pb_.get(), MAP_PRIVATE), map);
  EXPECT_EQ(uses(Call::mmap), 0);
  EXPECT_EQ(lseek(pb_->fd, 0, SEEK_CUR), 0);
}

TEST_F(VaskProxyBuffer, ABodyThatCannotBeMappedIsStillThere) {
  ASSERT_EQ(receive("body"), 4U);
  {
    const Fail fail(Call::mmap, ENOMEM);
    EXPECT_EQ(vask_proxy_buffer_mmap(pb_.get(), MAP_PRIVATE), nullptr);
  }
  EXPECT_FALSE(pb_->mmap);
  EXPECT_EQ(body(), "body");
}

TEST_F(VaskProxyBuffer, ADescriptorThatCannotSeekIsNotRead) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  pb_->fd = ends[0];
  pb_->len = 4;
  EXPECT_FALSE(vask_proxy_buffer_reset_fd_position(pb_.get()));
  EXPECT_EQ(vask_proxy_buffer_mmap(pb_.get(), MAP_PRIVATE), nullptr);
  EXPECT_EQ(vask_proxy_buffer_to_json_object(pb_.get()), nullptr);
  close(ends[1]);
}

TEST_F(VaskProxyBuffer, ReadsAreRepeatedWhenInterruptedAndElseNot) {
  ASSERT_EQ(receive("body"), 4U);
  ASSERT_TRUE(vask_proxy_buffer_reset_fd_position(pb_.get()));
  char text[8];
  {
    const Fail interrupted(Call::read, EINTR, 1, 2);
    EXPECT_EQ(vask_proxy_buffer_read_fd(pb_.get(), text, 3), 3);
  }
  EXPECT_EQ(vask_proxy_buffer_read_fd(pb_.get(), text, sizeof text), 1);
  EXPECT_EQ(vask_proxy_buffer_read_fd(pb_.get(), text, sizeof text), 0);
  const Fail fail(Call::read, EIO);
  EXPECT_EQ(vask_proxy_buffer_read_fd(pb_.get(), text, sizeof text), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_F(VaskProxyBuffer, TheBodyIsReadAsJson) {
  ASSERT_EQ(receive("{\"a\":"), 5U);
  ASSERT_EQ(receive("[1]}"), 4U);
  for (int n = 0; n < 2; ++n) {
    ruxo_json_object *const o = vask_proxy_buffer_to_json_object(pb_.get());
    ASSERT_NE(o, nullptr);
    EXPECT_STREQ(ruxo_json_text(o), "{\"a\":[1]}");
    ruxo_json_free(o);
  }
  pb_.reset(vask_proxy_buffer_new());
  ASSERT_EQ(receive("<xml/>"), 6U);
  EXPECT_EQ(vask_proxy_buffer_to_json_object(pb_.get()), nullptr);
}

TEST_F(VaskProxyBuffer, ManyThreadsSpoolAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string bytes(1000, static_cast<char>('a' + t));
      HttpPeer peer(answer(200, bytes));
      for (int n = 0; n < 20; ++n) {
        const Buffer pb(vask_proxy_buffer_new());
        EXPECT_EQ(vask_proxy_buffer_perform_curl(pb.get(), nullptr, peer.url().c_str(), kTimeoutMs, nullptr,
                                                 nullptr, nullptr),
                  0);
        const uint8_t *const map = vask_proxy_buffer_mmap(pb.get(), MAP_PRIVATE);
        ASSERT_NE(map, nullptr);
        EXPECT_EQ(memcmp(map, bytes.data(), bytes.size()), 0);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

TEST_F(VaskProxyBuffer, TheFieldsLieInTheirOrder) {
  EXPECT_LT(offsetof(vask_proxy_buffer_t, len), offsetof(vask_proxy_buffer_t, fd));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, fd), offsetof(vask_proxy_buffer_t, error));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, error), offsetof(vask_proxy_buffer_t, httpcode));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, httpcode), offsetof(vask_proxy_buffer_t, curl_return_code));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, curl_return_code), offsetof(vask_proxy_buffer_t, state));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, state), offsetof(vask_proxy_buffer_t, mmap));
  EXPECT_LT(offsetof(vask_proxy_buffer_t, mmap), offsetof(vask_proxy_buffer_t, mmap_buf));
  EXPECT_EQ(PC_NONE, 0);
  EXPECT_EQ(PC_STARTED, 1);
  EXPECT_EQ(VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR, 500);
}

}  // namespace
