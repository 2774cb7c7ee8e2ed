#include "liborlith/util/liborlith_hooks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;

// Filters cannot be removed, so a test that needs a list of its own puts the head back to null. The nodes stay
// reachable from here until the process has ended, so that a leak checker sees them.
class MetricFilterHook : public testing::Test {
 protected:
  MetricFilterHook() {
    static auto &earlier_lists = *new std::vector<ruxo_hook_metric_filter_list *>;
    earlier_lists.push_back(nh_metric_filter_list);
    nh_metric_filter_list = nullptr;
  }
};

struct Filter {
  std::string name;
  int answer;
  std::vector<std::string> *calls;
};

// Answers with any number, as a filter that was compiled elsewhere may.
int record_and_answer_number(void *closure, const char *id, const char *name, int name_len, int account_id) {
  const Filter *filter = static_cast<Filter *>(closure);
  filter->calls->push_back(filter->name + " " + id + " " + std::string(name, static_cast<size_t>(name_len)) +
                           " " + std::to_string(account_id));
  return filter->answer;
}

const auto record_and_answer =
    reinterpret_cast<metric_filter_hook_f>(reinterpret_cast<void (*)()>(&record_and_answer_number));

int answer_of(std::vector<Filter> &filters) {
  for (Filter &filter : filters) metric_filter_hook_register(filter.name.c_str(), record_and_answer, &filter);
  return static_cast<int>(metric_filter_hook_invoke("id", "name", 4, 7));
}

TEST_F(MetricFilterHook, WithoutFiltersGoesOn) {
  EXPECT_FALSE(metric_filter_hook_exists());
  EXPECT_EQ(metric_filter_hook_invoke("id", "name", 4, 1), RUXO_HOOK_CONTINUE);
}

TEST_F(MetricFilterHook, PublishesItsPrototype) {
  EXPECT_STREQ(metric_filter_hook_proto(),
               "(void *closure, const char *id, const char *name, int name_len, int account_id)");
}

TEST_F(MetricFilterHook, PassesTheClosureAndTheFourArguments) {
  std::vector<std::string> calls;
  Filter filter{"A", RUXO_HOOK_CONTINUE, &calls};
  metric_filter_hook_register("A", record_and_answer, &filter);
  EXPECT_TRUE(metric_filter_hook_exists());
  EXPECT_EQ(metric_filter_hook_invoke("some-id", "name and more", 4, -3), RUXO_HOOK_CONTINUE);
  EXPECT_THAT(calls, ElementsAre("A some-id name -3"));
}

TEST_F(MetricFilterHook, TheLastRegisteredRunsFirst) {
  std::vector<std::string> calls;
  std::vector<Filter> filters = {{"A", RUXO_HOOK_CONTINUE, &calls}, {"B", RUXO_HOOK_CONTINUE, &calls}};
  EXPECT_EQ(answer_of(filters), RUXO_HOOK_CONTINUE);
  EXPECT_THAT(calls, ElementsAre("B id name 7", "A id name 7"));
}

TEST_F(MetricFilterHook, AnAbortKeepsLaterFiltersFromBeingCalled) {
  std::vector<std::string> calls;
  std::vector<Filter> filters = {{"A", RUXO_HOOK_DONE, &calls}, {"B", RUXO_HOOK_ABORT, &calls}};
  EXPECT_EQ(answer_of(filters), RUXO_HOOK_ABORT);
  EXPECT_THAT(calls, ElementsAre("B id name 7"));
}

TEST_F(MetricFilterHook, DoneFollowedByAbortIsAbort) {
  std::vector<std::string> calls;
  std::vector<Filter> filters = {{"A", RUXO_HOOK_ABORT, &calls}, {"B", RUXO_HOOK_DONE, &calls}};
  EXPECT_EQ(answer_of(filters), RUXO_HOOK_ABORT);
  EXPECT_THAT(calls, ElementsAre("B id name 7", "A id name 7"));
}

TEST_F(MetricFilterHook, DoneIsRememberedWhileTheRestStillRuns) {
  std::vector<std::string> calls;
  std::vector<Filter> filters = {{"A", RUXO_HOOK_CONTINUE, &calls}, {"B", RUXO_HOOK_DONE, &calls}};
  EXPECT_EQ(answer_of(filters), RUXO_HOOK_DONE);
  EXPECT_THAT(calls, ElementsAre("B id name 7", "A id name 7"));
}

