#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"
#include "ruxo/json.h"
#include "ruxo/util.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::HasSubstr;

// The wall clock, which a test sets; 0: the real one.
static uint64_t clock_ms = 0;
extern "C" {
uint64_t __real_ruxo_now_ms(void);
uint64_t __wrap_ruxo_now_ms(void);
uint64_t __wrap_ruxo_now_ms(void) {
  return clock_ms != 0 ? clock_ms : __real_ruxo_now_ms();
}
}

namespace {

std::string text_of(oil_list_t *oil) {
  char text[512];
  oil_print(oil, text, sizeof text);
  return oil == nullptr ? "none" : text;
}

std::string activity_of(const LocatorPtr &loc) {
  return text_of(orlith_metric_locator_get_activity(loc.get()));
}

int set_from(const LocatorPtr &loc, const char *json) {
  ruxo_json_object *parsed = ruxo_json_parse(json);
  EXPECT_NE(parsed, nullptr) << json;
  const int result = orlith_metric_locator_set_activity_from_json(loc.get(), parsed);
  ruxo_json_free(parsed);
  return result;
}

class MetricLocatorActivity : public testing::Test {
 protected:
  ~MetricLocatorActivity() override {
    EXPECT_EQ(loc->activity_oil_lock, 0) << "every lock was given back";
    orlith_metric_locator_set_global_active_before(0);
    clock_ms = 0;
  }
  int record(uint64_t t) { return orlith_metric_locator_record_activity(loc.get(), t); }
  int was_active(uint64_t start, uint64_t end) {
    return orlith_metric_locator_was_active(loc.get(), start, end);
  }

  const LocatorPtr loc = make_locator("cpu");
};

}  // namespace

// ---- Recording

TEST_F(MetricLocatorActivity, RecordsFiveMinutePeriods) {
  EXPECT_EQ(record(600), 1);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
  EXPECT_EQ(record(899), 0);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
  EXPECT_EQ(record(900), 1);
  EXPECT_EQ(activity_of(loc), "[(2,3)]");
}

TEST_F(MetricLocatorActivity, PeriodZeroIsNeverRecorded) {
  EXPECT_EQ(record(0), 0);
  EXPECT_EQ(record(299), 0);
  EXPECT_EQ(activity_of(loc), "[]");
  EXPECT_EQ(record(300), 1);
  EXPECT_EQ(activity_of(loc), "[(1,1)]");
}

TEST_F(MetricLocatorActivity, TimesBeyondTheLastPeriodAreNotTakenForEarlierOnes) {
  constexpr uint64_t kLastSecond = uint64_t{UINT32_MAX} * 300 + 299;
  EXPECT_EQ(record(kLastSecond + 1), 0);
  EXPECT_EQ(record(UINT64_MAX), 0);
  EXPECT_EQ(record(uint64_t{1} << 43), 0);
  EXPECT_EQ(activity_of(loc), "[]");
  EXPECT_EQ(record(kLastSecond), 1);
  EXPECT_EQ(activity_of(loc), "[(4294967295,4294967295)]");
  EXPECT_EQ(was_active(kLastSecond, UINT64_MAX), 1);
  EXPECT_EQ(was_active(kLastSecond + 1, UINT64_MAX), 0);
}

TEST_F(MetricLocatorActivity, AgreesWithASetOfPeriodsWhereGapsAreWide) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::set<uint64_t> model;
  // A thousand periods apart nothing is coalesced.
  for (int i = 0; i < 500; ++i) {
    const uint64_t period = (1 + random() % 400) * 1000;
    EXPECT_EQ(record(period * 300 + random() % 300), model.insert(period).second ? 1 : 0) << period;
  }
  for (int i = 0; i < 500; ++i) {
    const uint64_t start = random() % 120000000;
    const uint64_t end = start + random() % 600000;
    const auto found = model.lower_bound(start / 300);
    EXPECT_EQ(was_active(start, end), found != model.end() && *found <= end / 300 ? 1 : 0)
        << start << " " << end;
  }
}

// ---- Asking

TEST_F(MetricLocatorActivity, AllOfTimeIsActiveEvenWithoutAList) {
  EXPECT_EQ(was_active(0, 0), 1);
  EXPECT_EQ(activity_of(loc), "none");
}

TEST_F(MetricLocatorActivity, AReversedRangeIsNotActive) {
  record(600);
  EXPECT_EQ(was_active(700, 600), 0);
  EXPECT_EQ(was_active(1, 0), 0);
}

TEST_F(MetricLocatorActivity, ANullLocatorIsNotActive) {
  EXPECT_EQ(orlith_metric_locator_was_active(nullptr, 0, 0), 0);
  EXPECT_FALSE(orlith_metric_locator_is_active(nullptr));
}

TEST_F(MetricLocatorActivity, RangesAreAskedByWholePeriods) {
  EXPECT_EQ(was_active(1, 100000), 0) << "no list";
  record(3000);
  EXPECT_EQ(was_active(3299, 3299), 1);
  EXPECT_EQ(was_active(2999, 2999), 0);
  EXPECT_EQ(was_active(2999, 3000), 1);
  EXPECT_EQ(was_active(3300, 9000), 0);
  EXPECT_EQ(was_active(0, 2999), 0);
  EXPECT_EQ(was_active(0, UINT64_MAX), 1);
}

