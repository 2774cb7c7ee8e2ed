#include "ruxo/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "ruxo/zipkin.h"
#include "test/support/child_process.h"
#include "test/support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

// Runs before main(), like a static object of a host. The environment makes it log there (see below).
struct BeforeMain {
  bool error_was_live = ruxo_log_stream_is_live(ruxo_error);
  bool debug_was_live = ruxo_log_stream_is_live(ruxo_debug);
  BeforeMain() {
    if (getenv("RUXO_TEST_LOG_BEFORE_MAIN") != nullptr) ruxo_log(ruxo_error, "before main\n");
  }
  ~BeforeMain() {
    if (getenv("RUXO_TEST_LOG_BEFORE_MAIN") != nullptr) ruxo_log(ruxo_error, "after main\n");
  }
};
const BeforeMain before_main;

bool live(ruxo_log_stream_t ls) {
  return ruxo_log_stream_is_live(ls);
}

ruxo_log_stream_t fresh_stream() {
  static std::atomic<int> count{0};
  return ruxo_log_stream_new(("test/fresh" + std::to_string(count++)).c_str());
}

class GloballyEnabled {
 public:
  GloballyEnabled() { ruxo_log_set_global_enabled(true); }
  ~GloballyEnabled() { ruxo_log_set_global_enabled(false); }
};

}  // namespace

TEST(Log, WorksBeforeMain) {
  EXPECT_TRUE(before_main.error_was_live);
  EXPECT_FALSE(before_main.debug_was_live);
}

TEST(Log, LinesOfStaticObjectsBeforeAndAfterMainAreWritten) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    setenv("RUXO_TEST_LOG_BEFORE_MAIN", "1", 1);
    execl("/proc/self/exe", "test_ruxo", "--gtest_filter=None.None", nullptr);
    _exit(1);
  });
  EXPECT_TRUE(child.exited_with(0));
  EXPECT_THAT(child.stderr_text,
              testing::ContainsRegex("message=\"before main\"\n.*message=\"after main\"\n"));
}

TEST(Log, TheGlobalStreamsHaveNames) {
  EXPECT_STREQ(ruxo_log_stream_name(ruxo_error), "error");
  EXPECT_STREQ(ruxo_log_stream_name(ruxo_notice), "notice");
  EXPECT_STREQ(ruxo_log_stream_name(ruxo_debug), "debug");
  EXPECT_EQ(ruxo_log_stream_find("error"), ruxo_error);
  EXPECT_EQ(ruxo_log_stream_find("notice"), ruxo_notice);
  EXPECT_EQ(ruxo_log_stream_find("debug"), ruxo_debug);
}

TEST(Log, ErrorAndNoticeHaveMaterialOutputAndDebugHasNone) {
  EXPECT_TRUE(ruxo_log_has_material_output(ruxo_error));
  EXPECT_TRUE(ruxo_log_has_material_output(ruxo_notice));
  EXPECT_FALSE(ruxo_log_has_material_output(ruxo_debug));
  EXPECT_FALSE(ruxo_log_has_material_output(nullptr));
}

TEST(Log, AnUnknownNameFindsNothing) {
  EXPECT_FALSE(ruxo_log_stream_exists("test/unknown"));
  EXPECT_EQ(ruxo_log_stream_find("test/unknown"), nullptr);
}

TEST(Log, ANameBelongsToOneStream) {
  const ruxo_log_stream_t first = ruxo_log_stream_new("test/taken");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(ruxo_log_stream_new("test/taken"), first);
  EXPECT_EQ(ruxo_log_stream_find("test/taken"), first);
  EXPECT_TRUE(ruxo_log_stream_exists("test/taken"));
  EXPECT_STREQ(ruxo_log_stream_name(first), "test/taken");
}

TEST(Log, AStreamIsLiveWhenEnabledAndWithAnOutlet) {
  const ruxo_log_stream_t ls = fresh_stream();
  EXPECT_FALSE(live(ls)) << "no outlet";
  ruxo_log_stream_add_outlet(ls, ruxo_log_outlet_memory());
  EXPECT_TRUE(live(ls));
  ruxo_log_stream_disable(ls);
  EXPECT_FALSE(live(ls)) << "disabled";
  EXPECT_TRUE(ruxo_log_has_material_output(ls));
  ruxo_log_stream_enable(ls);
  EXPECT_TRUE(live(ls));
  ruxo_log_stream_remove_outlets(ls);
  EXPECT_FALSE(live(ls)) << "no outlet again";
}

