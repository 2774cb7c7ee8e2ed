#include "orlith/collect.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <thread>

#include "liborlith/util/histogram.h"
#include "orlith/check_uuid.h"
#include "orlith/signals.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char *check = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
const std::string fixture_root = ORLITH_FIXTURES "/host";

CollectOptions options(uint64_t count, double interval_s) {
  CollectOptions result;
  result.count = count;
  result.interval_s = interval_s;
  result.check_uuid = check;
  result.root = fixture_root;
  return result;
}

size_t line_count(const std::string &text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Each round takes some time of the same clock.
class SlowClock final : public Clock {
 public:
  uint64_t monotonic_ns() override { return now_ns; }
  uint64_t realtime_ms() override {
    starts_ms.push_back(now_ns / 1'000'000);
    now_ns += round_ms[std::min(starts_ms.size(), round_ms.size()) - 1] * 1'000'000;
    return starts_ms.back();
  }
  bool sleep_until_ns(uint64_t deadline_ns) override {
    now_ns = std::max(now_ns, deadline_ns);
    return true;
  }
  uint64_t now_ns = 1'000'000'000;
  std::vector<uint64_t> round_ms = {0};
  std::vector<uint64_t> starts_ms;
};

TEST(Collect, WritesOneRoundWithoutWaiting) {
  ToolSession tool;
  EXPECT_EQ(collect(options(1, 1), tool.session, tool.out), exit_fine);
  EXPECT_TRUE(tool.clock.sleeps.empty());
  EXPECT_EQ(tool.err.text, "");
  EXPECT_THAT(tool.out.text, HasSubstr(std::string("M\t1700000005.000\t") + check +
                                       "\tload_average|ST[minutes:1]\tn\t0.25\n"));
}

TEST(Collect, EveryLineHasItsSixFields) {
  ToolSession tool;
  collect(options(2, 1), tool.session, tool.out);
  std::istringstream lines(tool.out.text);
  for (std::string line; std::getline(lines, line);) {
    const auto fields = CLI::detail::split(line, '\t');
    ASSERT_EQ(fields.size(), 6u) << line;
    EXPECT_EQ(fields[0], "M");
    EXPECT_EQ(fields[2], check);
    EXPECT_THAT(fields[4], testing::AnyOf("n", "L", "l", "I", "i", "s")) << line;
  }
}

TEST(Collect, KeepsItsScheduleWhenRoundsTakeTime) {
  ToolSession tool;
  SlowClock clock;
  clock.round_ms = {300, 999, 10};
  Session session{.out = tool.out, .err = tool.err, .clock = clock, .terminal = {}, .settings = {}};
  EXPECT_EQ(collect(options(5, 1), session, tool.out), exit_fine);
  EXPECT_THAT(clock.starts_ms, ElementsAre(1000, 2000, 3000, 4000, 5000));
}

TEST(Collect, LeavesOutMissedRoundsInsteadOfHurrying) {
  ToolSession tool;
  SlowClock clock;
  clock.round_ms = {10, 2500, 10};
  Session session{.out = tool.out, .err = tool.err, .clock = clock, .terminal = {}, .settings = {}};
  EXPECT_EQ(collect(options(4, 1), session, tool.out), exit_fine);
  EXPECT_THAT(clock.starts_ms,
              ElementsAre(1000, 2000, 4500, 5000));  // late once, then back on the whole seconds
}

TEST(Collect, WarnsOncePerProblem) {
  const TempDir empty;
  ToolSession tool;
  CollectOptions broken = options(3, 1);
  broken.root = empty.path();
  EXPECT_EQ(collect(broken, tool.session, tool.out), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr("orlith: warning: /proc/stat: No such file or directory; left out\n"));
  EXPECT_EQ(line_count(tool.err.text), 11u + 1);  // one a source, and the error at the end
  EXPECT_THAT(tool.err.text, testing::EndsWith("orlith: error: no source could be read\n"));
}

TEST(Collect, AnInterruptEndsItAfterWholeRounds) {
  ToolSession one, interrupted_session;
  collect(options(1, 1), one.session, one.out);
  interrupted_session.clock.interrupt_at_sleep = 2;
  EXPECT_EQ(collect(options(0, 1), interrupted_session.session, interrupted_session.out), exit_interrupted);
  EXPECT_GE(line_count(interrupted_session.out.text), 2 * line_count(one.out.text));
  EXPECT_EQ(interrupted_session.out.text.back(), '\n');
}

TEST(Collect, StopsWhenNobodyReads) {
  class Closed final : public Output {
   public:
    void write(std::string_view) override {}
    bool flush() override { return false; }
    int error() const override { return EPIPE; }
  };
  ToolSession tool;
  Closed closed;
  EXPECT_EQ(collect(options(0, 1), tool.session, closed), exit_fine);
  EXPECT_EQ(tool.err.text, "");
}

// A line as the library's own decoder reads it.
TEST(Collect, EndsARoundWithAHistogramLineForEachLatency) {
  ToolSession tool;
  CollectOptions with_latencies = options(1, 1);
  const auto fixed = [](uint64_t *latency_ns) {
    *latency_ns = 2'500'000;
    return true;
  };
  with_latencies.latencies = {
      {"first|ST[units:seconds]", 3, fixed}, {"second", 0, fixed}, {"third", 1, fixed}};
  EXPECT_EQ(collect(with_latencies, tool.session, tool.out), exit_fine);
  const std::string lines = tool.out.text.substr(tool.out.text.find("\nH") + 1);
  EXPECT_THAT(
      lines, testing::StartsWith(std::string("H\t1700000005.000\t") + check + "\tfirst|ST[units:seconds]\t"));
  EXPECT_EQ(line_count(lines), 2U) << "one that had no time has no line";
  EXPECT_THAT(lines, HasSubstr("\tthird\t"));
  const std::string text = lines.substr(0, lines.find('\n'));
  uint64_t time_ms = 0;
  orlith_metric_locator_t *locator = nullptr;
  metric_value_t value;
  ASSERT_EQ(decode_histogram_string(text.c_str(), &time_ms, &locator, &value, true, nullptr, 0), 1);
  EXPECT_EQ(time_ms, 1'700'000'005'000U);
  ASSERT_FALSE(value.is_null);
  histogram_t *histogram = hist_alloc();
  ASSERT_GT(hist_deserialize_b64(histogram, value.storage.v_string, strlen(value.storage.v_string)), 0);
  EXPECT_EQ(hist_bucket_count(histogram), 1);
  EXPECT_EQ(hist_count_at(histogram, {25, -3}), 3U);
  hist_free(histogram);
  free(value.storage.v_string);
  orlith_metric_locator_deref(locator);
}

TEST(Collect, LatenciesTakeASmallPartOfAnInterval) {
  ToolSession tool;
  CollectOptions with_latencies = options(3, 0.01);
  const auto slow = [&](uint64_t *latency_ns) {
    *latency_ns = 1'000'000;
    tool.clock.advance_ms(1);
    return true;
  };
  with_latencies.latencies = {{"a", 1000, slow}, {"b", 1000, slow}};
  EXPECT_EQ(collect(with_latencies, tool.session, tool.out), exit_fine);
  EXPECT_THAT(tool.clock.sleeps, ElementsAre(5'010'000'000, 5'020'000'000)) << "every round in its time";
}

TEST(Collect, AFailingLatencyIsWarnedAboutOnce) {
  ToolSession tool;
  CollectOptions with_latencies = options(3, 1);
  with_latencies.latencies = {{"a", 10, [](uint64_t *) {
                                 errno = EIO;
                                 return false;
                               }}};
  EXPECT_EQ(collect(with_latencies, tool.session, tool.out), exit_fine);
  EXPECT_EQ(tool.err.text, "orlith: warning: a: Input/output error; left out\n");
  EXPECT_EQ(tool.out.text.find("\nH"), std::string::npos);
}

TEST(CollectCommand, MeasuresLatenciesOfThisMachineOnly) {
  ToolSession here, elsewhere, unwanted;
  EXPECT_EQ(here.run({"collect", "--check", check}), exit_fine);
  for (const char *name :
       {"scheduler_delay|ST[units:seconds]", "page_cache_latency|ST[op:read,units:seconds]",
        "page_cache_latency|ST[op:write,units:seconds]"}) {
    EXPECT_THAT(here.out.text, HasSubstr(std::string("\nH\t1700000005.000\t") + check + "\t" + name + "\t"));
  }
  EXPECT_EQ(elsewhere.run({"collect", "--check", check, "--root", fixture_root}), exit_fine);
  EXPECT_EQ(elsewhere.out.text.find("\nH"), std::string::npos);
  EXPECT_EQ(unwanted.run({"collect", "--check", check, "--no-histograms"}), exit_fine);
  EXPECT_EQ(unwanted.out.text.find("\nH"), std::string::npos);
}

TEST(CollectCommand, KeepsTheCheckUuidItMade) {
  const TempDir folder;
  const std::string state = folder.file("deep/er/uuid");
  ToolSession first, second;
  EXPECT_EQ(first.run({"collect", "--root", fixture_root, "--state", state}), exit_fine);
  EXPECT_EQ(second.run({"collect", "--root", fixture_root, "--state", state}), exit_fine);
  const std::string uuid = first.out.text.substr(first.out.text.find('\t', 2) + 1, 36);
  EXPECT_EQ(normalized_uuid(uuid), uuid);
  EXPECT_EQ(first.out.text, second.out.text);
  EXPECT_EQ(folder.read("deep/er/uuid"), uuid + "\n");
}

TEST(CollectCommand, TakesAGivenCheckInLowerCase) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"collect", "--root", fixture_root, "--check", "1B4E28BA-2FA1-11D2-883F-0016D3CCA427"}),
            exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr(check));
}

