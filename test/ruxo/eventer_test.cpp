// Events on their own, and the loop threads' coming and going.
#include "ruxo/eventer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <set>
#include <thread>
#include <vector>

#include "test/support/child_process.h"
#include "test/support/event_loops.h"
#include "test/support/socket_pair.h"

namespace {

int done(eventer_t, int, void *, struct timeval *) {
  return 0;
}

// A descriptor event that a failed addition leaves with the test.
int errno_of_adding(int fd, int mask) {
  const eventer_t e = eventer_alloc_fd(done, nullptr, fd, mask);
  errno = 0;
  const int result = eventer_add(e);
  const int reason = errno;
  EXPECT_EQ(result, -1);
  EXPECT_EQ(eventer_remove_fd(fd), nullptr);
  eventer_free(e);
  return reason;
}

TEST(Eventer, AnEventHasAMask) {
  const eventer_t e = eventer_alloc();
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(eventer_get_mask(e), 0);
  eventer_set_mask(e, EVENTER_READ | EVENTER_EXCEPTION);
  EXPECT_EQ(eventer_get_mask(e), 5);
  eventer_free(e);
  eventer_free(nullptr);
}

TEST(Eventer, ADescriptorEventTellsWhatItWasMadeOf) {
  int closure = 0;
  const eventer_t e = eventer_alloc_fd(done, &closure, 7, EVENTER_READ);
  EXPECT_EQ(eventer_get_fd(e), 7);
  EXPECT_EQ(eventer_get_mask(e), EVENTER_READ);
  EXPECT_EQ(eventer_get_closure(e), &closure);
  EXPECT_EQ(eventer_get_owner(e), pthread_t{});
  EXPECT_FALSE(eventer_is_owner(e));
  eventer_free(e);
}

TEST(Eventer, ATimerAndAJobHaveNoDescriptor) {
  const struct timeval when = {12, 34};
  const eventer_t timer = eventer_alloc_timer(done, nullptr, &when);
  EXPECT_EQ(eventer_get_fd(timer), -1);
  EXPECT_EQ(eventer_get_mask(timer), EVENTER_TIMER);
  EXPECT_EQ(eventer_get_when(timer).tv_sec, 12);
  EXPECT_EQ(eventer_get_when(timer).tv_usec, 34);
  eventer_free(timer);
  const eventer_t job = eventer_alloc_asynch(done, nullptr);
  EXPECT_EQ(eventer_get_fd(job), -1);
  EXPECT_EQ(eventer_get_mask(job), EVENTER_ASYNCH_WORK | EVENTER_ASYNCH_COMPLETE);
  eventer_free(job);
}

TEST(Eventer, WhatWaitsForNothingIsNotAdded) {
  const SocketPair sockets;
  EXPECT_EQ(errno_of_adding(sockets.near(), 0), EINVAL);
  EXPECT_EQ(errno_of_adding(sockets.near(), EVENTER_TIMER), EINVAL);
  for (const eventer_t e : {eventer_alloc(), eventer_alloc_asynch(done, nullptr)}) {
    EXPECT_EQ(eventer_add(e), -1);
    EXPECT_EQ(errno, EINVAL);
    eventer_free(e);
  }
}

TEST(Eventer, WhatCannotBeWatchedIsNotAdded) {
  const EventLoops loops;
  EXPECT_EQ(errno_of_adding(-1, EVENTER_READ), EBADF);
  EXPECT_EQ(errno_of_adding(1000000, EVENTER_READ), EBADF);
  for (const char *path : {"/proc/self/exe", "/", "/dev/null"}) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(errno_of_adding(fd, EVENTER_READ), EPERM) << path;
    close(fd);
  }
}

