// Clients that are slow, vanish, or are too many: what they get, and that nobody else waits for them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/log_capture.h"

namespace {

using testing::Contains;
using testing::EndsWith;

const std::string kGet = "GET /hello HTTP/1.1\r\nHost: a\r\n\r\n";

// What a slow client does: deadlines of real time are what these tests are about.
void pause_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

size_t open_descriptors() {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

class HttpSlow : public testing::Test {
 protected:
  ~HttpSlow() override { host_.reset(); }

  void start(const ruxo_http_limits_t &limits) {
    host_ = std::make_unique<HttpHost>(limits);
    host_->answer("GET", "/hello",
                  [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    host_->route("POST", "/upload",
                 [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
                   if (phase == RUXO_HTTP_HEAD) ++begun_;
                   if (phase == RUXO_HTTP_COMPLETE) {
                     ++completed_;
                     ruxo_http_respond(ctx, 200, "text/plain", "taken");
                   }
                   if (phase == RUXO_HTTP_ABORTED) ++aborted_;
                   return 0;
                 });
    host_->answer("GET", "/large", [this](ruxo_http_session_ctx *ctx) {
      ruxo_http_response_append(ctx, large_.data(), large_.size());
      ruxo_http_response_end(ctx);
    });
    host_->listen();
  }

  // Until a line with that end has been logged; ten seconds at most.
  bool logged(const std::string &end) const {
    for (int i = 0; i < 1000; ++i) {
      for (const std::string &line : log_.lines()) {
        if (line.ends_with(end)) return true;
      }
      pause_ms(10);
    }
    return false;
  }

  const LogCapture log_{&ruxo_error};
  const std::string large_ = std::string(size_t{20} << 20, 'l');
  std::atomic<int> begun_ = 0, completed_ = 0, aborted_ = 0;
  std::unique_ptr<HttpHost> host_;
};

TEST_F(HttpSlow, AnIdleConnectionIsClosedWithoutAWord) {
  ruxo_http_limits_t limits = http_limits();
  limits.idle_timeout_ms = 50;
  start(limits);
  HttpClient silent(host_->port());
  EXPECT_TRUE(silent.is_closed());
  HttpClient once(host_->port());
  EXPECT_EQ(once.request(kGet).body, "hello");
  EXPECT_TRUE(once.is_closed());
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(HttpSlow, AHeaderThatIsNotFinishedIsAnswered408) {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = 50;
  start(limits);
  for (const std::string begun :
       {"G", "\r", "GET /hello HTTP/1.1\r\n", "GET /hello HTTP/1.1\r\nHost: a\r\n\r"}) {
    HttpClient client(host_->port());
    const HttpResponse response = client.request(begun);
    EXPECT_EQ(response.status_line, "HTTP/1.1 408 Request Timeout");
    EXPECT_EQ(response.body, "the header took too long\n");
    EXPECT_EQ(response.header("Connection"), "close");
    EXPECT_TRUE(client.is_closed());
  }
  HttpClient second(host_->port());
  EXPECT_EQ(second.request(kGet).status, 200);
  EXPECT_EQ(second.request("GET").status, 408);
  // Who has not begun is idle, and may be for longer.
  HttpClient silent(host_->port());
  pause_ms(200);
  EXPECT_EQ(silent.request(kGet).status, 200);
}

TEST_F(HttpSlow, AHeaderThatTricklesInIsAnswered408) {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = 100;
  start(limits);
  HttpClient client(host_->port());
  std::atomic<bool> answered = false;
  std::jthread trickle([&] {
    client.send("GET /hello HTTP/1.1\r\nX: ");
    while (!answered && client.send("x")) pause_ms(5);
  });
  EXPECT_EQ(client.response().status, 408);
  answered = true;
}

TEST_F(HttpSlow, ABodyThatStallsIsAnswered408) {
  ruxo_http_limits_t limits = http_limits();
  limits.body_timeout_ms = 50;
  start(limits);
  HttpClient client(host_->port());
  const HttpResponse response =
      client.request("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\nabc");
  EXPECT_EQ(response.status, 408);
  EXPECT_EQ(response.body, "the body took too long\n");
  EXPECT_TRUE(client.is_closed());
  EXPECT_EQ(aborted_, 1);
  HttpClient expecting(host_->port());
  expecting.send("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\nExpect: 100-continue\r\n\r\n");
  EXPECT_EQ(expecting.response().status, 100);
  EXPECT_EQ(expecting.response().status, 408);
}

TEST_F(HttpSlow, ABodyMayTakeLongAsLongAsItComes) {
  ruxo_http_limits_t limits = http_limits();
  limits.body_timeout_ms = 2000;
  start(limits);
  HttpClient client(host_->port());
  client.send("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 12\r\n\r\n");
  for (int i = 0; i < 12; ++i) {
    pause_ms(200);
    client.send("x");
  }
  EXPECT_EQ(client.response().status, 200);
}

TEST_F(HttpSlow, AResponseThatIsNotTakenEndsTheConnection) {
  ruxo_http_limits_t limits = http_limits();
  limits.write_timeout_ms = 50;
  start(limits);
  HttpClient client(host_->port(), 4096);
  client.send("GET /large HTTP/1.1\r\nHost: a\r\n\r\n");
  ASSERT_TRUE(logged("does not take its response\n"));
  EXPECT_LT(client.rest().size(), large_.size());
}

TEST_F(HttpSlow, NobodyWaitsForASlowClient) {
  start(http_limits());
  HttpClient in_header(host_->port()), in_body(host_->port()), in_response(host_->port(), 4096);
  in_header.send("GET /hel");
  in_body.send("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\nabc");
  in_response.send("GET /large HTTP/1.1\r\nHost: a\r\n\r\n");
  HttpClient quick(host_->port());
  for (int i = 0; i < 100; ++i) ASSERT_EQ(quick.request(kGet).status, 200);
  EXPECT_EQ(in_header.request("lo HTTP/1.1\r\nHost: a\r\n\r\n").body, "hello");
  EXPECT_EQ(in_body.request("defghij").body, "taken");
  EXPECT_TRUE(in_response.response().body == large_);
}

TEST_F(HttpSlow, AHandlerMayTakeItsTime) {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = limits.body_timeout_ms = limits.idle_timeout_ms = limits.write_timeout_ms = 30;
  host_ = std::make_unique<HttpHost>(limits);
  host_->answer("GET", "/hello", [](ruxo_http_session_ctx *ctx) {
    eventer_add_in_s_us(
        [](eventer_t, int, void *closure, struct timeval *) {
          ruxo_http_respond(static_cast<ruxo_http_session_ctx *>(closure), 200, "text/plain", "at last");
          return 0;
        },
        ctx, 0, 200000);
  });
  host_->listen();
  HttpClient client(host_->port());
  EXPECT_EQ(client.request(kGet).body, "at last");
}

TEST_F(HttpSlow, ATimeOutOfNoneIsNone) {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = limits.body_timeout_ms = limits.idle_timeout_ms = limits.write_timeout_ms = 0;
  start(limits);
  HttpClient client(host_->port());
  pause_ms(50);
  client.send(kGet.substr(0, 5));
  pause_ms(50);
  EXPECT_EQ(client.request(kGet.substr(5)).body, "hello");
}

// ---- Clients that vanish ----

TEST_F(HttpSlow, AConnectionMayBeResetAtEveryByte) {
  start(http_limits());
  const size_t before = open_descriptors();
  const std::string request =
      kGet + "POST /upload HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n0\r\n\r\n";
  for (size_t len = 0; len <= request.size(); ++len) {
    HttpClient client(host_->port());
    client.send(request.substr(0, len));
    client.reset();
  }
  for (size_t len = 0; len <= request.size(); ++len) {
    HttpClient client(host_->port());
    client.send(request.substr(0, len));
    client.finish_sending();
    client.rest();
  }
  HttpClient last(host_->port());
  EXPECT_EQ(last.request(kGet).body, "hello");
  last.hang_up();
  host_->stop(5000);
  EXPECT_EQ(begun_, completed_ + aborted_);
  EXPECT_GT(aborted_, 0);
  EXPECT_LT(open_descriptors(), before);  // the listener's are gone too
}

TEST_F(HttpSlow, AConnectionMayBeResetWhileItsResponseIsSent) {
  start(http_limits());
  const size_t before = open_descriptors();
  for (const size_t taken : {size_t{0}, size_t{1}, size_t{100}, size_t{10000}, size_t{1000000}}) {
    HttpClient client(host_->port(), 4096);
    client.send("GET /large HTTP/1.1\r\nHost: a\r\n\r\n" + kGet);
    std::string some(taken + 1, ' ');
    if (taken > 0) {
      ASSERT_GT(recv(client.fd(), some.data(), taken, MSG_WAITALL), 0);
    }
    client.reset();
  }
  HttpClient last(host_->port());
  EXPECT_EQ(last.request(kGet).body, "hello");
  last.hang_up();
  host_->stop(5000);
  EXPECT_LT(open_descriptors(), before);
}

// ---- Clients that are too many ----

TEST_F(HttpSlow, OneTooManyIsAnswered503) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_connections = 2;
  start(limits);
  auto one = std::make_unique<HttpClient>(host_->port());
  HttpClient two(host_->port());
  EXPECT_EQ(one->request(kGet).status, 200);
  EXPECT_EQ(two.request(kGet).status, 200);
  HttpClient three(host_->port());
  const HttpResponse response = three.response();  // it need not ask
  EXPECT_EQ(response.status_line, "HTTP/1.1 503 Service Unavailable");
  EXPECT_EQ(response.body, "too many connections\n");
  EXPECT_EQ(response.header("Connection"), "close");
  three.send(kGet);
  EXPECT_TRUE(three.is_closed());
  EXPECT_EQ(two.request(kGet).status, 200);
  // Room is made by one that goes.
  one.reset();
  int status = 503;
  for (int i = 0; i < 1000 && status == 503; ++i) status = HttpClient(host_->port()).request(kGet).status;
  EXPECT_EQ(status, 200);
}

TEST_F(HttpSlow, FourThousandAndNinetySixAreServed) {
  struct rlimit room;
  getrlimit(RLIMIT_NOFILE, &room);
  room.rlim_cur = std::min<rlim_t>(room.rlim_max, 20000);
  setrlimit(RLIMIT_NOFILE, &room);
  if (room.rlim_cur < 9000) GTEST_SKIP() << "a process may only have " << room.rlim_cur << " descriptors";
  start(http_limits());
  std::vector<HttpClient> clients;
  for (int i = 0; i < 4096; ++i) clients.emplace_back(host_->port());
  for (HttpClient &client : clients) client.send(kGet);
  for (HttpClient &client : clients) ASSERT_EQ(client.response().body, "hello");
  HttpClient one_more(host_->port());
  EXPECT_EQ(one_more.response().status, 503);
  for (HttpClient &client : clients) ASSERT_EQ(client.request(kGet).body, "hello");
}

TEST_F(HttpSlow, WithoutDescriptorsAClientIsTurnedAway) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer looks at memory through a descriptor of its own";
#endif
  start(http_limits());
  HttpClient known(host_->port());
  EXPECT_EQ(known.request(kGet).status, 200);
  struct rlimit room, old;
  getrlimit(RLIMIT_NOFILE, &old);
  room = old;
  room.rlim_cur = 100;
  setrlimit(RLIMIT_NOFILE, &room);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  std::vector<int> all;
  for (int one; (one = open("/dev/null", O_RDONLY)) >= 0;) all.push_back(one);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(host_->port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  char byte;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0);
  EXPECT_EQ(known.request(kGet).status, 200);
  for (const int one : all) close(one);
  close(fd);
  setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_THAT(log_.lines(), Contains("http: no descriptors left, a client is turned away\n"));
  HttpClient later(host_->port());
  EXPECT_EQ(later.request(kGet).status, 200);
}

}  // namespace
