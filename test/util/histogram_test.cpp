// Lists of histogram samples.
#include "liborlith/util/histogram.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "liborlith/util/metric_locator_internal.h"
#include "test/support/faults.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;

namespace {

bool refuse_references = false;

metric_value_t text_value(const char *text) {
  metric_value_t value{};
  value.type = ORLITH_METRIC_STRING;
  value.storage.v_string = strdup(text);
  return value;
}

metric_value_t null_value() {
  metric_value_t value{};
  value.type = ORLITH_METRIC_STRING;
  value.is_null = true;
  return value;
}

// A list that frees its entries.
struct List {
  ~List() { free_histogram_entry_chain(data.head); }
  std::vector<uint64_t> offsets() const {
    std::vector<uint64_t> result;
    for (const histogram_entries_t *e = data.head; e != nullptr; e = e->next) result.push_back(e->offset);
    return result;
  }
  histogram_data_t data{};
};

uint32_t references(const LocatorPtr &loc) {
  return loc->ref_cnt;
}

}  // namespace

extern "C" orlith_metric_locator_t *__real_orlith_metric_locator_ref(orlith_metric_locator_t *loc);
extern "C" orlith_metric_locator_t *__wrap_orlith_metric_locator_ref(orlith_metric_locator_t *loc);
extern "C" orlith_metric_locator_t *__wrap_orlith_metric_locator_ref(orlith_metric_locator_t *loc) {
  return refuse_references ? nullptr : __real_orlith_metric_locator_ref(loc);
}

TEST(HistogramListLayout, FieldsStandWhereHostsExpectThem) {
  EXPECT_EQ(offsetof(histogram_data_t, count), 0U);
  EXPECT_EQ(offsetof(histogram_data_t, head), 8U);
  EXPECT_EQ(offsetof(histogram_data_t, tail), 16U);
  EXPECT_EQ(offsetof(histogram_entries_t, offset), 0U);
  EXPECT_EQ(offsetof(histogram_entries_t, cumulative), 8U);
  EXPECT_EQ(offsetof(histogram_entries_t, metric_locator), 16U);
  EXPECT_EQ(offsetof(histogram_entries_t, histogram), 24U);
  EXPECT_EQ(offsetof(histogram_entries_t, materialized_histogram), 32U);
  EXPECT_EQ(offsetof(histogram_entries_t, account_id), 40U);
  EXPECT_EQ(offsetof(histogram_entries_t, arf), 48U);
  EXPECT_EQ(offsetof(histogram_entries_t, next), 56U);
  EXPECT_EQ(offsetof(histogram_entries_t, surrogate_value), 64U);
  EXPECT_EQ(offsetof(histogram_entries_t, is_local), 72U);
  EXPECT_EQ(offsetof(histogram_entries_t, target_count), 76U);
  EXPECT_EQ(offsetof(histogram_entries_t, targets), 80U);
}

// ---- Texts

TEST(HistogramList, AnAddedSampleHoldsACopyAndAReference) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = text_value("AAEC\n");
  EXPECT_EQ(add_histogram_to_list(&list.data, 1700, loc.get(), &value, 3, nullptr), 1);
  ASSERT_NE(list.data.head, nullptr);
  const histogram_entries_t &entry = *list.data.head;
  EXPECT_EQ(entry.offset, 1700U);
  EXPECT_EQ(entry.cumulative, 3);
  EXPECT_EQ(entry.metric_locator, loc.get());
  EXPECT_STREQ(entry.histogram, "AAEC\n");
  EXPECT_EQ(entry.materialized_histogram, nullptr);
  EXPECT_EQ(entry.account_id, 0);
  EXPECT_EQ(entry.arf, nullptr);
  EXPECT_EQ(entry.next, nullptr);
  EXPECT_EQ(entry.surrogate_value, 0U);
  EXPECT_FALSE(entry.is_local);
  EXPECT_EQ(entry.target_count, 0);
  EXPECT_EQ(entry.targets, nullptr);
  EXPECT_EQ(references(loc), 2U);
}

TEST(HistogramList, TheValueGivesUpItsText) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = text_value("AAEC");
  add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr);
  EXPECT_TRUE(value.is_null);
  EXPECT_EQ(value.storage.v_string, nullptr);
}

TEST(HistogramList, ANullValueIsASampleWithoutAText) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = null_value();
  EXPECT_EQ(add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr), 1);
  EXPECT_EQ(add_histogram_to_list(&list.data, 2, loc.get(), nullptr, 0, nullptr), 1);
  EXPECT_EQ(list.data.count, 2U);
  EXPECT_EQ(list.data.head->histogram, nullptr);
  EXPECT_EQ(list.data.tail->histogram, nullptr);
}

TEST(HistogramList, KeepsTheOrderOfAdding) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  for (const uint64_t time : {5u, 3u, 9u}) {
    metric_value_t value = null_value();
    add_histogram_to_list(&list.data, time, loc.get(), &value, 0, nullptr);
  }
  EXPECT_THAT(list.offsets(), ElementsAre(5, 3, 9));
  EXPECT_EQ(list.data.count, 3U);
  EXPECT_EQ(list.data.tail->offset, 9U);
}