TEST(Eventer, ADescriptorHasOneEvent) {
  const SocketPair sockets;
  const eventer_t e = eventer_alloc_fd(done, nullptr, sockets.near(), EVENTER_READ);
  EXPECT_EQ(eventer_add(e), 0);
  EXPECT_EQ(eventer_add(e), -1) << "the same event again";
  EXPECT_EQ(errno, EEXIST);
  const eventer_t other = eventer_alloc_fd(done, nullptr, sockets.near(), EVENTER_WRITE);
  EXPECT_EQ(eventer_add(other), -1);
  EXPECT_EQ(errno, EEXIST);
  eventer_free(other);
  EXPECT_EQ(eventer_remove_fd(sockets.near()), e);
  EXPECT_EQ(eventer_remove_fd(sockets.near()), nullptr);
  EXPECT_EQ(eventer_add(e), 0) << "free again";
  EXPECT_EQ(eventer_remove_fd(sockets.near()), e);
  eventer_free(e);
}

TEST(Eventer, DescriptorsWithoutAnEventGiveNull) {
  EXPECT_EQ(eventer_remove_fd(-1), nullptr);
  EXPECT_EQ(eventer_remove_fd(0), nullptr);
  EXPECT_EQ(eventer_remove_fd(1000000), nullptr);
}

TEST(Eventer, WhatIsAddedBeforeTheStartWaitsForIt) {
  SocketPair sockets;
  std::vector<int> masks;
  Happened happened;
  const auto note = [&](eventer_t e, int mask, const struct timeval &) {
    EXPECT_TRUE(eventer_is_owner(e));
    masks.push_back(mask);
    happened.once();
    return 0;
  };
  Handler handler(note);
  ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ)), 0);
  ASSERT_NE(eventer_add_in_s_us(Handler::call, &handler, 0, 0), nullptr);
  ASSERT_TRUE(sockets.send_far("x"));
  EXPECT_TRUE(masks.empty());
  const EventLoops loops;
  happened.wait(2);
  EXPECT_THAT(masks, testing::UnorderedElementsAre(EVENTER_READ, EVENTER_TIMER));
}

TEST(Eventer, AWakeupBeforeTheStartWaitsForIt) {
  const SocketPair sockets;
  Happened happened;
  int told = 0;
  Handler handler([&](eventer_t, int mask, const struct timeval &) {
    told = mask;
    happened.once();
    return 0;
  });
  const eventer_t e = eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ);
  eventer_wakeup(e, EVENTER_WRITE);  // not registered: nothing
  ASSERT_EQ(eventer_add(e), 0);
  eventer_wakeup(e, EVENTER_TIMER);
  const EventLoops loops;
  happened.wait();
  EXPECT_EQ(told, EVENTER_TIMER);
}

TEST(Eventer, ADescriptorThatTheStartCannotWatchIsToldByException) {
  SocketPair sockets;
  Happened happened;
  int told = 0;
  Handler handler([&](eventer_t e, int mask, const struct timeval &) {
    told = mask;
    EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
    eventer_free(e);
    happened.once();
    return 0;
  });
  ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ)), 0);
  sockets.close_near();
  const EventLoops loops;
  happened.wait();
  EXPECT_EQ(told, EVENTER_EXCEPTION);
}

TEST(Eventer, TheNumberOfThreadsHasLimits) {
  EXPECT_EQ(eventer_start(0), -1);
  EXPECT_EQ(eventer_start(257), -1);
  EXPECT_EQ(eventer_loop_count(), 0U);
  EXPECT_EQ(eventer_choose_owner(3), pthread_t{});
  ASSERT_EQ(eventer_start(3), 0);
  EXPECT_EQ(eventer_loop_count(), 3U);
  EXPECT_EQ(eventer_start(1), -1) << "they run already";
  EXPECT_EQ(eventer_loop_count(), 3U);
  std::set<pthread_t> owners;
  for (unsigned i = 0; i < 6; ++i) owners.insert(eventer_choose_owner(i));
  EXPECT_EQ(owners.size(), 3U);
  EXPECT_EQ(owners.count(pthread_t{}), 0U);
  EXPECT_EQ(eventer_choose_owner(1), eventer_choose_owner(4));
  eventer_stop();
  EXPECT_EQ(eventer_loop_count(), 0U);
}

