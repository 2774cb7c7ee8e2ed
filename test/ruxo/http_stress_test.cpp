// Many clients, loop threads and workers at once, and a stop in the middle: for the thread sanitizer above all.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/log_capture.h"

namespace {

constexpr int kClients = 6;
constexpr int kRounds = 150;

struct Job {
  ruxo_http_session_ctx *ctx;
  eventer_t connection;
};

int run_job(eventer_t, int mask, void *closure, struct timeval *) {
  Job *const job = static_cast<Job *>(closure);
  if (mask == EVENTER_ASYNCH_WORK) {
    const char *const path = ruxo_http_request_path(job->ctx);
    ruxo_http_response_append(job->ctx, path, strlen(path));
    return 0;
  }
  eventer_add(job->connection);
  ruxo_http_response_end(job->ctx);
  delete job;
  return 0;
}

void send_off(ruxo_http_session_ctx *ctx) {
  const eventer_t e = ruxo_http_connection_event_float(ruxo_http_session_connection(ctx));
  eventer_remove_fd(eventer_get_fd(e));
  const eventer_t job = eventer_alloc_asynch(run_job, new Job{ctx, e});
  eventer_set_owner(job, eventer_get_owner(e));
  eventer_add_asynch(nullptr, job);
}

class HttpStress : public testing::Test {
 protected:
  ~HttpStress() override { host_.stop(5000); }

  void SetUp() override {
    host_.answer("GET", "/at-once/", [](ruxo_http_session_ctx *ctx) {
      ruxo_http_respond(ctx, 200, "text/plain", ruxo_http_request_path(ctx));
    });
    host_.answer("GET", "/by-job/", send_off);
    host_.route("POST", "/body",
                [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
                  if (phase == RUXO_HTTP_HEAD) ++begun_;
                  if (phase == RUXO_HTTP_BODY) ruxo_http_response_append(ctx, bytes.data(), bytes.size());
                  if (phase == RUXO_HTTP_COMPLETE) {
                    ++completed_;
                    ruxo_http_response_end(ctx);
                  }
                  if (phase == RUXO_HTTP_ABORTED) ++aborted_;
                  return 0;
                });
    host_.listen();
  }

  // One request of a client; false once the server has gone.
  bool ask(HttpClient &client, int number) const {
    const std::string text = std::to_string(number);
    std::string request, expected;
    if (number % 3 == 0) {
      request = "POST /body HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(text.size()) +
                "\r\n\r\n" + text;
      expected = text;
    } else {
      expected = (number % 3 == 1 ? "/at-once/" : "/by-job/") + text;
      request = "GET " + expected + " HTTP/1.1\r\nHost: a\r\n\r\n";
    }
    const HttpResponse response = client.request(request);
    if (response.status == 0) return false;
    EXPECT_EQ(response.body, expected);
    return response.header("Connection") == "(none)";
  }

  const LogCapture log_{&ruxo_error};
  std::atomic<int> begun_ = 0, completed_ = 0, aborted_ = 0;
  HttpHost host_{http_limits(), 3};
};

TEST_F(HttpStress, ManyClientsAreServed) {
  std::vector<std::jthread> threads;
  std::atomic<int> answered = 0;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      auto client = std::make_unique<HttpClient>(host_.port());
      for (int round = 0; round < kRounds; ++round) {
        if (round % 20 == 19) client = std::make_unique<HttpClient>(host_.port());
        if (ask(*client, i * kRounds + round)) ++answered;
      }
    });
  }
  threads.clear();
  EXPECT_EQ(answered, kClients * kRounds);
  EXPECT_EQ(host_.stop(5000), 0U);
  EXPECT_EQ(begun_, completed_);
}

TEST_F(HttpStress, AStopAmongThemCutsNothingInTwo) {
  std::vector<std::jthread> threads;
  std::atomic<int> answered = 0;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      try {
        for (int number = i * 1000000;; ++number) {
          HttpClient client(host_.port());
          while (ask(client, number++)) ++answered;
        }
      } catch (const std::exception &) {  // nobody listens any more
      }
    });
  }
  while (answered < 100) std::this_thread::yield();
  host_.stop(5000);
  threads.clear();
  EXPECT_EQ(begun_, completed_ + aborted_);
}

}  // namespace