TEST(HistogramList, AHeadWithoutATailRefusesATextAndLeavesAllAsItWas) {
  LogCapture log(&ruxo_error);
  const LocatorPtr loc = make_locator("latency");
  histogram_entries_t head{};
  histogram_data_t list = {7, &head, nullptr};
  metric_value_t value = text_value("AAEC");
  EXPECT_EQ(add_histogram_to_list(&list, 1, loc.get(), &value, 0, nullptr), 0);
  EXPECT_EQ(list.count, 7U);
  EXPECT_EQ(list.head, &head);
  EXPECT_EQ(list.tail, nullptr);
  EXPECT_EQ(head.next, nullptr);
  EXPECT_STREQ(value.storage.v_string, "AAEC");
  EXPECT_FALSE(value.is_null);
  EXPECT_EQ(references(loc), 1U);
  EXPECT_THAT(log.lines(),
              ElementsAre("add_histogram_to_list: could not add histogram to list - head was not "
                          "null, but tail somehow was\n"));
  free(value.storage.v_string);
}

// ---- Decoded histograms

TEST(HistogramList, ADecodedHistogramBelongsToItsEntry) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  histogram_t *h = hist_alloc();
  hist_insert(h, 1.5, 4);
  EXPECT_EQ(add_materialized_histogram_to_list(&list.data, 1700, loc.get(), h, 1, nullptr), 1);
  EXPECT_EQ(add_materialized_histogram_to_list(&list.data, 1800, loc.get(), hist_alloc(), 0, nullptr), 1);
  EXPECT_THAT(list.offsets(), ElementsAre(1700, 1800));
  EXPECT_EQ(list.data.count, 2U);
  const histogram_entries_t &entry = *list.data.head;
  EXPECT_EQ(entry.materialized_histogram, h);
  EXPECT_EQ(entry.histogram, nullptr);
  EXPECT_EQ(entry.cumulative, 1);
  EXPECT_EQ(entry.arf, nullptr);
  EXPECT_EQ(references(loc), 3U);
}

TEST(HistogramList, EachMissingPartOfADecodedSampleIsNamed) {
  LogCapture log(&ruxo_error);
  const LocatorPtr loc = make_locator("latency");
  List list;
  histogram_t *h = hist_alloc();
  EXPECT_EQ(add_materialized_histogram_to_list(nullptr, 1, loc.get(), h, 0, nullptr), 0);
  EXPECT_EQ(add_materialized_histogram_to_list(&list.data, 1, nullptr, h, 0, nullptr), 0);
  EXPECT_EQ(add_materialized_histogram_to_list(&list.data, 1, loc.get(), nullptr, 0, nullptr), 0);
  EXPECT_EQ(add_materialized_histogram_to_list(nullptr, 1, nullptr, nullptr, 0, nullptr), 0);
  const std::string start = "add_materialized_histogram_to_list: couldn't add histogram - ";
  EXPECT_THAT(log.lines(), ElementsAre(start + "list null, metric_locator not null, value not null\n",
                                       start + "list not null, metric_locator null, value not null\n",
                                       start + "list not null, metric_locator not null, value null\n",
                                       start + "list null, metric_locator null, value null\n"));
  EXPECT_EQ(list.data.count, 0U);
  hist_free(h);  // still the caller's
}

TEST(HistogramList, AHeadWithoutATailRefusesADecodedHistogramWhichStaysWithTheCaller) {
  LogCapture log(&ruxo_error);
  const LocatorPtr loc = make_locator("latency");
  histogram_entries_t head{};
  histogram_data_t list = {7, &head, nullptr};
  histogram_t *h = hist_alloc();
  EXPECT_EQ(add_materialized_histogram_to_list(&list, 1, loc.get(), h, 0, nullptr), 0);
  EXPECT_EQ(list.count, 7U);
  EXPECT_EQ(list.head, &head);
  EXPECT_EQ(list.tail, nullptr);
  EXPECT_EQ(references(loc), 1U);
  EXPECT_EQ(hist_bucket_count(h), 0) << "not freed: the address sanitizer would tell";
  // "head was null" is what hosts search for, although the head is what is set.
  EXPECT_THAT(log.lines(),
              ElementsAre("add_materialized_histogram_to_list: couldn't add histogram - head was "
                          "null, but tail was invalid\n"));
  hist_free(h);
}

// ---- Locks

TEST(HistogramList, ProducersShareAListUnderItsMutex) {
  const LocatorPtr loc = make_locator("latency");
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  List list;
  std::vector<std::thread> producers;
  for (int p = 0; p < 4; ++p) {
    producers.emplace_back([&] {
      for (uint64_t i = 0; i < 200; ++i) {
        metric_value_t value = text_value("AAEC");
        add_histogram_to_list(&list.data, i, loc.get(), &value, 0, &lock);
        add_materialized_histogram_to_list(&list.data, i, loc.get(), hist_alloc(), 0, &lock);
      }
    });
  }
  for (std::thread &producer : producers) producer.join();
  EXPECT_EQ(list.data.count, 1600U);
  EXPECT_EQ(list.offsets().size(), 1600U);
  EXPECT_EQ(references(loc), 1601U);
}

