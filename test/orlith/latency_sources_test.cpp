#include "orlith/latency_sources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct MeasureLatency : testing::Test {
  // One operation takes this long of the test's clock.
  LatencySource source(uint64_t latency_ns, unsigned most) {
    return {"delay", most, [this, latency_ns](uint64_t *result) {
              clock.now_ns += latency_ns;
              *result = latency_ns;
              ++done;
              return true;
            }};
  }

  ManualClock clock;
  unsigned done = 0;
  std::vector<std::string> problems;
};

TEST_F(MeasureLatency, CountsEachOperationInSeconds) {
  const Histogram latencies = measure_latency(source(1500, 7), clock, 1'000'000, problems);
  EXPECT_EQ(hist_bucket_count(latencies.get()), 1);
  EXPECT_EQ(hist_count_at(latencies.get(), {15, -6}), 7U);  // 1.5e-6 s
  EXPECT_THAT(problems, IsEmpty());
}

TEST_F(MeasureLatency, EndsWithTheOperationThatPassesTheBudget) {
  measure_latency(source(400, 1000), clock, 1000, problems);
  EXPECT_EQ(done, 3U);
}

TEST_F(MeasureLatency, WithoutTimeNothingIsDone) {
  EXPECT_EQ(hist_sample_count(measure_latency(source(400, 1000), clock, 0, problems).get()), 0U);
  EXPECT_EQ(done, 0U);
}

TEST_F(MeasureLatency, KeepsWhatWasMeasuredBeforeAFailureAndNamesIt) {
  LatencySource failing = source(1000, 10);
  failing.measure = [&, good = failing.measure](uint64_t *result) {
    if (done < 4) return good(result);
    errno = EIO;
    return false;
  };
  EXPECT_EQ(hist_sample_count(measure_latency(failing, clock, 1'000'000, problems).get()), 4U);
  EXPECT_THAT(problems, ElementsAre("delay: Input/output error"));
}

TEST_F(MeasureLatency, AnInterruptIsNoFault) {
  LatencySource cut = source(1000, 10);
  cut.measure = [](uint64_t *) {
    errno = EINTR;
    return false;
  };
  EXPECT_EQ(hist_sample_count(measure_latency(cut, clock, 1'000'000, problems).get()), 0U);
  EXPECT_THAT(problems, IsEmpty());
}

TEST(HostLatencies, MeasuresSleepsAndPagesOfThisMachine) {
  std::vector<std::string> problems;
  std::vector<std::string> names;
  SystemClock clock;
  for (const LatencySource &source : host_latencies(problems)) {
    names.push_back(source.name);
    const Histogram latencies = measure_latency(source, clock, UINT64_MAX, problems);
    EXPECT_EQ(hist_sample_count(latencies.get()), source.most) << source.name;
    EXPECT_EQ(hist_number_count(latencies.get()), source.most) << source.name;
    EXPECT_EQ(hist_count_below(latencies.get(), 0), 0U) << source.name;
  }
  EXPECT_THAT(problems, IsEmpty());
  EXPECT_THAT(names,
              ElementsAre("scheduler_delay|ST[units:seconds]", "page_cache_latency|ST[op:read,units:seconds]",
                          "page_cache_latency|ST[op:write,units:seconds]"));
}

TEST(HostLatencies, LeavesNoFileBehind) {
  const TempDir folder;
  setenv("TMPDIR", folder.path().c_str(), 1);
  std::vector<std::string> problems;
  {
    const auto sources = host_latencies(problems);
    EXPECT_EQ(sources.size(), 3U);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  unsetenv("TMPDIR");
}

TEST(HostLatencies, ATemporaryFileThatCannotBeMadeIsAProblemAndSleepsAreLeft) {
  const TempDir folder;
  setenv("TMPDIR", folder.file("none").c_str(), 1);
  std::vector<std::string> problems;
  EXPECT_EQ(host_latencies(problems).size(), 1U);
  EXPECT_THAT(problems,
              ElementsAre("a temporary file in " + folder.file("none") + ": No such file or directory"));
  unsetenv("TMPDIR");
}

TEST(HostLatencies, AFullDiskIsAProblem) {
  std::vector<std::string> problems;
  const faults::Fail full(faults::Call::pwrite, ENOSPC);
  EXPECT_EQ(host_latencies(problems).size(), 1U);
  EXPECT_THAT(problems, ElementsAre(testing::EndsWith(": No space left on device")));
}

}  // namespace
