// What the event loop does when there is no thread to be had.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <limits>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/event_loops.h"

namespace {

// How many threads the framework may still make.
std::atomic<int> threads_left = std::numeric_limits<int>::max();

}  // namespace

extern "C" {
using ThreadFunction = void *(*)(void *);
// Declared first, as the compilers ask for.
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, ThreadFunction work,
                          void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, ThreadFunction work,
                          void *argument);
int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, ThreadFunction work,
                          void *argument) {
  if (threads_left-- <= 0) return EAGAIN;
  return __real_pthread_create(thread, attributes, work, argument);
}
}

namespace {

using testing::ElementsAre;

class EventerThreads : public testing::Test {
 protected:
  ~EventerThreads() override { allow_all(); }
  static void allow(int threads) { threads_left = threads; }
  static void allow_all() { threads_left = std::numeric_limits<int>::max(); }
};

TEST_F(EventerThreads, AStartThatMissesOneLeavesNone) {
  for (int there = 0; there < 4; ++there) {
    allow(there);
    EXPECT_EQ(eventer_start(4), -1);
    EXPECT_EQ(eventer_loop_count(), 0U);
  }
  allow(4);
  const EventLoops loops(4);
  on_loop(eventer_choose_owner(3), [] {});
}

TEST_F(EventerThreads, AJobWithoutAnyWorkerIsCancelledOnItsOwner) {
  const EventLoops loops(1);
  eventer_jobq_t *const queue = eventer_jobq_create("threads/none", 2);
  std::vector<int> phases;
  Happened over;
  Handler handler([&](eventer_t e, int phase, const struct timeval &) {
    phases.push_back(phase);
    EXPECT_TRUE(eventer_is_owner(e));
    over.once();
    return 0;
  });
  allow(0);
  eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
  over.wait();
  EXPECT_THAT(phases, ElementsAre(EVENTER_ASYNCH_CANCEL));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerThreads, WithFewerWorkersThanItMayHaveAQueueWorks) {
  const EventLoops loops(1);
  eventer_jobq_t *const queue = eventer_jobq_create("threads/one", 8);
  std::atomic<int> completions = 0;
  Happened over;
  Handler handler([&](eventer_t, int phase, const struct timeval &) {
    if (phase == EVENTER_ASYNCH_COMPLETE && ++completions == 100) over.once();
    return 0;
  });
  allow(1);
  for (int i = 0; i < 100; ++i) eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
  over.wait();
  eventer_jobq_destroy(queue);
}

}  // namespace