TEST(HistogramList, ARefusalGivesTheMutexBack) {
  LogCapture log(&ruxo_error);
  const LocatorPtr loc = make_locator("latency");
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  histogram_entries_t head{};
  histogram_data_t list = {1, &head, nullptr};
  metric_value_t value = null_value();
  EXPECT_EQ(add_histogram_to_list(&list, 1, loc.get(), &value, 0, &lock), 0);
  EXPECT_EQ(pthread_mutex_trylock(&lock), 0);
  pthread_mutex_unlock(&lock);
  histogram_t *h = hist_alloc();
  EXPECT_EQ(add_materialized_histogram_to_list(&list, 1, loc.get(), h, 0, &lock), 0);
  EXPECT_EQ(pthread_mutex_trylock(&lock), 0);
  pthread_mutex_unlock(&lock);
  hist_free(h);
}

// ---- Freeing

TEST(HistogramList, FreeingReleasesTheWholeChain) {
  const LocatorPtr loc = make_locator("latency");
  {
    List list;
    // Long enough that freeing by recursion would run out of stack.
    for (uint64_t i = 0; i < 200000; ++i) {
      metric_value_t value = null_value();
      add_histogram_to_list(&list.data, i, loc.get(), &value, 0, nullptr);
    }
    EXPECT_EQ(references(loc), 200001U);
  }
  EXPECT_EQ(references(loc), 1U);
}

TEST(HistogramList, FreeingANullChainDoesNothing) {
  LogCapture log(&ml_error_ls);
  free_histogram_entry_chain(nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

// ---- Fatal stops

TEST(HistogramListDeathTest, FreeingAnEntryWhoseArfIsSetStopsTheProcess) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = null_value();
  add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr);
  int arf = 0;
  list.data.head->arf = &arf;
  EXPECT_EXIT(free_histogram_entry_chain(list.data.head), KilledBySignal(SIGABRT),
              "\\[FATAL\\] assertion \\(prev->arf == NULL\\) at util/histogram\\.cpp:[0-9]+ failed");
  list.data.head->arf = nullptr;
}

TEST(HistogramListDeathTest, AddingATextNeedsAListAndALocator) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = null_value();
  constexpr char kLine[] =
      "\\[FATAL\\] assertion \\(list != NULL && metric_locator != NULL\\) at util/histogram\\.cpp:[0-9]+ "
      "failed";
  EXPECT_EXIT(add_histogram_to_list(nullptr, 1, loc.get(), &value, 0, nullptr), KilledBySignal(SIGABRT),
              kLine);
  EXPECT_EXIT(add_histogram_to_list(&list.data, 1, nullptr, &value, 0, nullptr), KilledBySignal(SIGABRT),
              kLine);
}

TEST(HistogramListDeathTest, RunningOutOfMemoryForAnEntryIsFatal) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = null_value();
  EXPECT_EXIT(
      {
        faults::Fail fail(faults::Call::calloc, ENOMEM, 1, 1);
        add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr);
      },
      KilledBySignal(SIGABRT),
      "\\[FATAL\\] assertion \\(histogram != NULL\\) at util/histogram\\.cpp:[0-9]+ failed");
  histogram_t *h = hist_alloc();
  EXPECT_EXIT(
      {
        faults::Fail fail(faults::Call::calloc, ENOMEM, 1, 1);
        add_materialized_histogram_to_list(&list.data, 1, loc.get(), h, 0, nullptr);
      },
      KilledBySignal(SIGABRT), "\\[FATAL\\] assertion \\(histogram\\) at util/histogram\\.cpp:[0-9]+ failed");
  hist_free(h);
}

TEST(HistogramListDeathTest, ALocatorWithoutAReferenceIsFatal) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = null_value();
  histogram_t *h = hist_alloc();
  refuse_references = true;
  EXPECT_EXIT(
      add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr), KilledBySignal(SIGABRT),
      "\\[FATAL\\] assertion \\(histogram->metric_locator != NULL\\) at util/histogram\\.cpp:[0-9]+ failed");
  EXPECT_EXIT(add_materialized_histogram_to_list(&list.data, 1, loc.get(), h, 0, nullptr),
              KilledBySignal(SIGABRT),
              "\\[FATAL\\] assertion \\(histogram->metric_locator\\) at util/histogram\\.cpp:[0-9]+ failed");
  refuse_references = false;
  hist_free(h);
}

TEST(HistogramListDeathTest, ATextThatCannotBeCopiedIsFatal) {
  const LocatorPtr loc = make_locator("latency");
  List list;
  metric_value_t value = text_value("AAEC");
  EXPECT_EXIT(
      {
        faults::Fail fail(faults::Call::strdup, ENOMEM);
        add_histogram_to_list(&list.data, 1, loc.get(), &value, 0, nullptr);
      },
      KilledBySignal(SIGABRT),
      "\\[FATAL\\] assertion \\(histogram->histogram != NULL\\) at util/histogram\\.cpp:[0-9]+ failed");
  free(value.storage.v_string);
}
