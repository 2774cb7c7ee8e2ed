#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"
#include "ruxo/memory.h"
#include "test/support/faults.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"
#include "vaskllhist/vaskllhist.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Section {
  Section() { ruxo_memory_begin(); }
  ~Section() { ruxo_memory_end(); }
};

class MetricLocatorLast : public testing::Test {
 protected:
  MetricLocatorLast() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  ~MetricLocatorLast() override {
    EXPECT_EQ(loc->last_update_lock.value, 0U) << "the lock was given back";
    orlith_metric_locator_set_global_future_bound(UINT64_MAX);
    orlith_metric_locator_set_global_implicit_latest(ruxo_false);
  }

  static void number(const LocatorPtr &locator, uint64_t whence_ms, int64_t value, bool instantiate = true) {
    orlith_metric_locator_numeric_value_t v;
    v.v_int64 = value;
    orlith_metric_locator_update_numeric(locator.get(), whence_ms, 'l', &v, instantiate);
  }
  void number(uint64_t whence_ms, int64_t value, bool instantiate = true) {
    number(loc, whence_ms, value, instantiate);
  }
  // "older time:value newer time:value", or "none".
  static std::string numbers(const LocatorPtr &locator) {
    uint64_t whence_ms[2];
    uint8_t type[2];
    orlith_metric_locator_numeric_value_t value[2];
    if (orlith_metric_locator_last2_numeric(locator.get(), whence_ms, type, value) == 0) return "none";
    std::string text;
    for (int i = 0; i < 2; ++i) {
      text += (i == 0 ? "" : " ") + std::to_string(whence_ms[i]) + ":" + std::to_string(value[i].v_int64);
      EXPECT_EQ(type[i], whence_ms[i] == 0 ? 0 : 'l');
    }
    return text;
  }
  std::string numbers() { return numbers(loc); }

  void text(uint64_t whence_ms, const char *value, bool instantiate = true) {
    orlith_metric_locator_update_text(loc.get(), whence_ms, value, instantiate);
  }
  // "time:text", or "none".
  std::string last_text() {
    const Section section;
    uint64_t whence_ms = 0;
    const char *value = "";
    if (orlith_metric_locator_last_text(loc.get(), &whence_ms, &value) == 0) return "none";
    return std::to_string(whence_ms) + ":" + (value == nullptr ? "null" : value);
  }
  void hist(uint64_t whence_ms, const char *value, bool instantiate = true) {
    orlith_metric_locator_update_hist(loc.get(), whence_ms, value, instantiate);
  }
  std::string last_b64() {
    const Section section;
    uint64_t whence_ms = 0;
    const char *value = "";
    if (orlith_metric_locator_last_hist_b64(loc.get(), &whence_ms, &value) == 0) return "none";
    return std::to_string(whence_ms) + ":" + (value == nullptr ? "null" : value);
  }
  int missing() { return orlith_metric_locator_last_missing(loc.get()); }

  const LocatorPtr loc = make_locator("cpu|ST[a:1]");
};
using MetricLocatorLastDeathTest = MetricLocatorLast;

}  // namespace

// ---- Numbers

TEST_F(MetricLocatorLast, NumbersKeepTheTwoLatestTimes) {
  number(100, 1);
  EXPECT_EQ(numbers(), "0:0 100:1");
  number(200, 2);
  EXPECT_EQ(numbers(), "100:1 200:2");
  number(150, 3);
  EXPECT_EQ(numbers(), "150:3 200:2");
  number(120, 4);
  EXPECT_EQ(numbers(), "150:3 200:2");
  number(200, 5);
  EXPECT_EQ(numbers(), "150:3 200:2") << "as old as the newer one: dropped";
  number(150, 6);
  EXPECT_EQ(numbers(), "150:3 200:2") << "as old as the older one: dropped";
  number(201, 7);
  EXPECT_EQ(numbers(), "200:2 201:7");
}

