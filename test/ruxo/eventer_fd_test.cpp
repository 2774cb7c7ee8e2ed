// Descriptors: what their events are told, changing that, taking them out.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/event_loops.h"
#include "test/support/socket_pair.h"

namespace {

using testing::ElementsAre;

// One loop, and a socket pair whose near end's event does what the test says and notes what it is told.
class EventerFd : public testing::Test {
 protected:
  ~EventerFd() override { eventer_stop(); }

  void SetUp() override { ASSERT_EQ(eventer_start(1), 0); }

  eventer_t add(int mask) {
    const eventer_t e = eventer_alloc_fd(Handler::call, &handler_, sockets_.near(), mask);
    EXPECT_EQ(eventer_add(e), 0);
    return e;
  }
  pthread_t owner() const { return eventer_choose_owner(0); }
  void note(int mask) {
    const std::lock_guard guard(lock_);
    told_.push_back(mask);
  }
  // What the callback was told so far.
  std::vector<int> masks() {
    const std::lock_guard guard(lock_);
    return told_;
  }

  SocketPair sockets_;
  Happened called_;
  std::mutex lock_;
  std::vector<int> told_;
  std::function<int(eventer_t)> answer_ = [](eventer_t) { return 0; };
  Handler handler_{[this](eventer_t e, int mask, const struct timeval &) {
    note(mask);
    const int next = answer_(e);
    called_.once();
    return next;
  }};
};

TEST_F(EventerFd, IsToldWhenThereIsSomethingToRead) {
  std::string received;
  answer_ = [&](eventer_t) {
    received += SocketPair::receive(sockets_.near());
    return EVENTER_READ;
  };
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("one"));
  called_.wait();
  EXPECT_EQ(received, "one");
  ASSERT_TRUE(sockets_.send_far("two"));
  called_.wait();
  EXPECT_EQ(received, "onetwo");
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ, EVENTER_READ));
}

TEST_F(EventerFd, IsToldAgainOfWhatItLeaves) {
  std::string received;
  answer_ = [&](eventer_t) {
    char byte = 0;
    EXPECT_EQ(read(sockets_.near(), &byte, 1), 1);
    received += byte;
    return EVENTER_READ;
  };
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("four"));
  called_.wait(4);
  EXPECT_EQ(received, "four");
}

TEST_F(EventerFd, IsToldWhenItCanWrite) {
  add(EVENTER_WRITE);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_WRITE));
}

TEST_F(EventerFd, WaitsUntilItCanWrite) {
  sockets_.fill_near();
  add(EVENTER_WRITE);
  let_loop_pass(owner());
  EXPECT_TRUE(masks().empty());
  SocketPair::receive(sockets_.far());
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_WRITE));
}

TEST_F(EventerFd, WhatHappenedAtOnceIsToldAtOnce) {
  ASSERT_TRUE(sockets_.send_far("x"));
  add(EVENTER_READ | EVENTER_WRITE | EVENTER_EXCEPTION);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ | EVENTER_WRITE));
}

TEST_F(EventerFd, IsNotToldOfWritingTwiceForOneReadiness) {
  ASSERT_TRUE(sockets_.send_far("x"));
  answer_ = [&](eventer_t) {
    SocketPair::receive(sockets_.near());
    sockets_.fill_near();
    return EVENTER_READ | EVENTER_WRITE;
  };
  add(EVENTER_READ | EVENTER_WRITE);
  called_.wait();
  let_loop_pass(owner());
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ | EVENTER_WRITE));
  ASSERT_TRUE(sockets_.send_far("x"));
  called_.wait();
  EXPECT_EQ(masks().back(), EVENTER_READ);
}

TEST_F(EventerFd, TheEndIsSomethingToRead) {
  add(EVENTER_READ);
  sockets_.close_far();
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ));
}

TEST_F(EventerFd, WhoWaitsForExceptionsIsToldOfTheEndWithWhatIsLeftToRead) {
  ASSERT_TRUE(sockets_.send_far("left"));
  sockets_.close_far();
  add(EVENTER_READ | EVENTER_EXCEPTION);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ | EVENTER_EXCEPTION));
}

TEST_F(EventerFd, AHangUpAloneIsAnException) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler_, ends[0], EVENTER_EXCEPTION)), 0);
  let_loop_pass(owner());
  EXPECT_TRUE(masks().empty());
  close(ends[1]);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_EXCEPTION));
  let_loop_pass(owner());  // the event is gone before its descriptor
  close(ends[0]);
}

TEST_F(EventerFd, AFailureIsToldAsWhatIsWaitedFor) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  close(ends[0]);
  ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler_, ends[1], EVENTER_WRITE)), 0);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_WRITE));
  let_loop_pass(owner());
  close(ends[1]);
}

