// Connections that their handler takes off the loop, and that a job brings back.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"

namespace {

const std::string kGet = "GET /job HTTP/1.1\r\nHost: a\r\n\r\n";

// What a handler hands to a job: the way a host does it.
struct Job {
  ruxo_http_session_ctx *ctx;
  eventer_t connection;
  std::function<void(Job &)> work;
  std::function<void(Job &)> complete;
};

int run_job(eventer_t, int mask, void *closure, struct timeval *) {
  Job *const job = static_cast<Job *>(closure);
  if (mask == EVENTER_ASYNCH_WORK) {
    job->work(*job);
  } else {
    job->complete(*job);
    delete job;
  }
  return 0;
}

void add_back_and_end(Job &job) {
  EXPECT_EQ(eventer_add(job.connection), 0);
  ruxo_http_response_end(job.ctx);
}

bool send_off(ruxo_http_session_ctx *ctx, std::function<void(Job &)> work,
              std::function<void(Job &)> complete = add_back_and_end, eventer_jobq_t *queue = nullptr) {
  const eventer_t e = ruxo_http_connection_event_float(ruxo_http_session_connection(ctx));
  if (e == nullptr) return false;
  EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
  const eventer_t job = eventer_alloc_asynch(run_job, new Job{ctx, e, std::move(work), std::move(complete)});
  eventer_set_owner(job, eventer_get_owner(e));
  eventer_add_asynch(queue, job);
  return true;
}

void build(Job &job) {
  const std::string text = std::string("worked for ") + ruxo_http_request_path(job.ctx);
  ruxo_http_response_header(job.ctx, "Content-Type", "text/plain");
  ruxo_http_response_append(job.ctx, text.data(), text.size());
}

ruxo_http_limits_t hasty() {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = limits.body_timeout_ms = limits.idle_timeout_ms = limits.write_timeout_ms = 100;
  return limits;
}

class HttpFloat : public testing::TestWithParam<int> {
 protected:
  ~HttpFloat() override { host_.stop(5000); }

  HttpHost host_{http_limits(), static_cast<unsigned>(GetParam())};
};

TEST_P(HttpFloat, AJobAnswers) {
  host_.answer("GET", "/job", [](ruxo_http_session_ctx *ctx) { EXPECT_TRUE(send_off(ctx, build)); });
  host_.listen();
  HttpClient client(host_.port());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.request(kGet).body, "worked for /job");
}

TEST_P(HttpFloat, PipelinedRequestsWaitForIt) {
  std::atomic<int> at_once = 0, most = 0;
  host_.answer("GET", "/job", [&](ruxo_http_session_ctx *ctx) {
    most = std::max<int>(most, ++at_once);
    EXPECT_TRUE(send_off(ctx, [&](Job &job) {
      build(job);
      --at_once;
    }));
  });
  host_.listen();
  HttpClient client(host_.port());
  client.send(kGet + kGet + kGet);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client.response().body, "worked for /job");
  EXPECT_EQ(most, 1);
}

TEST_P(HttpFloat, TheWorkerMayEndTheResponse) {
  host_.answer("GET", "/job", [](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(send_off(
        ctx,
        [](Job &job) {
          build(job);
          ruxo_http_response_end(job.ctx);
        },
        [](Job &job) { EXPECT_EQ(eventer_add(job.connection), 0); }));
  });
  host_.listen();
  HttpClient client(host_.port());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(client.request(kGet).body, "worked for /job");
}

TEST_P(HttpFloat, TheEndMayComeAfterTheReturn) {
  host_.answer("GET", "/job", [](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(send_off(ctx, build, [](Job &job) {
      EXPECT_EQ(eventer_add(job.connection), 0);
      eventer_add_in_s_us(
          [](eventer_t, int, void *closure, struct timeval *) {
            ruxo_http_response_end(static_cast<ruxo_http_session_ctx *>(closure));
            return 0;
          },
          job.ctx, 0, 20000);
    }));
  });
  host_.listen();
  HttpClient client(host_.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client.request(kGet).body, "worked for /job");
}