TEST_F(MetricLocatorLast, ALateNumberFillsTheOlderSlotAfterOneNumber) {
  number(100, 1);
  number(50, 2);
  EXPECT_EQ(numbers(), "50:2 100:1");
}

TEST_F(MetricLocatorLast, WithoutBeingAskedThereIsNoHolder) {
  number(100, 1, false);
  EXPECT_EQ(numbers(), "none");
  EXPECT_EQ(loc->last_n, nullptr);
  EXPECT_EQ(missing(), METRIC_TYPE_NUMERIC);
  number(100, 1, true);
  number(200, 2, false);
  EXPECT_EQ(numbers(), "100:1 200:2") << "a holder that is there takes them";
  EXPECT_EQ(missing(), 0);
}

TEST_F(MetricLocatorLast, ImplicitLatestMakesHoldersUnasked) {
  orlith_metric_locator_set_global_implicit_latest(ruxo_true);
  number(100, 1, false);
  text(100, "t", false);
  hist(100, "h", false);
  EXPECT_EQ(numbers(), "0:0 100:1");
  EXPECT_EQ(last_text(), "100:t");
  EXPECT_EQ(last_b64(), "100:h");
}

TEST_F(MetricLocatorLast, NumbersLaterThanTheFutureBoundAreIgnored) {
  orlith_metric_locator_set_global_future_bound(1000);
  number(1001, 1);
  EXPECT_EQ(numbers(), "0:0 0:0") << "the holder is made all the same";
  number(1000, 2);
  EXPECT_EQ(numbers(), "0:0 1000:2");
  number(1001, 3);
  EXPECT_EQ(numbers(), "0:0 1000:2");
  text(2000, "texts have no bound");
  EXPECT_EQ(last_text(), "2000:texts have no bound");
  hist(2000, "AAA=");
  EXPECT_EQ(last_b64(), "2000:AAA=");
}

TEST_F(MetricLocatorLast, WithoutABoundTheLastTimeOfAllIsTaken) {
  number(UINT64_MAX, 1);
  EXPECT_EQ(numbers(), "0:0 18446744073709551615:1");
}

TEST_F(MetricLocatorLast, AValueOfTimeZeroIsNotLaterThanNothing) {
  number(0, 1);
  text(0, "t");
  hist(0, "h");
  EXPECT_EQ(numbers(), "0:0 0:0");
  EXPECT_EQ(last_text(), "0:null");
  EXPECT_EQ(last_b64(), "0:null");
}

TEST_F(MetricLocatorLast, AllEightBytesOfANumberAndItsTypeAreKept) {
  orlith_metric_locator_numeric_value_t v;
  v.v_uint64 = 0x8899aabbccddeeff;
  orlith_metric_locator_update_numeric(loc.get(), 1, 255, &v, ruxo_true);
  v.v_double = -0.25;
  orlith_metric_locator_update_numeric(loc.get(), 2, 'n', &v, ruxo_true);
  uint64_t whence_ms[2];
  uint8_t type[2];
  orlith_metric_locator_numeric_value_t value[2];
  ASSERT_EQ(orlith_metric_locator_last2_numeric(loc.get(), whence_ms, type, value), 1);
  EXPECT_EQ(value[0].v_uint64, 0x8899aabbccddeeff);
  EXPECT_EQ(type[0], 255);
  EXPECT_EQ(value[1].v_double, -0.25);
  EXPECT_EQ(type[1], 'n');
}

TEST_F(MetricLocatorLast, Last2WithoutAHolderWritesNothing) {
  uint64_t whence_ms[2] = {7, 8};
  uint8_t type[2] = {9, 10};
  orlith_metric_locator_numeric_value_t value[2] = {};
  EXPECT_EQ(orlith_metric_locator_last2_numeric(loc.get(), whence_ms, type, value), 0);
  EXPECT_EQ(whence_ms[0] + whence_ms[1] + type[0] + type[1], 34U);
}