TEST_F(MetricLocatorActivity, WhatIsBeforeTheTrackedTimeCountsAsActive) {
  orlith_metric_locator_set_global_active_before(5000);
  EXPECT_EQ(was_active(4999, 4999), 1) << "even without a list";
  EXPECT_EQ(was_active(4999, 9000), 1);
  EXPECT_EQ(was_active(5000, 9000), 0);
  EXPECT_EQ(was_active(4999, 4998), 0) << "reversed comes first";
}

TEST_F(MetricLocatorActivity, IsActiveMeansWithinTheLastDay) {
  constexpr uint64_t kNow = 1600000000;
  clock_ms = kNow * 1000 + 999;
  EXPECT_FALSE(orlith_metric_locator_is_active(loc.get()));
  record(kNow - 86400 - 300);
  EXPECT_FALSE(orlith_metric_locator_is_active(loc.get()));
  record(kNow - 86400);
  EXPECT_TRUE(orlith_metric_locator_is_active(loc.get()));
  clock_ms += 300 * 1000;
  EXPECT_FALSE(orlith_metric_locator_is_active(loc.get()));
}

TEST_F(MetricLocatorActivity, IsActiveNeedsAListEvenBeforeTheTrackedTime) {
  orlith_metric_locator_set_global_active_before(UINT64_MAX);
  EXPECT_FALSE(orlith_metric_locator_is_active(loc.get()));
  record(600);
  EXPECT_TRUE(orlith_metric_locator_is_active(loc.get()));
}

TEST_F(MetricLocatorActivity, IsActiveOnTheFirstDayOfTheEpoch) {
  clock_ms = 1000 * 1000;
  record(600);
  EXPECT_TRUE(orlith_metric_locator_is_active(loc.get()));
}

// ---- Replacing and merging

TEST_F(MetricLocatorActivity, SetTakesACopy) {
  oil_list_t *src = oil_alloc();
  oil_put(src, 5, 9);
  orlith_metric_locator_set_activity(loc.get(), src);
  EXPECT_EQ(activity_of(loc), "[(5,9)]");
  EXPECT_NE(orlith_metric_locator_get_activity(loc.get()), src);
  oil_put(src, 500, 500);
  EXPECT_EQ(activity_of(loc), "[(5,9)]");
  orlith_metric_locator_set_activity(loc.get(), src);
  EXPECT_EQ(activity_of(loc), "[(5,9),(500,500)]");
  oil_free(src);
  orlith_metric_locator_set_activity(loc.get(), nullptr);
  EXPECT_EQ(activity_of(loc), "none");
  orlith_metric_locator_set_activity(loc.get(), nullptr);
  EXPECT_EQ(activity_of(loc), "none");
}

TEST_F(MetricLocatorActivity, SettingItsOwnListChangesNothing) {
  record(600);
  oil_list_t *own = orlith_metric_locator_get_activity(loc.get());
  orlith_metric_locator_set_activity(loc.get(), own);
  EXPECT_EQ(orlith_metric_locator_get_activity(loc.get()), own);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
}

TEST_F(MetricLocatorActivity, MergesIntoItsList) {
  oil_list_t *src = oil_alloc();
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), src), 0) << "empty";
  oil_put(src, 5, 9);
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), src), 1);
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), src), 0);
  EXPECT_EQ(activity_of(loc), "[(5,9)]");
  oil_free(src);
}

TEST_F(MetricLocatorActivity, MergingNothingOrItsOwnListChangesNothing) {
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), nullptr), 0);
  EXPECT_EQ(activity_of(loc), "none");
  record(600);
  const LogCapture errors(&oil_error_ls);
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), nullptr), 0);
  EXPECT_EQ(orlith_metric_locator_merge_oil(loc.get(), orlith_metric_locator_get_activity(loc.get())), 0);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
  EXPECT_THAT(errors.lines(), testing::IsEmpty()) << "this is no misuse";
}

TEST_F(MetricLocatorActivity, ACloneOfTheListIsIndependent) {
  oil_list_t *none = orlith_metric_locator_get_activity_clone(loc.get());
  EXPECT_EQ(text_of(none), "[]");
  oil_free(none);
  record(600);
  oil_list_t *clone = orlith_metric_locator_get_activity_clone(loc.get());
  record(900);
  EXPECT_EQ(text_of(clone), "[(2,2)]");
  oil_free(clone);
}

TEST_F(MetricLocatorActivity, ACloneOfTheLocatorHasItsOwnActivity) {
  record(600);
  const LocatorPtr copy(orlith_metric_locator_clone(loc.get()));
  orlith_metric_locator_record_activity(copy.get(), 900);
  EXPECT_EQ(activity_of(copy), "[(2,3)]");
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
  const LocatorPtr bare(orlith_metric_locator_clone_without_activity_data(loc.get()));
  EXPECT_EQ(activity_of(bare), "none");
}