TEST(Log, GloballyEnabledMakesEveryStreamButNullLive) {
  const ruxo_log_stream_t disabled = fresh_stream();
  ruxo_log_stream_disable(disabled);
  const GloballyEnabled everything;
  EXPECT_TRUE(ruxo_log_global_enabled());
  EXPECT_TRUE(live(disabled));
  EXPECT_TRUE(live(ruxo_debug));
  EXPECT_FALSE(live(nullptr));
}

TEST(Log, GloballyEnabledWritesADisabledStreamToItsOutlets) {
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  ruxo_log_stream_disable(ls);
  ruxo_log(ls, "dead\n");
  const GloballyEnabled everything;
  ruxo_log(ls, "alive\n");
  EXPECT_THAT(capture.lines(), ElementsAre("alive\n"));
}

TEST(Log, GloballyEnabledWritesAStreamWithoutOutletToStandardError) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    ruxo_log_set_global_enabled(true);
    ruxo_log(ruxo_debug, "seen\n");
  });
  EXPECT_THAT(child.stderr_text, EndsWith("message=\"seen\"\n"));
}

TEST(Log, AnActiveSpanWithLogsAttachedMakesStreamsLiveOnItsThreadOnly) {
  ruxo_zipkin_span *const span = ruxo_zipkin_span_new("request");
  ruxo_zipkin_set_active_span(span);
  EXPECT_FALSE(live(ruxo_debug)) << "logs are not attached yet";
  ruxo_zipkin_span_attach_logs(span, true);
  EXPECT_TRUE(live(ruxo_debug));
  EXPECT_FALSE(live(nullptr));
  bool live_elsewhere = true;
  std::thread([&] { live_elsewhere = live(ruxo_debug); }).join();
  EXPECT_FALSE(live_elsewhere);
  ruxo_zipkin_set_active_span(nullptr);
  EXPECT_FALSE(live(ruxo_debug));
  ruxo_zipkin_span_free(span);
}

TEST(Log, OverridesCountTheGlobalSwitchOnce) {
  EXPECT_EQ(ruxo_log_overrides, 0);
  ruxo_log_set_global_enabled(true);
  ruxo_log_set_global_enabled(true);
  EXPECT_EQ(ruxo_log_overrides, 1);
  ruxo_log_set_global_enabled(false);
  ruxo_log_set_global_enabled(false);
  EXPECT_EQ(ruxo_log_overrides, 0);
}

TEST(Log, ADeadStreamsArgumentsAreNotEvaluated) {
  int evaluated = 0;
  ruxo_log(ruxo_debug, "%d\n", ++evaluated);
  ruxo_log(static_cast<ruxo_log_stream_t>(nullptr), "%d\n", ++evaluated);
  EXPECT_EQ(evaluated, 0);
}

TEST(Log, TheStreamExpressionIsEvaluatedOnce) {
  int evaluated = 0;
  const auto stream = [&] { return ++evaluated, ruxo_debug; };
  ruxo_log(stream(), "text\n");
  EXPECT_EQ(evaluated, 1);
}

TEST(Log, KeepsTheTextAsTheCallerWroteIt) {
  const LogCapture capture(&ruxo_error);
  ruxo_log(ruxo_error, "%d of %s\n", 1, "two\nlines");
  EXPECT_THAT(capture.lines(), ElementsAre("1 of two\nlines\n"));
}

TEST(Log, MessagesOfAnyLengthAreWhole) {
  const LogCapture capture(&ruxo_error);
  const std::vector<size_t> lengths = {0, 1, 510, 511, 512, 513, 4096, 1000000};
  for (const size_t length : lengths) ruxo_log(ruxo_error, "%s", std::string(length, 'x').c_str());
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), lengths.size());
  for (size_t i = 0; i < lengths.size(); ++i) EXPECT_EQ(lines[i], std::string(lengths[i], 'x'));
}

TEST(Log, AMessageThatCannotBeFormattedSaysSo) {
  const LogCapture capture(&ruxo_error);
  const wchar_t no_character[] = {static_cast<wchar_t>(0x7fffffff), 0};
  ruxo_log(ruxo_error, "name %ls\n", no_character);
  EXPECT_THAT(capture.lines(), ElementsAre("(cannot be formatted) name %ls\n"));
}