// Whatever the order in which distinct times arrive: the newer value is the latest of all, and the older one the
// latest of those that arrived after, or were the newer one before.
TEST_F(MetricLocatorLast, AgreesWithAModelUnderRandomUpdates) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 200; ++round) {
    const LocatorPtr fresh = make_locator("cpu");
    std::array<std::pair<uint64_t, int64_t>, 2> model{};  // sorted by time
    for (int64_t i = 1; i <= 30; ++i) {
      const uint64_t whence_ms = 1 + random() % 40;
      number(fresh, whence_ms, i);
      if (whence_ms != model[1].first && whence_ms > model[0].first) {
        model[0] = {whence_ms, i};
        if (whence_ms > model[1].first) std::swap(model[0], model[1]);
      }
      ASSERT_EQ(numbers(fresh), std::to_string(model[0].first) + ":" + std::to_string(model[0].second) + " " +
                                    std::to_string(model[1].first) + ":" + std::to_string(model[1].second));
    }
  }
}

// ---- Order of locators

TEST_F(MetricLocatorLast, TheMostRecentlyUpdatedComesFirst) {
  const LocatorPtr other = make_locator("mem");
  const auto compare = [&](int expected) {
    EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(loc.get(), other.get()), expected);
    EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(other.get(), loc.get()), -expected);
  };
  EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(loc.get(), loc.get()), 0);
  compare(0);  // neither has a holder
  number(loc, 100, 1);
  compare(-1);
  number(other, 100, 2);
  compare(0);
  number(other, 200, 2);
  compare(1);
  number(loc, 200, 1);
  compare(0);  // both (100, 200)
  number(loc, 150, 1);
  compare(-1);  // the older times decide
  number(other, 300, 2);
  compare(1);  // the newer times come first
  EXPECT_EQ(loc->last_update_lock.value + other->last_update_lock.value, 0U);
}

TEST_F(MetricLocatorLast, AHolderOfTimeZeroComesBeforeNone) {
  const LocatorPtr other = make_locator("mem");
  number(loc, 0, 1);
  EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(loc.get(), other.get()), -1);
  EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(other.get(), loc.get()), 1);
}

TEST_F(MetricLocatorLast, ComparingInOppositeOrdersDoesNotDeadlock) {
  const LocatorPtr other = make_locator("mem");
  number(loc, 100, 1);
  number(other, 200, 2);
  std::thread forwards([&] {
    for (int i = 0; i < 100000; ++i)
      EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(loc.get(), other.get()), 1);
  });
  for (int i = 0; i < 100000; ++i)
    EXPECT_EQ(orlith_metric_locator_compare_last2_numeric(other.get(), loc.get()), -1);
  forwards.join();
}

// ---- Texts

TEST_F(MetricLocatorLast, ALaterTextReplacesTheText) {
  EXPECT_EQ(last_text(), "none");
  text(100, "one", false);
  EXPECT_EQ(last_text(), "none");
  text(100, "one");
  EXPECT_EQ(last_text(), "100:one");
  text(100, "same time");
  text(99, "earlier");
  EXPECT_EQ(last_text(), "100:one");
  text(101, "two", false);
  EXPECT_EQ(last_text(), "101:two");
  text(102, nullptr);
  EXPECT_EQ(last_text(), "102:null");
  text(103, "");
  EXPECT_EQ(last_text(), "103:");
  ruxo_memory_synchronize();
}

TEST_F(MetricLocatorLast, ATextIsCopied) {
  char buffer[] = "before";
  text(1, buffer);
  buffer[0] = 'X';
  EXPECT_EQ(last_text(), "1:before");
}

TEST_F(MetricLocatorLast, AReaderKeepsItsTextUntilItLeavesItsSection) {
  text(1, "first");
  const Section section;
  uint64_t whence_ms = 0;
  const char *held = nullptr;
  ASSERT_EQ(orlith_metric_locator_last_text(loc.get(), &whence_ms, &held), 1);
  std::thread([&] {
    for (uint64_t i = 2; i < 500; ++i) text(i, "later");
  }).join();
  EXPECT_STREQ(held, "first");
}