TEST_P(HttpFloat, InHeadWhenThereIsNoBody) {
  int phases = 0;
  host_.route("GET", "/job", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    ++phases;
    EXPECT_EQ(phase, RUXO_HTTP_HEAD);
    EXPECT_TRUE(send_off(ctx, build));
    return 0;
  });
  host_.listen();
  HttpClient client(host_.port());
  EXPECT_EQ(client.request(kGet).body, "worked for /job");
  EXPECT_EQ(phases, 1);
}

TEST_P(HttpFloat, NotWhileABodyIsComing) {
  host_.route("POST", "/job", [](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    ruxo_http_connection_t *const connection = ruxo_http_session_connection(ctx);
    if (phase != RUXO_HTTP_COMPLETE) {
      EXPECT_EQ(ruxo_http_connection_event_float(connection), nullptr);
      return 0;
    }
    EXPECT_TRUE(send_off(ctx, build));
    EXPECT_EQ(ruxo_http_connection_event_float(connection), nullptr);  // it floats
    return 0;
  });
  host_.listen();
  HttpClient client(host_.port());
  EXPECT_EQ(client.request("POST /job HTTP/1.1\r\nHost: a\r\nContent-Length: 1\r\n\r\nx").body,
            "worked for /job");
}

TEST_P(HttpFloat, NotOnceTheResponseHasEnded) {
  host_.answer("GET", "/job", [](ruxo_http_session_ctx *ctx) {
    ruxo_http_connection_t *const connection = ruxo_http_session_connection(ctx);
    ruxo_http_respond(ctx, 200, "text/plain", "ended");
    EXPECT_EQ(ruxo_http_connection_event_float(connection), nullptr);
  });
  host_.listen();
  HttpClient client(host_.port());
  EXPECT_EQ(client.request(kGet).body, "ended");
}

TEST_P(HttpFloat, AClientThatGoesMeanwhileIsNoMatter) {
  std::atomic<int> aborted = 0;
  Happened begun, gone, done;
  host_.route("GET", "/job", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_ABORTED) ++aborted;
    if (phase != RUXO_HTTP_COMPLETE) return 0;
    EXPECT_TRUE(send_off(
        ctx,
        [&](Job &job) {
          begun.once();
          gone.wait();
          build(job);
        },
        [&](Job &job) {
          add_back_and_end(job);
          done.once();
        }));
    return 0;
  });
  host_.listen();
  for (const bool abruptly : {false, true}) {
    HttpClient client(host_.port());
    client.send(kGet);
    begun.wait();
    abruptly ? client.reset() : client.hang_up();
    gone.once();
    done.wait();
  }
  EXPECT_EQ(host_.stop(5000), 0U);
  EXPECT_EQ(aborted, 0);
}

TEST_P(HttpFloat, IsCutByAStopThatDoesNotWait) {
  Happened begun, stopped;
  std::atomic<bool> answered = false;
  host_.answer("GET", "/job", [&](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(send_off(
        ctx,
        [&](Job &job) {
          begun.once();
          stopped.wait();
          build(job);
        },
        [&](Job &job) {
          add_back_and_end(job);
          answered = true;
        }));
  });
  host_.listen();
  HttpClient client(host_.port());
  client.send(kGet);
  begun.wait();
  EXPECT_EQ(host_.stop(20), 1U);
  EXPECT_TRUE(client.is_closed());  // while the job still runs
  EXPECT_FALSE(answered);
  stopped.once();
  while (!answered) std::this_thread::yield();
  for (unsigned i = 0; i < eventer_loop_count(); ++i) let_loop_pass(eventer_choose_owner(i));
}