TEST_F(MetricFilterHook, AnUnknownAnswerCountsAsNoOpinion) {
  std::vector<std::string> calls;
  std::vector<Filter> filters = {{"A", -1, &calls}, {"B", 3, &calls}};
  EXPECT_EQ(answer_of(filters), RUXO_HOOK_CONTINUE);
  EXPECT_EQ(calls.size(), 2u);
}

TEST_F(MetricFilterHook, ANodeHoldsACopyOfTheNameAndTheRest) {
  char name[] = "filter";
  int closure = 0;
  metric_filter_hook_register(name, record_and_answer, &closure);
  name[0] = 'X';
  const ruxo_hook_metric_filter_list *node = nh_metric_filter_list;
  ASSERT_NE(node, nullptr);
  EXPECT_STREQ(node->optional_name, "filter");
  EXPECT_STREQ(node->proto, metric_filter_hook_proto());
  EXPECT_EQ(node->func, record_and_answer);
  EXPECT_EQ(node->closure, &closure);
  EXPECT_EQ(node->next, nullptr);
}

TEST_F(MetricFilterHook, ANullNameStaysNull) {
  metric_filter_hook_register(nullptr, record_and_answer, nullptr);
  ASSERT_NE(nh_metric_filter_list, nullptr);
  EXPECT_EQ(nh_metric_filter_list->optional_name, nullptr);
}

TEST_F(MetricFilterHook, AFilterWithoutAFunctionIsSkipped) {
  std::vector<std::string> calls;
  Filter filter{"A", RUXO_HOOK_DONE, &calls};
  metric_filter_hook_register("A", record_and_answer, &filter);
  metric_filter_hook_register("none", nullptr, nullptr);
  EXPECT_TRUE(metric_filter_hook_exists());
  EXPECT_EQ(metric_filter_hook_invoke("id", "name", 4, 1), RUXO_HOOK_DONE);
  EXPECT_EQ(calls.size(), 1u);
}

// Modules are compiled on their own: the numbers are what they answer with.
TEST_F(MetricFilterHook, AnswersArePinned) {
  EXPECT_EQ(static_cast<int>(RUXO_HOOK_CONTINUE), 0);
  EXPECT_EQ(static_cast<int>(RUXO_HOOK_DONE), 1);
  EXPECT_EQ(static_cast<int>(RUXO_HOOK_ABORT), 2);
}

int later_calls = 0;

ruxo_hook_return_t refuse(void *, const char *, const char *, int, int) {
  ++later_calls;
  return RUXO_HOOK_ABORT;
}

ruxo_hook_return_t register_refusal(void *, const char *, const char *, int, int) {
  metric_filter_hook_register("refuse", refuse, nullptr);
  return RUXO_HOOK_DONE;
}

TEST_F(MetricFilterHook, AFilterRegisteredDuringAnInvocationIsSeenByTheNextOne) {
  metric_filter_hook_register("register", register_refusal, nullptr);
  EXPECT_EQ(metric_filter_hook_invoke("id", "name", 4, 1), RUXO_HOOK_DONE);
  EXPECT_EQ(later_calls, 0);
  EXPECT_EQ(metric_filter_hook_invoke("id", "name", 4, 1), RUXO_HOOK_ABORT);
  EXPECT_EQ(later_calls, 1);
}

std::atomic<int> counted_calls{0};

ruxo_hook_return_t count_calls(void *, const char *, const char *, int, int) {
  ++counted_calls;
  return RUXO_HOOK_CONTINUE;
}

TEST_F(MetricFilterHook, RegistrationsRaceWithEachOtherAndWithInvocations) {
  constexpr int per_thread = 200;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < per_thread; ++n) {
        metric_filter_hook_register("racing", count_calls, nullptr);
        EXPECT_EQ(metric_filter_hook_invoke("id", "name", 4, 1), RUXO_HOOK_CONTINUE);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  counted_calls = 0;
  metric_filter_hook_invoke("id", "name", 4, 1);
  EXPECT_EQ(counted_calls, 4 * per_thread) << "no registration is lost";
}

}  // namespace