TEST_F(MetricLocatorLastDeathTest, ReadingATextOutsideASectionIsFatal) {
  text(1, "t");
  uint64_t whence_ms = 0;
  const char *value = nullptr;
  EXPECT_DEATH(orlith_metric_locator_last_text(loc.get(), &whence_ms, &value),
               "message=\"\\[FATAL\\] assertion \\(ruxo_memory_in_cs\\(\\)\\) at "
               "util/metric_locator_last\\.cpp:[0-9]+ failed\"\n");
}

TEST_F(MetricLocatorLastDeathTest, ReadingABase64HistogramOutsideASectionIsFatal) {
  hist(1, "AAA=");
  uint64_t whence_ms = 0;
  const char *value = nullptr;
  EXPECT_DEATH(orlith_metric_locator_last_hist_b64(loc.get(), &whence_ms, &value),
               "message=\"\\[FATAL\\] assertion \\(ruxo_memory_in_cs\\(\\)\\) at "
               "util/metric_locator_last\\.cpp:[0-9]+ failed\"\n");
}

TEST_F(MetricLocatorLast, WithoutATextNoSectionIsNeeded) {
  uint64_t whence_ms = 5;
  const char *value = "untouched";
  EXPECT_EQ(orlith_metric_locator_last_text(loc.get(), &whence_ms, &value), 0);
  EXPECT_EQ(orlith_metric_locator_last_hist_b64(loc.get(), &whence_ms, &value), 0);
  EXPECT_EQ(whence_ms, 5U);
  EXPECT_STREQ(value, "untouched");
}

// ---- Histograms

TEST_F(MetricLocatorLast, ALaterHistogramReplacesTheHistogram) {
  EXPECT_EQ(last_b64(), "none");
  hist(100, "AAA=", false);
  EXPECT_EQ(last_b64(), "none");
  hist(100, "AAA=");
  EXPECT_EQ(last_b64(), "100:AAA=");
  hist(100, "AAB=");
  hist(99, "AAC=");
  EXPECT_EQ(last_b64(), "100:AAA=");
  hist(101, "kept as it is, whatever it is", false);
  EXPECT_EQ(last_b64(), "101:kept as it is, whatever it is");
  hist(102, nullptr);
  EXPECT_EQ(last_b64(), "102:null");
}

TEST_F(MetricLocatorLast, HistogramUpdatesReportTheirSteps) {
  ruxo_log_stream_t stream = nullptr;
  LogCapture steps(&stream);
  const std::string me = "orlith_metric_locator_update_hist_withstream: ";
  const auto update = [&](uint64_t whence_ms, bool instantiate) {
    steps.clear();
    orlith_metric_locator_update_hist_withstream(loc.get(), whence_ms, "AAA=", instantiate, stream);
    return steps.lines();
  };
  EXPECT_THAT(update(7, false),
              ElementsAre(me + "Update hist cpu|ST[a:1] with 7\n",
                          me + "Not updated cpu|ST[a:1] with 7, implicit and instantiate are both false"));
  EXPECT_THAT(update(7, true),
              ElementsAre(me + "Update hist cpu|ST[a:1] with 7\n",
                          me + "cpu|ST[a:1] whence 7 seems later, going for lock\n",
                          me + "cpu|ST[a:1] whence 7 confirmed later, updating last time and value\n"));
  EXPECT_THAT(update(7, true), ElementsAre(me + "Update hist cpu|ST[a:1] with 7\n",
                                           me + "cpu|ST[a:1] not updated, whence 7 was not later\n"));
  EXPECT_THAT(update(UINT64_MAX, false)[0], me + "Update hist cpu|ST[a:1] with 18446744073709551615\n");
}

TEST_F(MetricLocatorLast, HistogramUpdatesTakeNoStream) {
  orlith_metric_locator_update_hist_withstream(loc.get(), 7, "AAA=", ruxo_true, nullptr);
  EXPECT_EQ(last_b64(), "7:AAA=");
}