TEST_F(EventerFd, EndsWhenItsCallbackReturnsNone) {
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  called_.wait();
  let_loop_pass(owner());
  EXPECT_EQ(eventer_remove_fd(sockets_.near()), nullptr);
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ));
  EXPECT_NE(fcntl(sockets_.near(), F_GETFD), -1) << "it stays open";
}

TEST_F(EventerFd, CanBeSwitchedFromReadingToWritingAndBack) {
  int calls = 0;
  answer_ = [&](eventer_t) {
    if (++calls == 6) return 0;
    return calls % 2 == 1 ? EVENTER_WRITE : EVENTER_READ;
  };
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  called_.wait(6);
  ASSERT_EQ(masks().size(), 6U);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(masks()[i], i % 2 == 0 ? EVENTER_READ : EVENTER_WRITE) << i;
}

TEST_F(EventerFd, AnUpdateChangesWhatItWaitsFor) {
  const eventer_t e = add(EVENTER_READ);
  let_loop_pass(owner());
  eventer_update(e, EVENTER_WRITE);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_WRITE));
}

TEST_F(EventerFd, AnUpdateToNoneHoldsItUpUntilTheNext) {
  const eventer_t e = add(EVENTER_READ);
  eventer_update(e, 0);
  EXPECT_EQ(eventer_get_mask(e), 0);
  ASSERT_TRUE(sockets_.send_far("x"));
  let_loop_pass(owner());
  EXPECT_TRUE(masks().empty());
  eventer_update(e, EVENTER_READ);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ));
}

TEST_F(EventerFd, AnUpdateDuringTheCallbackWinsOverWhatItReturns) {
  Happened entered, leave;
  answer_ = [&](eventer_t e) {
    if (masks().size() > 1) return 0;
    entered.once();
    leave.wait();
    EXPECT_EQ(eventer_get_mask(e), EVENTER_WRITE);
    return EVENTER_READ;
  };
  const eventer_t e = add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  entered.wait();
  eventer_update(e, EVENTER_WRITE);
  leave.once();
  called_.wait(2);
  EXPECT_THAT(masks(), ElementsAre(EVENTER_READ, EVENTER_WRITE));
}

TEST_F(EventerFd, AnUpdateOfAnEventThatIsOutIsItsMask) {
  const eventer_t e = eventer_alloc_fd(Handler::call, &handler_, sockets_.near(), EVENTER_READ);
  eventer_update(e, EVENTER_WRITE);
  EXPECT_EQ(eventer_get_mask(e), EVENTER_WRITE);
  ASSERT_EQ(eventer_add(e), 0);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_WRITE));
}

TEST_F(EventerFd, AWakeupIsCalledOnTheOwnerWithItsMask) {
  pthread_t caller{};
  answer_ = [&](eventer_t e) {
    caller = pthread_self();
    EXPECT_TRUE(eventer_is_owner(e));
    return masks().back() == EVENTER_READ ? 0 : EVENTER_READ;
  };
  const eventer_t e = add(EVENTER_READ);
  eventer_wakeup(e, EVENTER_EXCEPTION);
  called_.wait();
  EXPECT_EQ(caller, owner());
  eventer_wakeup(e, EVENTER_TIMER);
  called_.wait();
  EXPECT_THAT(masks(), ElementsAre(EVENTER_EXCEPTION, EVENTER_TIMER));
  ASSERT_TRUE(sockets_.send_far("x"));
  called_.wait();
  EXPECT_EQ(masks().back(), EVENTER_READ) << "it still waits";
}

TEST_F(EventerFd, AWakeupOfAnEventThatIsOutIsForgotten) {
  const eventer_t e = add(EVENTER_READ);
  on_loop(owner(), [&] {
    eventer_wakeup(e, EVENTER_EXCEPTION);
    EXPECT_EQ(eventer_remove_fd(sockets_.near()), e);
    EXPECT_EQ(eventer_add(e), 0);
  });
  let_loop_pass(owner());
  EXPECT_TRUE(masks().empty());
}

TEST_F(EventerFd, TakenOutItIsNotCalled) {
  const eventer_t e = add(EVENTER_READ);
  EXPECT_EQ(eventer_remove_fd(sockets_.near()), e);
  ASSERT_TRUE(sockets_.send_far("x"));
  let_loop_pass(owner());
  EXPECT_TRUE(masks().empty());
  eventer_free(e);
}

TEST_F(EventerFd, TakenOutByItsCallbackItIsTheTakersWhateverThatReturns) {
  eventer_t taken = nullptr;
  answer_ = [&](eventer_t e) {
    taken = eventer_remove_fd(eventer_get_fd(e));
    EXPECT_EQ(taken, e);
    return masks().size() == 1 ? EVENTER_READ : 0;
  };
  for (size_t i = 1; i <= 2; ++i) {
    add(EVENTER_READ);
    ASSERT_TRUE(sockets_.send_far("x"));
    called_.wait();
    let_loop_pass(owner());
    EXPECT_EQ(masks().size(), i);
    eventer_free(taken);
  }
}