TEST(Eventer, TwoHundredFiftySixThreadsComeAndGo) {
  if (child_process::built_for_thread_sanitizer())
    GTEST_SKIP() << "many threads are slow under this sanitizer";
  const EventLoops loops(256);
  std::atomic<int> count = 0;
  for (unsigned i = 0; i < 256; ++i) on_loop(eventer_choose_owner(i), [&] { ++count; });
  EXPECT_EQ(count, 256);
}

TEST(Eventer, StartFailsWholeWithoutDescriptors) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors itself to look at an exception";
#endif
  struct rlimit old {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  struct rlimit low = old;
  low.rlim_cur = 16;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  const int result = eventer_start(16);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(eventer_loop_count(), 0U);
  const EventLoops loops(2);
  EXPECT_EQ(eventer_loop_count(), 2U);
}

TEST(Eventer, StopFreesWhatIsRegisteredWithoutCallingIt) {
  const SocketPair sockets;
  std::atomic<int> calls = 0;
  Handler handler([&](eventer_t, int, const struct timeval &) { return ++calls; });
  {
    const EventLoops loops(2);
    ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ)), 0);
    ASSERT_NE(eventer_add_in_s_us(Handler::call, &handler, 1000, 0), nullptr);
  }
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(eventer_remove_fd(sockets.near()), nullptr);
  EXPECT_EQ(fcntl(sockets.near(), F_GETFD), FD_CLOEXEC) << "the descriptor stays open";
}

TEST(Eventer, StartsAndStopsManyTimes) {
  for (int round = 0; round < 20; ++round) {
    const SocketPair sockets;
    Happened happened;
    Handler handler([&](eventer_t, int, const struct timeval &) {
      happened.once();
      return 0;
    });
    const EventLoops loops(2);
    ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ)), 0);
    ASSERT_TRUE(sockets.send_far("x"));
    happened.wait();
  }
}

TEST(Eventer, StopWithoutAStartIsFine) {
  eventer_stop();
  eventer_stop();
  const EventLoops loops;
  EXPECT_EQ(eventer_loop_count(), 1U);
}

TEST(Eventer, StopWaitsForTheCallbackThatRuns) {
  std::atomic<bool> over = false;
  Happened entered, leave;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    entered.once();
    leave.wait();
    over = true;
    return 0;
  });
  ASSERT_EQ(eventer_start(1), 0);
  ASSERT_NE(eventer_add_in_s_us(Handler::call, &handler, 0, 0), nullptr);
  entered.wait();
  std::thread stopper([&] {
    eventer_stop();
    EXPECT_TRUE(over);
  });
  leave.once();
  stopper.join();
}

TEST(Eventer, AnEventAddedBehindTheStopWaitsForTheNextStart) {
  Happened happened;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    happened.once();
    return 0;
  });
  { const EventLoops loops; }
  ASSERT_NE(eventer_add_in_s_us(Handler::call, &handler, 0, 0), nullptr);
  const EventLoops loops;
  happened.wait();
}

TEST(Eventer, OwnersAreChosenInTurnOrAsAsked) {
  std::array<SocketPair, 8> sockets;
  const EventLoops loops(4);
  std::vector<pthread_t> owners;
  for (const SocketPair &pair : sockets) {
    const eventer_t e = eventer_alloc_fd(done, nullptr, pair.near(), EVENTER_READ);
    ASSERT_EQ(eventer_add(e), 0);
    owners.push_back(eventer_get_owner(e));
    EXPECT_EQ(eventer_remove_fd(pair.near()), e);
    eventer_set_owner(e, eventer_choose_owner(2));
    ASSERT_EQ(eventer_add(e), 0);
    EXPECT_EQ(eventer_get_owner(e), eventer_choose_owner(2));
    EXPECT_FALSE(eventer_is_owner(e));
    on_loop(eventer_choose_owner(2), [&] { EXPECT_TRUE(eventer_is_owner(e)); });
    on_loop(eventer_choose_owner(3), [&] { EXPECT_FALSE(eventer_is_owner(e)); });
  }
  EXPECT_EQ(std::set<pthread_t>(owners.begin(), owners.begin() + 4).size(), 4U);
  EXPECT_EQ(owners[0], owners[4]);
}