TEST(CollectCommand, RefusesWhatIsNoUuidAndNoInterval) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"collect", "--check", "not\x1b one"}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith collect: error: --check: found 'not\\x1b one', expected a UUID\n");
  for (const char *interval : {"0", "-1", "nan", "1e300", "x"}) {
    ToolSession other;
    EXPECT_EQ(other.run({"collect", "--check", check, "--interval", interval}), exit_usage) << interval;
  }
}

TEST(CollectCommand, RefusesADamagedStateFileAndLeavesItAlone) {
  const TempDir folder;
  const std::string state = folder.write("uuid", "something else\n");
  ToolSession tool;
  EXPECT_EQ(tool.run({"collect", "--root", fixture_root, "--state", state}), exit_damaged);
  EXPECT_THAT(tool.err.text, HasSubstr("found 'something else', expected one UUID"));
  EXPECT_EQ(folder.read("uuid"), "something else\n");
}

TEST(CollectCommand, WritesAFileWhole) {
  const TempDir folder;
  ToolSession tool;
  EXPECT_EQ(tool.run({"collect", "--root", fixture_root, "--check", check, "-o", folder.file("lines.txt")}),
            exit_fine);
  EXPECT_EQ(tool.out.text, "");
  EXPECT_THAT(folder.read("lines.txt"), testing::StartsWith("M\t1700000005.000\t"));
  // Nothing else is left in the folder.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

TEST(CollectCommand, LeavesTheOldFileWhenNothingCanBeRead) {
  const TempDir folder;
  folder.write("lines.txt", "old\n");
  ToolSession tool;
  EXPECT_EQ(
      tool.run({"collect", "--root", folder.file("none"), "--check", check, "-o", folder.file("lines.txt")}),
      exit_failed);
  EXPECT_EQ(folder.read("lines.txt"), "old\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

TEST(CollectCommand, NamesAFileItCannotWrite) {
  const TempDir folder;
  ToolSession tool;
  EXPECT_EQ(
      tool.run({"collect", "--root", fixture_root, "--check", check, "-o", folder.file("no/such/folder")}),
      exit_failed);
  EXPECT_THAT(tool.err.text,
              HasSubstr("cannot write '" + folder.file("no/such/folder") + "': No such file or directory"));
}

TEST(CheckUuid, IsTheSameForAllWhoRaceToMakeIt) {
  const TempDir folder;
  const std::string path = folder.file("uuid");
  std::vector<std::string> found(8);
  std::vector<std::thread> threads;
  for (std::string &uuid : found) threads.emplace_back([&] { uuid = load_or_make_check_uuid(path).text; });
  for (std::thread &thread : threads) thread.join();
  for (const std::string &uuid : found) EXPECT_EQ(uuid, found.front());
  EXPECT_EQ(found.front().size(), 36u);
}

TEST(CheckUuid, DefaultPathFollowsTheEnvironment) {
  setenv("HOME", "/home/u", 1);
  setenv("XDG_STATE_HOME", "/state", 1);
  EXPECT_EQ(default_check_uuid_path(), "/state/orlith/check_uuid");
  setenv("XDG_STATE_HOME", "relative", 1);  // to be ignored
  EXPECT_EQ(default_check_uuid_path(), "/home/u/.local/state/orlith/check_uuid");
  unsetenv("XDG_STATE_HOME");
  unsetenv("HOME");
  EXPECT_EQ(default_check_uuid_path(), "");
}

}  // namespace
