// Timers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/event_loops.h"

namespace {

constexpr int64_t kSecond = 1000000;
constexpr struct timeval kEpoch {};

int64_t in_microseconds(const struct timeval &time) {
  return int64_t{time.tv_sec} * kSecond + time.tv_usec;
}

int64_t now() {
  struct timeval time {};
  gettimeofday(&time, nullptr);
  return in_microseconds(time);
}

struct timeval at(int64_t microseconds) {
  return {static_cast<time_t>(microseconds / kSecond), static_cast<suseconds_t>(microseconds % kSecond)};
}

class EventerTimer : public testing::Test {
 protected:
  ~EventerTimer() override { eventer_stop(); }

  eventer_t add(int64_t when) {
    const struct timeval time = at(when);
    const eventer_t e = eventer_alloc_timer(Handler::call, &handler_, &time);
    EXPECT_EQ(eventer_add(e), 0);
    return e;
  }

  Happened called_;
  std::vector<int64_t> order_;  // the times that timers were made for, as they run
  std::function<void(eventer_t, int, int64_t)> work_ = [](eventer_t, int, int64_t) {};
  Handler handler_{[this](eventer_t e, int mask, const struct timeval &time) {
    order_.push_back(in_microseconds(eventer_get_when(e)));
    work_(e, mask, in_microseconds(time));
    called_.once();
    return EVENTER_TIMER;  // ends all the same
  }};
};

TEST_F(EventerTimer, RunsOnceAtOrAfterItsTime) {
  ASSERT_EQ(eventer_start(1), 0);
  for (const int64_t delay : {int64_t{0}, int64_t{1}, int64_t{999}, int64_t{20000}}) {
    const int64_t when = now() + delay;
    work_ = [&](eventer_t e, int mask, int64_t time) {
      EXPECT_EQ(mask, EVENTER_TIMER);
      EXPECT_GE(time, when);
      EXPECT_TRUE(eventer_is_owner(e));
    };
    add(when);
    called_.wait();
  }
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(order_.size(), 4U);
}

TEST_F(EventerTimer, ATimeThatIsPastRunsAtOnce) {
  ASSERT_EQ(eventer_start(1), 0);
  for (const int64_t when : {now() - 1, now() - kSecond * 86400 * 365, int64_t{1}, int64_t{0}}) {
    add(when);
    called_.wait();
  }
}

TEST_F(EventerTimer, TheEarliestTimeThereIsRunsAtOnce) {
  ASSERT_EQ(eventer_start(1), 0);
  Handler handler([&](eventer_t, int, const struct timeval &) {
    called_.once();
    return 0;
  });
  const struct timeval before_all = {std::numeric_limits<time_t>::min(), 0};
  ASSERT_EQ(eventer_add(eventer_alloc_timer(Handler::call, &handler, &before_all)), 0);
  called_.wait();
  eventer_stop();  // while the handler is there
}

TEST_F(EventerTimer, ATimeThatNeverComesIsFine) {
  ASSERT_EQ(eventer_start(1), 0);
  struct timeval never = {std::numeric_limits<time_t>::max(), 999999};
  const eventer_t e = eventer_alloc_timer(Handler::call, &handler_, &never);
  ASSERT_EQ(eventer_add(e), 0);
  const eventer_t later =
      eventer_add_in_s_us(Handler::call, &handler_, std::numeric_limits<unsigned long>::max(),
                          std::numeric_limits<unsigned long>::max());
  ASSERT_NE(later, nullptr);
  EXPECT_EQ(eventer_get_when(later).tv_sec, std::numeric_limits<time_t>::max());
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(eventer_remove_timer(e), e);
  eventer_free(e);
  eventer_stop();
  EXPECT_TRUE(order_.empty());
}

TEST_F(EventerTimer, RunInTheOrderOfTheirTimes) {
  ASSERT_EQ(eventer_start(1), 0);
  const std::vector<int> seconds = {50, 10, 40, 99, 20, 30, 60, 98, 70, 11};
  // From the loop, so that none runs before all are there.
  on_loop(eventer_choose_owner(0), [&] {
    for (const int before : seconds) add((1000000 - before) * kSecond);
  });
  called_.wait(static_cast<int>(seconds.size()));
  EXPECT_EQ(order_.size(), seconds.size());
  EXPECT_TRUE(std::is_sorted(order_.begin(), order_.end()));
}

TEST_F(EventerTimer, MicrosecondsAreCarried) {
  const std::pair<unsigned long, unsigned long> delays[] = {
      {0, 0}, {0, 1}, {5, 999999}, {5, 1000000}, {5, 1000001}, {0, 123456789}, {100, 4294967295}};
  for (const auto &[seconds, microseconds] : delays) {
    const int64_t delay = static_cast<int64_t>(seconds) * kSecond + static_cast<int64_t>(microseconds);
    const int64_t before = now();
    const eventer_t e = eventer_add_in_s_us(Handler::call, &handler_, seconds, microseconds);
    const int64_t after = now();
    ASSERT_NE(e, nullptr);
    const struct timeval when = eventer_get_when(e);
    EXPECT_GE(when.tv_usec, 0);
    EXPECT_LT(when.tv_usec, kSecond);
    EXPECT_GE(in_microseconds(when), before + delay);
    EXPECT_LE(in_microseconds(when), after + delay);
    EXPECT_EQ(eventer_remove_timer(e), e) << "nothing has started";
    eventer_free(e);
  }
}

TEST_F(EventerTimer, NeverRunsWithinTheCallThatAddsIt) {
  ASSERT_EQ(eventer_start(1), 0);
  on_loop(eventer_choose_owner(0), [&] {
    EXPECT_NE(eventer_add_in_s_us(Handler::call, &handler_, 0, 0), nullptr);
    add(1);
    EXPECT_TRUE(order_.empty());
  });
  called_.wait(2);
  EXPECT_EQ(order_.size(), 2U);
}

TEST_F(EventerTimer, TakenOutItDoesNotRun) {
  ASSERT_EQ(eventer_start(1), 0);
  on_loop(eventer_choose_owner(0), [&] {
    const eventer_t due = add(0);
    EXPECT_EQ(eventer_remove_timer(due), due);
    EXPECT_EQ(eventer_remove_timer(due), nullptr);
    eventer_free(due);
  });
  const eventer_t far = add(now() + 1000 * kSecond);
  EXPECT_EQ(eventer_remove_timer(far), far);
  EXPECT_EQ(eventer_add(far), 0) << "and again";
  EXPECT_EQ(eventer_remove_timer(far), far);
  eventer_free(far);
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_TRUE(order_.empty());
}

TEST_F(EventerTimer, WhatIsNoTimerCannotBeTakenOutAsOne) {
  EXPECT_EQ(eventer_remove_timer(nullptr), nullptr);
  const eventer_t e = eventer_alloc_timer(Handler::call, &handler_, &kEpoch);
  EXPECT_EQ(eventer_remove_timer(e), nullptr) << "not added";
  eventer_free(e);
}

TEST_F(EventerTimer, CanBeTakenOutAndAddedAgainByItsOwnCallback) {
  ASSERT_EQ(eventer_start(1), 0);
  work_ = [&](eventer_t e, int, int64_t) {
    if (order_.size() == 5) return;
    EXPECT_EQ(eventer_remove_timer(e), e);
    EXPECT_EQ(eventer_add(e), 0);
  };
  add(1);
  called_.wait(5);
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(order_.size(), 5U);
}

TEST_F(EventerTimer, AWakeupRunsItEarlyAndEndsIt) {
  ASSERT_EQ(eventer_start(1), 0);
  int told = 0;
  work_ = [&](eventer_t, int mask, int64_t) { told = mask; };
  const eventer_t e = add(now() + 1000 * kSecond);
  eventer_wakeup(e, EVENTER_EXCEPTION);
  called_.wait();
  EXPECT_EQ(told, EVENTER_EXCEPTION);
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(eventer_remove_timer(e), nullptr);
}

TEST_F(EventerTimer, AnotherThreadThatTakesItOutWaitsForItsCallbackAndGetsNothing) {
  ASSERT_EQ(eventer_start(1), 0);
  Happened entered, leave;
  std::atomic<bool> over = false;
  work_ = [&](eventer_t, int, int64_t) {
    entered.once();
    leave.wait();
    over = true;
  };
  const eventer_t e = add(1);
  entered.wait();
  std::thread taker([&] {
    EXPECT_EQ(eventer_remove_timer(e), nullptr);
    EXPECT_TRUE(over);
  });
  leave.once();
  taker.join();
}

TEST_F(EventerTimer, ManyRunOnTheirOwners) {
  ASSERT_EQ(eventer_start(3), 0);
  std::atomic<int> count = 0;
  Happened happened;
  Handler handler([&](eventer_t e, int, const struct timeval &) {
    EXPECT_TRUE(eventer_is_owner(e));
    ++count;
    happened.once();
    return 0;
  });
  for (unsigned i = 0; i < 3000; ++i) {
    const struct timeval when = at(now() + i % 7 * 1000);
    const eventer_t e = eventer_alloc_timer(Handler::call, &handler, &when);
    eventer_set_owner(e, eventer_choose_owner(i));
    ASSERT_EQ(eventer_add(e), 0);
  }
  happened.wait(3000);
  eventer_stop();
  EXPECT_EQ(count, 3000);
}

}  // namespace