TEST_F(MetricLocatorLast, HistogramUpdatesReportToTheDebugStream) {
  const LogCapture debug(&ml_debug_ls);
  hist(7, "AAA=");
  EXPECT_EQ(debug.lines().size(), 3U);
}

TEST_F(MetricLocatorLast, AMissingHistogramIsReportedToTheDebugStream) {
  const LogCapture debug(&ml_debug_ls);
  EXPECT_EQ(last_b64(), "none");
  EXPECT_THAT(debug.lines(), ElementsAre("Last hist b64, metric cpu|ST[a:1], no last found\n"));
}

TEST_F(MetricLocatorLast, AMissingTextIsNotReported) {
  const LogCapture debug(&ml_debug_ls);
  EXPECT_EQ(last_text(), "none");
  EXPECT_THAT(debug.lines(), IsEmpty());
}

// A histogram of one bucket by its stored form, and what comes of it.
TEST_F(MetricLocatorLast, AHistogramIsDecoded) {
  histogram_t *h = hist_alloc();
  ASSERT_EQ(hist_insert(h, 1.25, 7), 0);
  char b64[64] = {};
  ASSERT_GT(hist_serialize_b64(h, b64, sizeof b64), 0);
  hist_free(h);
  hist(50, b64);
  uint64_t whence_ms = 0;
  histogram_t *out = nullptr;
  ASSERT_EQ(orlith_metric_locator_last_hist(loc.get(), &whence_ms, &out), 1) << "outside of any section";
  EXPECT_EQ(whence_ms, 50U);
  EXPECT_EQ(hist_sample_count(out), 7U);
  EXPECT_EQ(hist_count_at(out, hist_bucket_of(1.25)), 7U);
  hist_free(out);
}

TEST_F(MetricLocatorLast, ANullHistogramIsNull) {
  hist(50, nullptr);
  uint64_t whence_ms = 0;
  histogram_t *out = hist_alloc();
  histogram_t *const before = out;
  EXPECT_EQ(orlith_metric_locator_last_hist(loc.get(), &whence_ms, &out), 1);
  EXPECT_EQ(whence_ms, 50U);
  EXPECT_EQ(out, nullptr);
  hist_free(before);
}

TEST_F(MetricLocatorLast, AMissingHistogramToDecodeIsReportedToTheDebugStream) {
  const LogCapture debug(&ml_debug_ls);
  uint64_t whence_ms = 5;
  histogram_t *out = nullptr;
  EXPECT_EQ(orlith_metric_locator_last_hist(loc.get(), &whence_ms, &out), 0);
  EXPECT_EQ(whence_ms, 5U);
  EXPECT_THAT(debug.lines(), ElementsAre("Last hist, metric cpu|ST[a:1], no last found\n"));
}

TEST_F(MetricLocatorLast, AHistogramThatDoesNotDecodeIsReported) {
  for (const char *bad : {"", "no base64", "AAA=", "////"}) {
    const LogCapture errors(&ml_error_ls);
    const LocatorPtr fresh = make_locator("cpu|ST[a:1]");
    orlith_metric_locator_update_hist(fresh.get(), 50, bad, ruxo_true);
    uint64_t whence_ms = 0;
    histogram_t *out = hist_alloc();
    histogram_t *const before = out;
    EXPECT_EQ(orlith_metric_locator_last_hist(fresh.get(), &whence_ms, &out), 0) << bad;
    EXPECT_EQ(whence_ms, 50U);
    EXPECT_EQ(out, nullptr);
    EXPECT_THAT(errors.lines(),
                ElementsAre("orlith_metric_locator_last_hist: could not deserialize histogram for metric "
                            "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66:cpu|ST[a:1]\n"));
    hist_free(before);
  }
}

// ---- What is missing