// The loops go before the server: what has begun completes, what waits is cancelled, and nobody hears of it twice.
TEST_P(HttpFloat, IsGivenBackWhenTheLoopsEnd) {
  std::atomic<int> given_back = 0, aborted = 0;
  Happened begun, ending;
  eventer_jobq_t *const queue = eventer_jobq_create("float", 1);
  host_.route("GET", "/job", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_ABORTED) ++aborted;
    if (phase != RUXO_HTTP_COMPLETE) return 0;
    const auto work = [&](Job &) {
      begun.once();
      ending.wait();
    };
    const auto complete = [&](Job &job) {
      ++given_back;
      add_back_and_end(job);
    };
    EXPECT_TRUE(send_off(ctx, work, complete, queue));
    begun.once();
    return 0;
  });
  host_.listen();
  HttpClient working(host_.port()), waiting(host_.port());
  working.send(kGet);
  begun.wait(2);
  waiting.send(kGet);
  begun.wait();
  std::jthread end([] { eventer_stop(); });
  while (eventer_jobq_backlog(queue) != 0) std::this_thread::yield();
  ending.once();
  end.join();
  EXPECT_EQ(given_back, 2);
  host_.stop(5000);
  EXPECT_EQ(aborted, 0);
  eventer_jobq_destroy(queue);
}

TEST_P(HttpFloat, IsTheHostsUntilItsEndThoughItIsBack) {
  std::atomic<int> aborted = 0;
  Happened back;
  ruxo_http_session_ctx *kept = nullptr;
  pthread_t owner = 0;
  host_.route("GET", "/job", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_ABORTED) ++aborted;
    if (phase != RUXO_HTTP_COMPLETE) return 0;
    EXPECT_TRUE(send_off(ctx, build, [&](Job &job) {
      kept = job.ctx;
      owner = eventer_get_owner(job.connection);
      EXPECT_EQ(eventer_add(job.connection), 0);
      back.once();
    }));
    return 0;
  });
  host_.listen();
  HttpClient client(host_.port());
  client.send(kGet);
  back.wait();
  let_loop_pass(owner);
  client.reset();
  let_loop_pass(owner);
  EXPECT_EQ(host_.stop(20), 1U);
  EXPECT_EQ(aborted, 0);
  on_loop(owner, [&] { ruxo_http_response_end(kept); });
}

TEST_P(HttpFloat, IsNotToldOfItsEndTwiceWhenTheLoopsAreGone) {
  std::atomic<int> aborted = 0;
  Happened gone_off;
  ruxo_http_session_ctx *kept = nullptr;
  eventer_t event = nullptr;
  host_.route("GET", "/job", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_ABORTED) ++aborted;
    if (phase != RUXO_HTTP_COMPLETE) return 0;
    kept = ctx;
    event = ruxo_http_connection_event_float(ruxo_http_session_connection(ctx));
    EXPECT_EQ(eventer_remove_fd(eventer_get_fd(event)), event);
    gone_off.once();
    return 0;
  });
  host_.listen();
  HttpClient client(host_.port());
  client.send(kGet);
  gone_off.wait();
  eventer_stop();
  ruxo_http_response_end(kept);
  EXPECT_EQ(eventer_add(event), 0);  // waits for loops that do not come
  EXPECT_EQ(host_.stop(1000), 1U);
  EXPECT_EQ(aborted, 0);
  EXPECT_TRUE(client.is_closed());
}

INSTANTIATE_TEST_SUITE_P(Loops, HttpFloat, testing::Values(1, 3));

TEST(HttpFloatHasty, NoDeadlineRuns) {
  HttpHost host(hasty());
  host.answer("GET", "/job", [](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(send_off(ctx, [](Job &job) {
      // Longer than each deadline of a hasty host: what is shown is that none runs.
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
      build(job);
    }));
  });
  host.listen();
  HttpClient client(host.port());
  EXPECT_EQ(client.request(kGet).body, "worked for /job");
}

}  // namespace