// A request handler does so: it takes its connection off the loop, a job works on it, its completion, on the owner's
// thread, puts it back.
TEST_F(EventerFd, TakenOutAndAddedAgainLaterItGoesOnOnTheSameThread) {
  answer_ = [&](eventer_t e) {
    if (masks().size() == 1) {
      EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
      return 0;
    }
    EXPECT_TRUE(eventer_is_owner(e));
    EXPECT_EQ(SocketPair::receive(sockets_.near()), "onetwo");
    return 0;
  };
  const eventer_t e = add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("one"));
  called_.wait();
  ASSERT_TRUE(sockets_.send_far("two"));
  let_loop_pass(owner());
  on_loop(owner(), [&] {
    EXPECT_EQ(masks().size(), 1U);
    EXPECT_EQ(eventer_get_owner(e), pthread_self());
    EXPECT_EQ(eventer_add(e), 0);
  });
  called_.wait();
  EXPECT_EQ(masks().size(), 2U);
}

TEST_F(EventerFd, AddedAgainByItsOwnCallbackItGoesOn) {
  answer_ = [&](eventer_t e) {
    if (masks().size() == 3) return 0;
    EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
    EXPECT_EQ(eventer_add(e), 0);
    return 0;  // of an event that was taken out: ignored
  };
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  called_.wait(3);
  EXPECT_EQ(masks().size(), 3U);
}

TEST_F(EventerFd, ACallbackCanCloseItsDescriptorAndItsNumberBeUsedAgain) {
  answer_ = [&](eventer_t e) {
    EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
    sockets_.close_near();
    eventer_free(e);
    return 0;
  };
  for (int round = 0; round < 50; ++round) {
    add(EVENTER_READ);
    ASSERT_TRUE(sockets_.send_far("x"));
    called_.wait();
    sockets_.close_far();
    sockets_.~SocketPair();
    new (&sockets_) SocketPair;
  }
}

TEST_F(EventerFd, AnotherThreadThatTakesItOutWaitsForItsCallback) {
  Happened entered, leave;
  std::atomic<bool> over = false;
  answer_ = [&](eventer_t) {
    entered.once();
    leave.wait();
    SocketPair::receive(sockets_.near());  // so that it is not called again before it is taken out
    over = true;
    return EVENTER_READ;
  };
  const eventer_t e = add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  entered.wait();
  std::thread taker([&] {
    EXPECT_EQ(eventer_remove_fd(sockets_.near()), e);
    EXPECT_TRUE(over);
    eventer_free(e);
  });
  leave.once();
  taker.join();
  let_loop_pass(owner());
  EXPECT_EQ(masks().size(), 1U);
}

TEST_F(EventerFd, AnotherThreadThatTakesItOutGetsNothingWhenTheCallbackEndsIt) {
  Happened entered, leave;
  answer_ = [&](eventer_t) {
    entered.once();
    leave.wait();
    return 0;
  };
  add(EVENTER_READ);
  ASSERT_TRUE(sockets_.send_far("x"));
  entered.wait();
  std::thread one([&] { EXPECT_EQ(eventer_remove_fd(sockets_.near()), nullptr); });
  std::thread two([&] { EXPECT_EQ(eventer_remove_fd(sockets_.near()), nullptr); });
  leave.once();
  one.join();
  two.join();
}

TEST_F(EventerFd, SeveralThreadsThatTakeItOutGetItOnce) {
  for (int round = 0; round < 20; ++round) {
    answer_ = [](eventer_t) { return EVENTER_READ; };
    const eventer_t e = add(EVENTER_READ);
    ASSERT_TRUE(sockets_.send_far("x"));
    std::atomic<int> taken = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back([&] { taken += eventer_remove_fd(sockets_.near()) == e ? 1 : 0; });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(taken, 1);
    eventer_free(e);
  }
}

TEST_F(EventerFd, OneCallbackRunsAtATimeOnAnOwner) {
  std::deque<SocketPair> pairs(50);
  std::atomic<int> inside = 0;
  Happened happened;
  Handler handler([&](eventer_t e, int, const struct timeval &) {
    EXPECT_EQ(++inside, 1);
    SocketPair::receive(eventer_get_fd(e));
    --inside;
    happened.once();
    return EVENTER_READ;
  });
  for (const SocketPair &pair : pairs) {
    ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, pair.near(), EVENTER_READ)), 0);
  }
  for (int round = 0; round < 5; ++round) {
    for (const SocketPair &pair : pairs) ASSERT_TRUE(pair.send_far("x"));
    happened.wait(50);
  }
  eventer_stop();  // while the handler is there
  ASSERT_EQ(eventer_start(1), 0);
}

}  // namespace