TEST_F(MetricLocatorLast, MissingAreTheKindsOfTheTypeWithoutAHolder) {
  orlith_metric_locator_set_type(loc.get(), METRIC_TYPE_ANY);
  EXPECT_EQ(missing(), 7);
  text(1, "t");
  EXPECT_EQ(missing(), METRIC_TYPE_NUMERIC | METRIC_TYPE_HISTOGRAM);
  hist(1, "h");
  EXPECT_EQ(missing(), METRIC_TYPE_NUMERIC);
  number(1, 1);
  EXPECT_EQ(missing(), 0);
  for (const int type : {0, 1, 2, 4, 6}) {
    const LocatorPtr fresh = make_locator("x", static_cast<uint16_t>(type));
    EXPECT_EQ(orlith_metric_locator_last_missing(fresh.get()), type);
  }
}

// ---- Without memory

TEST_F(MetricLocatorLast, AFirstUpdateWithoutMemoryIsDropped) {
  {
    const faults::Fail no_memory(faults::Call::calloc, ENOMEM);
    number(1, 1);
    text(1, "t");
    hist(1, "h");
  }
  EXPECT_EQ(numbers(), "none");
  EXPECT_EQ(last_text(), "none");
  EXPECT_EQ(last_b64(), "none");
}

TEST_F(MetricLocatorLast, ATextWithoutMemoryLeavesTheOneThatIsHeld) {
  text(1, "t");
  hist(1, "h");
  {
    const faults::Fail no_memory(faults::Call::malloc, ENOMEM);
    text(2, "u");
    hist(2, "i");
  }
  EXPECT_EQ(last_text(), "1:t");
  EXPECT_EQ(last_b64(), "1:h");
}

// ---- Lifetime (the leak checker holds these)

TEST_F(MetricLocatorLast, TheFinalDerefFreesAllLastValues) {
  const LocatorPtr full = make_locator("x", METRIC_TYPE_ANY);
  orlith_metric_locator_numeric_value_t v = {};
  orlith_metric_locator_update_numeric(full.get(), 1, 'l', &v, ruxo_true);
  orlith_metric_locator_update_text(full.get(), 1, "t", ruxo_true);
  orlith_metric_locator_update_hist(full.get(), 1, "h", ruxo_true);
  EXPECT_EQ(orlith_metric_locator_last_missing(full.get()), 0);
}

TEST_F(MetricLocatorLast, AReaderKeepsItsTextAfterTheFinalDeref) {
  orlith_metric_locator_t *own = make_locator("x").release();
  orlith_metric_locator_update_text(own, 1, "text", ruxo_true);
  orlith_metric_locator_update_hist(own, 1, "hist", ruxo_true);
  uint64_t whence_ms = 0;
  const char *held_text = nullptr;
  const char *held_hist = nullptr;
  const Section section;
  ASSERT_EQ(orlith_metric_locator_last_text(own, &whence_ms, &held_text), 1);
  ASSERT_EQ(orlith_metric_locator_last_hist_b64(own, &whence_ms, &held_hist), 1);
  std::thread([own] { orlith_metric_locator_deref(own); }).join();
  EXPECT_STREQ(held_text, "text");
  EXPECT_STREQ(held_hist, "hist");
}

// ---- Threads

TEST_F(MetricLocatorLast, TheLockIsTheFetchAndStoreLock) {
  ck_spinlock_fas_lock(&loc->last_update_lock);
  EXPECT_FALSE(last_update_lock::try_lock(&loc->last_update_lock));
  ck_spinlock_fas_unlock(&loc->last_update_lock);
  EXPECT_TRUE(last_update_lock::try_lock(&loc->last_update_lock));
  EXPECT_EQ(loc->last_update_lock.value, 1U);
  EXPECT_TRUE(ck_spinlock_fas_locked(&loc->last_update_lock));
  last_update_lock::unlock(&loc->last_update_lock);
  EXPECT_TRUE(ck_spinlock_fas_trylock(&loc->last_update_lock));
  ck_spinlock_fas_unlock(&loc->last_update_lock);
}

