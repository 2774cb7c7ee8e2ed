// Uploads by the cluster client.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "liborlith/topo/orlith_client.h"
#include "test/support/curl_calls.h"
#include "test/support/faults.h"
#include "test/support/http_peer.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;
using http_peer::answer;
using http_peer::End;
using http_peer::HttpPeer;
using http_peer::Reply;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class OrlithClientPut : public testing::Test {
 protected:
  OrlithClientPut() {
    orlith_client_set_connecttimeout(client_, 20000);
    reopen("the body");
  }
  ~OrlithClientPut() override {
    close(fd_);
    orlith_client_free(client_);
    topo_free(client_->active_topo);
    pthread_rwlock_destroy(&client_->lock);
    free(client_);
  }

  void reopen(const std::string &bytes) {
    if (fd_ >= 0) close(fd_);
    fd_ = open(folder_.write("file", bytes).c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd_, 0);
  }
  int put(const std::string &url, ruxo_hash_table *hdrs = nullptr, const char *method = nullptr) {
    ret_code_ = 12345;
    return orlith_client_api_put(client_, url.c_str(), "/upload/x", fd_, method, hdrs, &ret_code_);
  }
  // The line for an answer that was judged.
  static std::string refusal(const char *kind, const std::string &url, int status, const std::string &body) {
    char number[8];
    snprintf(number, sizeof number, "%03d", status);
    return "(" + std::string(kind) + ") - >>>>>>\n" + url + "/upload/x\n" + number + ">>>\n" + body +
           "\n>>>>>>\n";
  }

  orlith_client_t *client_ = orlith_client_alloc(0, nullptr);
  const TempDir folder_;
  int fd_ = -1;
  int ret_code_ = 0;
  LogCapture errors_{&ruxo_error};
};

TEST_F(OrlithClientPut, SendsTheWholeFileWhereverItStood) {
  HttpPeer peer(answer(200, "{}"));
  ASSERT_GT(lseek(fd_, 0, SEEK_END), 0);
  EXPECT_EQ(put(peer.url()), 0);
  EXPECT_EQ(ret_code_, 0);
  ASSERT_EQ(peer.requests().size(), 1U);
  EXPECT_EQ(peer.requests()[0].line(), "PUT /upload/x");
  EXPECT_EQ(peer.requests()[0].body, "the body");
  EXPECT_EQ(peer.requests()[0].header("X-Orlith-Timeout"), "30000ms");
  EXPECT_EQ(peer.requests()[0].header("Content-Length"), "8");
  EXPECT_THAT(errors_.lines(), IsEmpty());
}

TEST_F(OrlithClientPut, SendsFilesOfAnySize) {
  for (const size_t size : {size_t{0}, size_t{1} << 16, size_t{3} << 20}) {
    HttpPeer peer(answer(200, "{}"));
    std::string bytes(size, ' ');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
    reopen(bytes);
    EXPECT_EQ(put(peer.url()), 0) << size;
    EXPECT_TRUE(peer.requests()[0].body == bytes) << size;
  }
}

TEST_F(OrlithClientPut, TheCallersMethodAndHeadersAreSent) {
  HttpPeer peer(answer(200, "{}"));
  ruxo_hash_table hdrs;
  ruxo_hash_init(&hdrs);
  ruxo_hash_store(&hdrs, "X-One", 5, strdup("1"));
  ruxo_hash_store(&hdrs, "X-Long", 6, strdup(std::string(2000, 'l').c_str()));
  orlith_client_set_timeout(client_, 20001);
  EXPECT_EQ(put(peer.url(), &hdrs, "MERGE"), 0);
  EXPECT_EQ(ruxo_hash_size(&hdrs), 0U) << "the table is consumed";
  const auto request = peer.requests().at(0);
  EXPECT_EQ(request.line(), "MERGE /upload/x");
  EXPECT_EQ(request.header("X-One"), "1");
  EXPECT_EQ(request.header("X-Long"), std::string(999 - strlen("X-Long: "), 'l'))
      << "cut to 1000 bytes with its NUL";
  EXPECT_LT(request.head.find("X-Orlith-Timeout: 20001ms"), request.head.find("X-One"));
  ruxo_hash_destroy(&hdrs, free);
}

TEST_F(OrlithClientPut, AnAnswerIsJudgedByItsMembers) {
  const struct {
    const char *body;
    int result;
  } cases[] = {{"{}", 0},
               {"{\"errors\":0}", 0},
               {"{\"errors\":\"3\"}", 0},
               {"{\"errors\":3.5}", 0},
               {"{\"errors\":null}", 0},
               {"[]", 0},
               {"{\"errors\":3}", -2},
               {"{\"errors\":-1}", -2},
               {"{\"errors\":18446744073709551615}", -2},
               {"{\"error\":\"no\"}", -1},
               {"{\"error\":null}", -1},
               {"{\"error\":false,\"errors\":3}", -1},
               {"", -1},
               {"stored", -1},
               {"{\"errors\":0}}", -1}};
  for (const auto &[body, result] : cases) {
    HttpPeer peer(answer(200, body));
    errors_.clear();
    EXPECT_EQ(put(peer.url()), result) << body;
    EXPECT_EQ(ret_code_, result == -1 ? -1 : 0) << body;
    if (result == 0) {
      EXPECT_THAT(errors_.lines(), IsEmpty()) << body;
    } else {
      EXPECT_THAT(errors_.lines(),
                  ElementsAre(refusal(result == -1 ? "fatal" : "non-fatal", peer.url(), 200, body)));
    }
  }
}