TEST_F(MetricLocatorActivity, DumpsItsListToTheDebugStream) {
  record(600);
  const LogCapture debug(&oil_debug_ls);
  orlith_metric_locator_oil_dump(loc.get());
  std::string text;
  for (const std::string &piece : debug.lines()) text += piece;
  EXPECT_THAT(text, HasSubstr("size[1] cap[1] entries["));
  EXPECT_TRUE(text.ends_with("[(2,2)]\n")) << text;
}

// ---- From JSON

TEST_F(MetricLocatorActivity, JsonKeepsOnlyPairsOfIntegers) {
  EXPECT_EQ(set_from(loc, R"([[0, 600], "x", [5]])"), 1);
  EXPECT_EQ(activity_of(loc), "[(0,2)]");
}

TEST_F(MetricLocatorActivity, JsonSkipsElementsOfAnyOtherForm) {
  EXPECT_EQ(
      set_from(loc, R"([[300,600,900], [], [300.0,600], [300,"600"], [null,600], {"0":300,"1":600}, 300, null,
                              true, [[300,600],[300,600]], [600,300], [0,0], [3000,3299], [60000,60599]])"),
      1);
  EXPECT_EQ(activity_of(loc), "[(10,10),(200,201)]");
}

TEST_F(MetricLocatorActivity, JsonTimesWithoutAPeriodAreSkipped) {
  EXPECT_EQ(set_from(loc, R"([[-600,-300], [-600,600], [300,1288490188800], [300,9223372036854775807],
                              [300,18446744073709551615], [-9223372036854775808,300]])"),
            1);
  EXPECT_EQ(activity_of(loc), "[]");
  EXPECT_EQ(set_from(loc, "[[-299,600]]"), 1);  // signed division goes towards zero
  EXPECT_EQ(activity_of(loc), "[(0,2)]");
  EXPECT_EQ(set_from(loc, "[[300,1288490188799]]"), 1);
  EXPECT_EQ(activity_of(loc), "[(1,4294967295)]");
}

TEST_F(MetricLocatorActivity, JsonReplacesWhatWasThere) {
  record(6000);
  EXPECT_EQ(set_from(loc, "[[600,600]]"), 1);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
  EXPECT_EQ(set_from(loc, "[]"), 1);
  EXPECT_EQ(activity_of(loc), "[]");
  EXPECT_EQ(record(900), 1) << "an empty list takes more";
  EXPECT_EQ(activity_of(loc), "[(3,3)]");
}

TEST_F(MetricLocatorActivity, JsonThatIsNoArrayChangesNothing) {
  record(600);
  for (const char *json : {"{}", "null", "7", "\"[[0,600]]\"", "true", "1.5"})
    EXPECT_EQ(set_from(loc, json), 0) << json;
  EXPECT_EQ(orlith_metric_locator_set_activity_from_json(loc.get(), nullptr), 0);
  EXPECT_EQ(activity_of(loc), "[(2,2)]");
}

// ---- Threads

TEST_F(MetricLocatorActivity, LocksAreTheDocumentedWord) {
  orlith_metric_locator_oil_shared_lock(loc.get());
  orlith_metric_locator_oil_shared_lock(loc.get());
  EXPECT_EQ(loc->activity_oil_lock, 8);
  orlith_metric_locator_oil_shared_unlock(loc.get());
  orlith_metric_locator_oil_shared_unlock(loc.get());
  orlith_metric_locator_oil_lock(loc.get());
  EXPECT_EQ(loc->activity_oil_lock, 0x50004);
  orlith_metric_locator_oil_unlock(loc.get());
}

TEST_F(MetricLocatorActivity, FirstRecordsThatRaceShareOneList) {
  for (int round = 0; round < 50; ++round) {
    const LocatorPtr fresh = make_locator("cpu");
    std::atomic<int> waiting{4};
    std::vector<std::thread> threads;
    for (uint64_t i = 1; i <= 4; ++i) {
      threads.emplace_back([&, i] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        EXPECT_EQ(orlith_metric_locator_record_activity(fresh.get(), i * 300000), 1);
      });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(activity_of(fresh), "[(1000,1000),(2000,2000),(3000,3000),(4000,4000)]");
  }
}

TEST_F(MetricLocatorActivity, ClonesAndQuestionsWhileOthersRecordSetAndMerge) {
  constexpr int kRounds = 2000;
  oil_list_t *src = oil_alloc();
  oil_put(src, 1000, 1000);
  orlith_metric_locator_set_activity(loc.get(), src);
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (uint64_t i = 0; i < kRounds; ++i) record((2000 + i) * 300);
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) orlith_metric_locator_set_activity(loc.get(), src);
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) orlith_metric_locator_merge_oil(loc.get(), src);
  });
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      EXPECT_EQ(was_active(300000, 300299), 1) << "every list there was has this period";
      oil_list_t *clone = orlith_metric_locator_get_activity_clone(loc.get());
      EXPECT_EQ(oil_valid(clone), 1);
      EXPECT_EQ(oil_find(clone, 1000, nullptr), 1);
      oil_free(clone);
    }
  });
  for (std::thread &thread : threads) thread.join();
  oil_free(src);
}