TEST_F(MetricLocatorLast, StaleUpdatesDoNotWaitForTheLock) {
  number(100, 1);
  number(200, 2);
  text(100, "t");
  hist(100, "h");
  last_update_lock::lock(&loc->last_update_lock);
  number(100, 3);
  number(200, 4);
  text(100, "u");
  hist(99, "i");
  last_update_lock::unlock(&loc->last_update_lock);
  EXPECT_EQ(numbers(), "100:1 200:2");
}

// First updates of four threads at once: one holder, and the latest times of all.
TEST_F(MetricLocatorLast, FirstUpdatesThatRaceLoseNoLaterValue) {
  for (int round = 0; round < 200; ++round) {
    const LocatorPtr fresh = make_locator("x", METRIC_TYPE_ANY);
    std::atomic<int> waiting{4};
    std::vector<std::thread> threads;
    for (int i = 1; i <= 4; ++i) {
      threads.emplace_back([&, i] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        number(fresh, static_cast<uint64_t>(i), i);
        orlith_metric_locator_update_text(fresh.get(), static_cast<uint64_t>(i), "t", ruxo_true);
        orlith_metric_locator_update_hist(fresh.get(), static_cast<uint64_t>(i), "h", ruxo_true);
      });
    }
    for (std::thread &thread : threads) thread.join();
    ASSERT_EQ(numbers(fresh), "3:3 4:4");
    const Section section;
    uint64_t whence_ms = 0;
    const char *value = nullptr;
    ASSERT_EQ(orlith_metric_locator_last_text(fresh.get(), &whence_ms, &value), 1);
    EXPECT_EQ(whence_ms, 4U);
    ASSERT_EQ(orlith_metric_locator_last_hist_b64(fresh.get(), &whence_ms, &value), 1);
    EXPECT_EQ(whence_ms, 4U);
  }
}

// Every value tells its time, so a reader sees at once a pair that was torn or put together from two updates.
TEST_F(MetricLocatorLast, ReadersSeeWholeValues) {
  constexpr uint64_t kUpdates = 5000;
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  for (uint64_t offset = 0; offset < 3; ++offset) {
    writers.emplace_back([&, offset] {
      for (uint64_t i = 1; i <= kUpdates; ++i) {
        const uint64_t whence_ms = 3 * i + offset;
        number(whence_ms, static_cast<int64_t>(whence_ms));
        text(whence_ms, std::to_string(whence_ms).c_str());
        hist(whence_ms, std::to_string(whence_ms).c_str());
      }
    });
  }
  std::thread reader([&] {
    uint64_t latest = 0;
    while (!done) {
      uint64_t whence_ms[2];
      uint8_t type[2];
      orlith_metric_locator_numeric_value_t value[2];
      if (orlith_metric_locator_last2_numeric(loc.get(), whence_ms, type, value) == 1) {
        EXPECT_EQ(whence_ms[0], value[0].v_uint64);
        EXPECT_EQ(whence_ms[1], value[1].v_uint64);
        EXPECT_TRUE(whence_ms[0] < whence_ms[1] || whence_ms[1] == 0);
        EXPECT_GE(whence_ms[1], latest);
        latest = whence_ms[1];
      }
      const Section section;
      uint64_t whence = 0;
      const char *held = nullptr;
      if (orlith_metric_locator_last_text(loc.get(), &whence, &held) == 1 && whence != 0) {
        EXPECT_EQ(std::to_string(whence), held);
      }
      if (orlith_metric_locator_last_hist_b64(loc.get(), &whence, &held) == 1 && whence != 0) {
        EXPECT_EQ(std::to_string(whence), held);
      }
    }
  });
  for (std::thread &writer : writers) writer.join();
  done = true;
  reader.join();
  EXPECT_EQ(numbers(), "15001:15001 15002:15002");
  EXPECT_EQ(last_text(), "15002:15002");
  EXPECT_EQ(last_b64(), "15002:15002");
}