TEST(Log, LoggingLeavesErrnoAlone) {
  const LogCapture capture(&ruxo_error);
  errno = EXDEV;
  ruxo_log(ruxo_error, "%s\n", "text");
  EXPECT_EQ(errno, EXDEV);
}

TEST(Log, AnOutletAddedTwiceGetsALineOnce) {
  const ruxo_log_stream_t ls = fresh_stream();
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_memory();
  ruxo_log_stream_add_outlet(ls, outlet);
  ruxo_log_stream_add_outlet(ls, outlet);
  ruxo_log(ls, "once\n");
  EXPECT_EQ(ruxo_log_outlet_memory_count(outlet), 1u);
}

TEST(Log, EveryOutletOfAStreamGetsTheLine) {
  const ruxo_log_stream_t ls = fresh_stream();
  const ruxo_log_outlet_t one = ruxo_log_outlet_memory();
  const ruxo_log_outlet_t two = ruxo_log_outlet_memory();
  ruxo_log_stream_add_outlet(ls, one);
  ruxo_log_stream_add_outlet(ls, two);
  ruxo_log(ls, "both\n");
  EXPECT_STREQ(ruxo_log_outlet_memory_line(one, 0), "both\n");
  EXPECT_STREQ(ruxo_log_outlet_memory_line(two, 0), "both\n");
}

TEST(Log, AnOutletAddedToTheErrorStreamJoinsStandardError) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    const ruxo_log_outlet_t memory = ruxo_log_outlet_memory();
    ruxo_log_stream_add_outlet(ruxo_error, memory);
    ruxo_log(ruxo_error, "both\n");
    if (ruxo_log_outlet_memory_count(memory) != 1) _exit(1);
  });
  EXPECT_TRUE(child.exited_with(0));
  EXPECT_THAT(child.stderr_text, EndsWith("message=\"both\"\n"));
}

TEST(Log, LinesGoToTheOutletsOfTheMomentTheyWereLogged) {
  const ruxo_log_stream_t ls = fresh_stream();
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_memory();
  ruxo_log_stream_add_outlet(ls, outlet);
  ruxo_log(ls, "before\n");
  ruxo_log_stream_remove_outlets(ls);
  ruxo_log(ls, "after\n");
  EXPECT_EQ(ruxo_log_outlet_memory_count(outlet), 1u);
}

TEST(Log, AHostMaySetTheGlobalStreamsToNull) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    ruxo_error = nullptr;
    ruxo_log(ruxo_error, "unseen\n");
    ruxo_log_write(nullptr, "", 0, "unseen\n");
  });
  EXPECT_TRUE(child.exited_with(0));
  EXPECT_THAT(child.stderr_text, IsEmpty());
}

TEST(Log, LivenessStaysRightUnderConcurrentChanges) {
  const ruxo_log_stream_t ls = fresh_stream();
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_memory();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      ruxo_zipkin_span *const span = ruxo_zipkin_span_new("stress");
      for (int i = 0; i < 500; ++i) {
        t % 2 == 0 ? ruxo_log_stream_disable(ls) : ruxo_log_stream_enable(ls);
        t % 2 == 0 ? ruxo_log_stream_remove_outlets(ls) : void(ruxo_log_stream_add_outlet(ls, outlet));
        ruxo_log_set_global_enabled(i % 2 == 0);
        ruxo_zipkin_set_active_span(i % 3 == 0 ? nullptr : span);
        ruxo_zipkin_span_attach_logs(span, i % 5 < 2);
        if (t == 3) ruxo_log_stream_is_live(ls);
      }
      ruxo_zipkin_set_active_span(nullptr);
      ruxo_zipkin_span_free(span);
    });
  }
  for (std::thread &thread : threads) thread.join();
  ruxo_log_set_global_enabled(false);
  EXPECT_EQ(ruxo_log_overrides, 0);
  ruxo_log_stream_enable(ls);
  EXPECT_EQ(live(ls), ruxo_log_has_material_output(ls));
  ruxo_log_stream_add_outlet(ls, outlet);
  EXPECT_TRUE(live(ls));
}
