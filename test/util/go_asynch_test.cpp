#include "liborlith/util/go_asynch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/event_loops.h"
#include "test/support/log_capture.h"
#include "test/support/socket_pair.h"

// A connection's double: all that a hand-off sees of one is its event, once.
struct ruxo_http_connection {
  eventer_t event = nullptr;
  bool floats = false;
};

namespace {
bool no_memory_for_jobs = false;
}

extern "C" {
// Declared first, as the compilers ask for.
eventer_t __wrap_ruxo_http_connection_event_float(ruxo_http_connection_t *connection);
eventer_t __wrap_ruxo_http_connection_event_float(ruxo_http_connection_t *connection) {
  if (connection->floats) return nullptr;
  connection->floats = true;
  return connection->event;
}
eventer_t __real_eventer_alloc_asynch(eventer_func_t function, void *closure);
eventer_t __wrap_eventer_alloc_asynch(eventer_func_t function, void *closure);
eventer_t __wrap_eventer_alloc_asynch(eventer_func_t function, void *closure) {
  return no_memory_for_jobs ? nullptr : __real_eventer_alloc_asynch(function, closure);
}
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kBothPhases[] = {EVENTER_ASYNCH_WORK, EVENTER_ASYNCH_COMPLETE};

class GoAsynch : public testing::Test {
 protected:
  GoAsynch() {
    eventer_start(3);
    queue_ = eventer_jobq_create("test/go_asynch", 2);
  }
  ~GoAsynch() override {
    eventer_jobq_destroy(queue_);
    eventer_stop();
  }

  // Notes its phases and where they ran.
  int on_job(eventer_t, int phase) {
    phases_.push_back(phase);
    threads_.push_back(pthread_self());
    if (phase == EVENTER_ASYNCH_COMPLETE) {
      complete_();
      completed_.once();
    }
    return 0;
  }

  eventer_jobq_t *queue_ = nullptr;
  std::vector<int> phases_;
  std::vector<pthread_t> threads_;
  std::function<void()> complete_ = [] {};
  Happened completed_;
  Handler job_{[this](eventer_t e, int phase, const struct timeval &) { return on_job(e, phase); }};
};

TEST_F(GoAsynch, TheWorkRunsOnTheQueueAndCompletes) {
  EXPECT_EQ(orlith_go_asynch(queue_, Handler::call, &job_), 0);
  completed_.wait();
  EXPECT_THAT(phases_, testing::ElementsAreArray(kBothPhases));
}

TEST_F(GoAsynch, NoQueueIsTheDefaultOne) {
  EXPECT_EQ(orlith_go_asynch(nullptr, Handler::call, &job_), 0);
  completed_.wait();
  EXPECT_NE(eventer_jobq_by_name("default"), nullptr);
}

TEST_F(GoAsynch, AHandlersJobCompletesOnItsOwnThread) {
  on_loop(eventer_choose_owner(2), [&] { orlith_go_asynch(queue_, Handler::call, &job_); });
  completed_.wait();
  EXPECT_EQ(threads_[1], eventer_choose_owner(2));
}

// The whole way: the handler takes its connection off the loop, where no byte of it is read; the job works; its
// completion, on the connection's thread, puts the connection back, and what has come meanwhile is read.
TEST_F(GoAsynch, AConnectionIsOffItsLoopUntilTheCompletionPutsItBack) {
  const SocketPair sockets;
  ruxo_http_connection connection;
  Happened answered;
  std::vector<std::string> received;
  Handler handler([&](eventer_t e, int, const struct timeval &) {
    received.push_back(SocketPair::receive(eventer_get_fd(e)));
    if (received.size() == 2) {
      answered.once();
      return EVENTER_READ;
    }
    EXPECT_EQ(orlith_http_go_asynch(queue_, Handler::call, &job_, &connection), 0);
    EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), nullptr) << "it is out";
    EXPECT_TRUE(sockets.send_far("second"));
    return 0;
  });
  connection.event = eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ);
  eventer_set_owner(connection.event, eventer_choose_owner(1));
  complete_ = [&] {
    EXPECT_THAT(received, ElementsAre("first"));
    EXPECT_EQ(eventer_get_owner(connection.event), pthread_self());
    EXPECT_EQ(eventer_add(connection.event), 0);
  };
  ASSERT_TRUE(sockets.send_far("first"));
  ASSERT_EQ(eventer_add(connection.event), 0);
  answered.wait();
  EXPECT_THAT(received, ElementsAre("first", "second"));
  EXPECT_THAT(phases_, testing::ElementsAreArray(kBothPhases));
  EXPECT_NE(threads_[0], eventer_choose_owner(1));
  EXPECT_EQ(threads_[1], eventer_choose_owner(1));
  const eventer_t e = eventer_remove_fd(sockets.near());
  EXPECT_EQ(e, connection.event);
  eventer_free(e);
}

TEST_F(GoAsynch, ThreadsThatAreNotTheConnectionsStillCompleteOnIts) {
  const SocketPair sockets;
  ruxo_http_connection connection;
  connection.event = eventer_alloc_fd(Handler::call, &job_, sockets.near(), EVENTER_READ);
  eventer_set_owner(connection.event, eventer_choose_owner(1));
  ASSERT_EQ(eventer_add(connection.event), 0);
  on_loop(eventer_choose_owner(0), [&] { orlith_http_go_asynch(queue_, Handler::call, &job_, &connection); });
  completed_.wait();
  EXPECT_EQ(threads_[1], eventer_choose_owner(1));
  eventer_free(connection.event);
}

TEST_F(GoAsynch, AConnectionThatHasNoEventOnTheLoopChangesNothing) {
  ruxo_http_connection connection;
  connection.floats = true;
  on_loop(eventer_choose_owner(2),
          [&] { EXPECT_EQ(orlith_http_go_asynch(queue_, Handler::call, &job_, &connection), 0); });
  completed_.wait();
  EXPECT_EQ(threads_[1], eventer_choose_owner(2));
}

TEST_F(GoAsynch, NoConnectionChangesNothing) {
  EXPECT_EQ(orlith_http_go_asynch(queue_, Handler::call, &job_, nullptr), 0);
  completed_.wait();
  EXPECT_THAT(phases_, testing::ElementsAreArray(kBothPhases));
}

TEST_F(GoAsynch, OnlyTheHttpFormSaysThatItDeschedules) {
  const LogCapture debug(&go_asynch_debug_ls);
  orlith_go_asynch(queue_, Handler::call, &job_);
  completed_.wait();
  EXPECT_THAT(debug.lines(), IsEmpty());
  ruxo_http_connection connection;
  orlith_http_go_asynch(queue_, Handler::call, &job_, &connection);
  completed_.wait();
  EXPECT_THAT(debug.lines(), ElementsAre("Descheduling for asynch merge completion...\n"));
}

TEST_F(GoAsynch, AJobForAClosedQueueIsCancelled) {
  eventer_stop();
  EXPECT_EQ(orlith_go_asynch(queue_, Handler::call, &job_), 0);
  EXPECT_THAT(phases_, ElementsAre(EVENTER_ASYNCH_CANCEL));
}

TEST(GoAsynchDeathTest, AJobWithoutMemoryIsFatal) {
  EXPECT_DEATH(
      {
        no_memory_for_jobs = true;
        orlith_go_asynch(nullptr, nullptr, nullptr);
      },
      "message=\"\\[FATAL\\] assertion \\(job != NULL\\) at util/go_asynch\\.cpp:[0-9]+ failed\"\n");
}

}  // namespace
