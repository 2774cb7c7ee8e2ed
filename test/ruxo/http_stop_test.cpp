// The end of a server: what is idle goes at once, what has begun may finish, what lasts too long is cut.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"

namespace {

const std::string kGet = "GET /wait HTTP/1.1\r\nHost: a\r\n\r\n";

// A server whose handler leaves its session to the test.
class HttpStop : public testing::Test {
 protected:
  void SetUp() override {
    host_.route("GET", "/wait",
                [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
                  if (phase == RUXO_HTTP_COMPLETE) {
                    waiting_ = ctx;
                    begun_.once();
                  }
                  if (phase == RUXO_HTTP_ABORTED) ++aborted_;
                  return 0;
                });
    host_.answer("GET", "/hello",
                 [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    host_.listen();
  }

  void answer_it() {
    on_loop(eventer_choose_owner(0), [this] { ruxo_http_respond(waiting_, 200, "text/plain", "waited"); });
  }
  bool refuses() const {
    try {
      HttpClient client(host_.port());
      return false;
    } catch (const std::exception &) {
      return true;
    }
  }

  ruxo_http_session_ctx *waiting_ = nullptr;
  Happened begun_;
  std::atomic<int> aborted_ = 0;
  HttpHost host_;
};

TEST_F(HttpStop, WithoutConnectionsIsAtOnce) {
  EXPECT_EQ(host_.stop(60000), 0U);
  EXPECT_TRUE(refuses());
}

TEST_F(HttpStop, ClosesIdleConnectionsAtOnce) {
  HttpClient silent(host_.port()), served(host_.port());
  EXPECT_EQ(served.request("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n").body, "hello");
  EXPECT_EQ(host_.stop(60000), 0U);
  EXPECT_TRUE(silent.is_closed());
  EXPECT_TRUE(served.is_closed());
}

TEST_F(HttpStop, LetsARequestFinish) {
  HttpClient client(host_.port());
  client.send(kGet + kGet);
  begun_.wait();
  std::future<size_t> cut = std::async(std::launch::async, [this] { return host_.stop(60000); });
  while (!refuses()) std::this_thread::yield();
  let_loop_pass(eventer_choose_owner(0));
  answer_it();
  const HttpResponse response = client.response();
  EXPECT_EQ(response.body, "waited");
  EXPECT_EQ(response.header("Connection"), "close");
  EXPECT_TRUE(client.is_closed());
  client.hang_up();
  EXPECT_EQ(cut.get(), 0U);
  EXPECT_EQ(aborted_, 0);
}

TEST_F(HttpStop, LetsAHeaderAndABodyFinish) {
  HttpClient in_header(host_.port()), after(host_.port());
  in_header.send("GET /hello HTTP/1.1\r\n");
  // Both are known to the loop once a third has been answered.
  HttpClient third(host_.port());
  third.request("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n");
  std::future<size_t> cut = std::async(std::launch::async, [this] { return host_.stop(60000); });
  EXPECT_TRUE(after.is_closed());
  EXPECT_EQ(in_header.request("Host: a\r\n\r\n").header("Connection"), "close");
  in_header.hang_up();
  EXPECT_EQ(cut.get(), 0U);
}

TEST_F(HttpStop, CutsWhatLastsTooLong) {
  HttpClient waiting(host_.port()), in_header(host_.port());
  in_header.send("GET /hello HTTP/1.1\r\n");
  waiting.send(kGet);
  begun_.wait();
  HttpClient third(host_.port());
  third.request("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(host_.stop(50), 2U);
  EXPECT_EQ(aborted_, 1);
  EXPECT_TRUE(waiting.is_closed());
}

TEST_F(HttpStop, DoesNotWaitForClientsThatLinger) {
  HttpClient client(host_.port());
  EXPECT_EQ(client.request("nonsense\r\n\r\n").status, 400);
  EXPECT_EQ(host_.stop(0), 0U);
}

TEST_F(HttpStop, AfterTheLoopsStillEndsEverything) {
  HttpClient waiting(host_.port()), idle(host_.port());
  waiting.send(kGet);
  begun_.wait();
  eventer_stop();
  EXPECT_EQ(host_.stop(1000), 1U);
  EXPECT_EQ(aborted_, 1);
  EXPECT_TRUE(waiting.is_closed());
}

TEST(HttpStopAlone, AServerThatNeverListened) {
  EXPECT_EQ(ruxo_http_server_stop(ruxo_http_server_new(nullptr), 1000), 0U);
}

TEST(HttpStopAlone, AServerThatWaitedForTheLoopsServesThen) {
  ruxo_http_server_t *const server = ruxo_http_server_new(nullptr);
  ruxo_http_server_route(
      server, "GET", "/", 0,
      [](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *, size_t, void *) {
        if (phase == RUXO_HTTP_COMPLETE) ruxo_http_respond(ctx, 200, "text/plain", "there");
        return 0;
      },
      nullptr);
  const int port = ruxo_http_server_listen(server, "127.0.0.1", 0, nullptr);
  ASSERT_GT(port, 0);
  HttpClient client(port);  // waits
  const EventLoops loops;
  EXPECT_EQ(client.request("GET / HTTP/1.1\r\nHost: a\r\n\r\n").body, "there");
  EXPECT_EQ(ruxo_http_server_stop(server, 1000), 0U);
}

TEST(HttpStopAlone, AServerWhoseLoopsNeverStarted) {
  ruxo_http_server_t *const server = ruxo_http_server_new(nullptr);
  const int port = ruxo_http_server_listen(server, "127.0.0.1", 0, nullptr);
  ASSERT_GT(port, 0);
  HttpClient client(port);
  EXPECT_EQ(ruxo_http_server_stop(server, 1000), 0U);
}

}  // namespace