TEST(Eventer, AThreadThatIsNoLoopsIsAsGoodAsNone) {
  const SocketPair sockets;
  const EventLoops loops(2);
  const eventer_t e = eventer_alloc_fd(done, nullptr, sockets.near(), EVENTER_READ);
  eventer_set_owner(e, pthread_self());
  ASSERT_EQ(eventer_add(e), 0);
  EXPECT_NE(eventer_get_owner(e), pthread_self());
}

TEST(Eventer, WhatALoopThreadMakesIsItsOwn) {
  const EventLoops loops(4);
  for (unsigned i = 0; i < 4; ++i) {
    on_loop(eventer_choose_owner(i), [] {
      const eventer_t e = eventer_alloc_asynch(done, nullptr);
      EXPECT_EQ(eventer_get_owner(e), pthread_self());
      EXPECT_TRUE(eventer_is_owner(e));
      eventer_free(e);
    });
  }
}

TEST(Eventer, BrokenPipesAreIgnoredOnceItRuns) {
  FORKS_A_CHILD();
  const ChildResult result = run_in_child([] {
    eventer_start(1);
    SocketPair sockets;
    sockets.close_far();
    char byte = 0;
    if (write(sockets.near(), &byte, 1) != -1 || errno != EPIPE) _exit(1);
    _exit(0);
  });
  EXPECT_TRUE(result.exited_with(0)) << result.status;
}

TEST(Eventer, AHostThatHandlesBrokenPipesKeepsItsHandler) {
  const auto old = signal(SIGPIPE, [](int) {});
  struct sigaction before {
  }, after{};
  sigaction(SIGPIPE, nullptr, &before);
  { const EventLoops loops; }
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(before.sa_handler, after.sa_handler);
  signal(SIGPIPE, old);
}

TEST(Eventer, AForkedChildStartsAnew) {
  FORKS_WITH_THREADS();
  const SocketPair sockets;
  const EventLoops loops(2);
  Happened happened;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    happened.once();
    return 0;
  });
  ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ)), 0);
  eventer_jobq_t *const queue = eventer_jobq_create("test/forked", 2);
  eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
  happened.wait(2);
  const ChildResult result = run_in_child([&] {
    if (eventer_loop_count() != 0) _exit(1);
    if (eventer_remove_fd(sockets.near()) != nullptr) _exit(2);
    const EventLoops own(1);
    const SocketPair others;
    if (eventer_add(eventer_alloc_fd(Handler::call, &handler, others.near(), EVENTER_READ)) != 0) _exit(3);
    if (!others.send_far("x")) _exit(4);
    happened.wait();
    eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
    happened.wait(2);
  });
  EXPECT_TRUE(result.exited_with(0)) << result.status << result.stderr_text;
  // The child has taken nothing from the parent.
  ASSERT_TRUE(sockets.send_far("x"));
  happened.wait();
  eventer_jobq_destroy(queue);
}

TEST(Eventer, AProcessMayEndWhileItRuns) {
  FORKS_A_CHILD();
  const ChildResult result = run_in_child([] {
    eventer_start(2);
    eventer_add_in_s_us(done, nullptr, 1000, 0);
    eventer_add_asynch(nullptr, eventer_alloc_asynch(done, nullptr));
  });
  EXPECT_TRUE(result.exited_with(0)) << result.status << result.stderr_text;
}

TEST(EventerDeathTest, FreeingARegisteredEventIsFatal) {
  EXPECT_DEATH(
      {
        const SocketPair sockets;
        const eventer_t e = eventer_alloc_fd(done, nullptr, sockets.near(), EVENTER_READ);
        eventer_add(e);
        eventer_free(e);
      },
      "message=\"\\[FATAL\\] an event is freed that is registered\"\n");
}

TEST(EventerDeathTest, StoppingFromALoopThreadIsFatal) {
  EXPECT_DEATH(
      {
        eventer_start(1);
        on_loop(eventer_choose_owner(0), eventer_stop);
      },
      "message=\"\\[FATAL\\] eventer_stop\\(\\) was called from a loop or worker thread\"\n");
}

}  // namespace