TEST_F(OrlithClientPut, AnotherStatusIsFatal) {
  for (const int status : {201, 302, 404, 500}) {
    HttpPeer peer(answer(status, "{}", "Location: http://127.0.0.1:1/\r\n"));
    errors_.clear();
    EXPECT_EQ(put(peer.url()), -1) << status;
    EXPECT_EQ(ret_code_, -1);
    EXPECT_THAT(errors_.lines(), ElementsAre(refusal("fatal", peer.url(), status, "{}")));
  }
}

TEST_F(OrlithClientPut, ATransferThatFailsReturnsItsCode) {
  const http_peer::ClosedPort nobody;
  EXPECT_EQ(put(nobody.url()), CURLE_COULDNT_CONNECT);
  EXPECT_EQ(ret_code_, CURLE_COULDNT_CONNECT);
  EXPECT_THAT(errors_.lines(), ElementsAre("orlith_client_api_put to " + nobody.url() +
                                           "/upload/x failed - code 7 (Couldn't connect to server)\n"));
  EXPECT_EQ(put("file://" + folder_.path()), CURLE_UNSUPPORTED_PROTOCOL);
}

TEST_F(OrlithClientPut, ANodeThatStallsIsGivenUp) {
  HttpPeer peer(Reply{"HTTP/1.1 200 OK\r\n", End::stall});
  orlith_client_set_timeout(client_, 100);
  EXPECT_EQ(put(peer.url()), CURLE_OPERATION_TIMEDOUT);
}

TEST_F(OrlithClientPut, AnAnswerThatDoesNotFitFails) {
  HttpPeer fits(answer(200, "{}" + std::string(8189, ' '))),
      does_not(answer(200, "{}" + std::string(8190, ' ')));
  EXPECT_EQ(put(fits.url()), 0);
  EXPECT_EQ(put(does_not.url()), CURLE_WRITE_ERROR);
}

TEST_F(OrlithClientPut, AStatusThatCannotBeReadReturnsThatCode) {
  HttpPeer peer(answer(200, "{}"));
  const curl_calls::RefuseInfo refuse({CURLINFO_RESPONSE_CODE});
  EXPECT_EQ(put(peer.url()), CURLE_UNKNOWN_OPTION);
  EXPECT_EQ(ret_code_, CURLE_UNKNOWN_OPTION);
}

TEST_F(OrlithClientPut, AFileThatCannotBeReadIsRefusedAndTheHeadersStay) {
  HttpPeer peer(answer(200, "{}"));
  ruxo_hash_table hdrs;
  ruxo_hash_init(&hdrs);
  ruxo_hash_store(&hdrs, "X-One", 5, strdup("1"));
  {
    const faults::Fail fail(faults::Call::fstat, EIO);
    EXPECT_EQ(put(peer.url(), &hdrs), -1);
    EXPECT_EQ(ret_code_, -1);
  }
  {
    const curl_calls::RefuseHandles refuse;
    EXPECT_EQ(put(peer.url(), &hdrs), -1);
    EXPECT_EQ(ret_code_, -1);
  }
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(orlith_client_api_put(client_, peer.url().c_str(), "/x", ends[0], nullptr, &hdrs, nullptr), -1);
  EXPECT_EQ(orlith_client_api_put(client_, peer.url().c_str(), "/x", -1, nullptr, &hdrs, nullptr), -1);
  close(ends[0]);
  close(ends[1]);
  EXPECT_THAT(peer.requests(), IsEmpty());
  EXPECT_EQ(ruxo_hash_size(&hdrs), 1U);
  ruxo_hash_destroy(&hdrs, free);
}

TEST_F(OrlithClientPut, InterruptedCallsAreMadeAgain) {
  HttpPeer peer(answer(200, "{}"));
  ruxo_log_stream_t debug = nullptr;
  const LogCapture debugged(&debug, "test/topo_debug");
  topo_set_debug(debug);
  {
    const faults::Fail measured_late(faults::Call::fstat, EINTR, 1, 2);
    const faults::Fail read_late(faults::Call::read, EINTR, 1, 2);
    EXPECT_EQ(put(peer.url()), 0);
    EXPECT_TRUE(measured_late.hit() && read_late.hit());
  }
  topo_set_debug(nullptr);
  EXPECT_EQ(peer.requests()[0].body, "the body");
  const std::string line = "simple_readfile: got 4 (Interrupted system call), trying again\n";
  EXPECT_THAT(debugged.lines(), ElementsAre(line, line));
}

TEST_F(OrlithClientPut, AReadThatFailsAbortsTheUpload) {
  HttpPeer peer(answer(200, "{}"));
  const faults::Fail fail(faults::Call::read, EIO);
  EXPECT_EQ(put(peer.url()), CURLE_ABORTED_BY_CALLBACK);
  EXPECT_EQ(ret_code_, CURLE_ABORTED_BY_CALLBACK);
  ASSERT_EQ(errors_.lines().size(), 2U);
  EXPECT_EQ(errors_.lines()[0], "simple_readfile: got 5 (Input/output error), aborting read\n");
}

TEST_F(OrlithClientPut, ANodeUrlIsReachedThroughTheTopology) {
  HttpPeer peer(answer(200, "{}"));
  client_->active_topo =
      compile_ok(nodes("write_copies=\"1\"", "<node id=\"" + kId1 +
                                                 "\" weight=\"4\" address=\"127.0.0.1\" port=\"1\" "
                                                 "apiport=\"" +
                                                 std::to_string(peer.port()) + "\"/>"))
          .release();
  std::vector<char *> hosts(1);
  ASSERT_EQ(orlith_client_get_all_nodes(client_, hosts.data()), 1);
  EXPECT_EQ(put(hosts[0]), 0);
  EXPECT_EQ(peer.requests().at(0).body, "the body");
  free(hosts[0]);
}

}  // namespace
