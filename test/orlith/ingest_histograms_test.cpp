// `orlith ingest` with histogram lines, against a model that adds up buckets in plain maps.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "liborlith/util/histogram_series.h"
#include "orlith/histogram_slots.h"
#include "orlith/ingest_run.h"
#include "test/orlith/ingest_fixture.h"
#include "test/support/faults.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

// "latency" in base64, and the folder of its files.
const std::string kLatencyFolder = kCheck + "/bGF0ZW5jeQ==.hist/";

// A histogram as the tests think of it: counts by mantissa and exponent.
using Buckets = std::map<std::pair<int, int>, uint64_t>;

std::string text_of(const Buckets &buckets) {
  histogram_t *histogram = hist_alloc();
  for (const auto &[bucket, count] : buckets) {
    hist_insert_raw(histogram, {static_cast<int8_t>(bucket.first), static_cast<int8_t>(bucket.second)},
                    count);
  }
  std::string text(hist_serialized_b64_size(histogram), '\0');
  hist_serialize_b64(histogram, text.data(), text.size());
  hist_free(histogram);
  return text;
}

Buckets buckets_of(const histogram_t *histogram) {
  Buckets buckets;
  hist_bucket_t bucket;
  uint64_t count = 0;
  for (int i = 0; hist_bucket_at(histogram, i, &bucket, &count) == 0; ++i) {
    if (count > 0) buckets[{bucket.val, bucket.exp}] = count;
  }
  return buckets;
}

std::string line(uint64_t time_s, const std::string &name, const std::string &value) {
  return "H\t" + std::to_string(time_s) + ".250\t" + kCheck + "\t" + name + "\t" + value + "\n";
}

using Slots = std::map<uint64_t, Buckets>;     // by start, in milliseconds
using Windows = std::map<std::string, Slots>;  // by "<period>/.../<window start>.hss"

struct Sample {
  uint64_t time_s;
  std::string name;
  Buckets buckets;
};

// Periods of up to 2982 seconds: 1440 slots a window.
Windows model_of(const std::vector<Sample> &samples, const std::vector<uint64_t> &periods_s) {
  Windows windows;
  for (const Sample &sample : samples) {
    for (const uint64_t period_s : periods_s) {
      const uint64_t slot_s = sample.time_s / period_s * period_s;
      const uint64_t window_s = slot_s / (1440 * period_s) * (1440 * period_s);
      const std::string file = std::to_string(period_s) + "/" + kCheck + "/" + base64(sample.name) +
                               ".hist/" + std::to_string(window_s) + ".hss";
      Buckets &sum = windows[file][slot_s * 1000];
      for (const auto &[bucket, count] : sample.buckets) sum[bucket] += count;
    }
  }
  return windows;
}

std::string lines_of(const std::vector<Sample> &samples) {
  std::string lines;
  for (const Sample &sample : samples) lines += line(sample.time_s, sample.name, text_of(sample.buckets));
  return lines;
}

std::vector<Sample> random_samples(std::mt19937_64 &random, int count, uint64_t span_s) {
  std::vector<Sample> samples;
  for (int i = 0; i < count; ++i) {
    Sample sample{1'699'000'000 + random() % span_s, "metric" + std::to_string(random() % 5), {}};
    for (int k = static_cast<int>(random() % 20); k > 0; --k) {
      const int mantissa = static_cast<int>(random() % 90) + 10;
      sample.buckets[{random() % 10 == 0 ? -mantissa : mantissa, static_cast<int>(random() % 6) - 4}] =
          random() % 3 == 0 ? random() % 100'000 + 1 : random() % 4 + 1;
    }
    samples.push_back(sample);
  }
  return samples;
}

std::string bytes_of(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

Slots slots_in(const std::string &path) {
  const std::string bytes = bytes_of(path);
  histogram_series_t *series = histogram_series_deserialize(bytes.data(), bytes.size());
  Slots slots;
  if (series == nullptr) {
    ADD_FAILURE() << path << " is no series";
    return slots;
  }
  const auto take = [](uint64_t time_ms, histogram_t *histogram, void *closure) {
    EXPECT_NE(histogram, nullptr);
    (*static_cast<Slots *>(closure))[time_ms] = buckets_of(histogram);
    return true;
  };
  histogram_series_foreach(series, take, &slots);
  histogram_series_free(series);
  return slots;
}

void expect_folder_holds(const std::string &folder, const Windows &expected) {
  std::vector<std::string> names;
  for (const auto &[name, slots] : expected) names.push_back(name);
  EXPECT_EQ(files_below(folder), names);
  for (const auto &[name, slots] : expected) EXPECT_EQ(slots_in(folder + "/" + name), slots) << name;
}

using IngestHistograms = IngestTest;

TEST_F(IngestHistograms, StoresWhatAPlainModelCounts) {
  for (const unsigned seed : {31U, 32U, 33U}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const std::vector<Sample> samples = random_samples(random, 1500, 500'000);
    ToolSession tool;
    const std::string folder = dir_.file("seed" + std::to_string(seed));
    EXPECT_EQ(tool.run({"ingest", "--data", folder, "--period", "60", "--period", "300",
                        dir_.write("lines", lines_of(samples))}),
              0)
        << tool.err.text << tool.out.text;
    expect_folder_holds(folder, model_of(samples, {60, 300}));
  }
}

TEST_F(IngestHistograms, SeveralRunsAddUpLikeOne) {
  std::mt19937_64 random(34);
  std::vector<Sample> all;
  for (int run = 0; run < 4; ++run) {
    const std::vector<Sample> samples = random_samples(random, 200, 200'000);
    all.insert(all.end(), samples.begin(), samples.end());
    EXPECT_EQ(ingest({dir_.write("lines", lines_of(samples))}), 0) << err();
  }
  expect_folder_holds(data(), model_of(all, {60}));
}

// Runs over the lines with a checkpoint whenever so many buckets are open.
template <typename Check>
void run_with_checkpoints(const std::string &folder, const std::string &file, std::vector<uint32_t> periods_s,
                          size_t max_open_buckets, Check check) {
  const LoneNode node;
  IngestOptions options = node.options(folder);
  options.periods_s = std::move(periods_s);
  options.max_open_buckets = max_open_buckets;
  IngestRun run(options);
  ASSERT_TRUE(run.open());
  LineReader reader({file}, [] { return false; });
  EXPECT_EQ(run.run(reader, [] {}), IngestEnd::complete) << run.error();
  check(run);
}

TEST_F(IngestHistograms, CheckpointsOnTheWayChangeNothing) {
  std::mt19937_64 random(35);
  const std::vector<Sample> samples = random_samples(random, 600, 200'000);
  run_with_checkpoints(data(), dir_.write("lines", lines_of(samples)), {60, 300}, 1000,
                       [&](const IngestRun &run) {
                         EXPECT_GT(run.totals().checkpoints, 10U);
                         EXPECT_EQ(run.totals().histogram_samples, 600U);
                         EXPECT_EQ(run.totals().histogram_files, model_of(samples, {60, 300}).size());
                       });
  expect_folder_holds(data(), model_of(samples, {60, 300}));
}

TEST_F(IngestHistograms, AFullSlotRefusesMoreAlsoAfterACheckpoint) {
  const std::string most = line(60, "latency", text_of({{{11, 0}, UINT32_MAX - 1}}));
  const std::string one = line(60, "latency", text_of({{{11, 0}, 1}}));
  run_with_checkpoints(data(), dir_.write("lines", most + one + one), {60}, 1, [](const IngestRun &run) {
    EXPECT_GT(run.totals().checkpoints, 1U);
    EXPECT_EQ(run.totals().refused, 1U);
    EXPECT_EQ(run.totals().refusals[static_cast<size_t>(Refusal::count_too_large)].count, 1U);
  });
  const Slots expected = {{60'000, {{{11, 0}, UINT32_MAX}}}};
  EXPECT_EQ(slots_in(data() + "/60/" + kLatencyFolder + "0.hss"), expected);
}

TEST_F(IngestHistograms, BothKindsOfLinesComeInOneStream) {
  const std::string lines = "M\t" + std::to_string(kNow_s) + "\t" + kCheck + "\tlatency\tn\t1\n" +
                            line(kNow_s, "latency", text_of({{{10, 0}, 3}}));
  EXPECT_EQ(ingest({dir_.write("lines", lines)}), 0) << out();
  EXPECT_THAT(files_below(data()), ElementsAre("60/" + kLatencyFolder + "1699920000.hss",
                                               "60/" + kCheck + "/" + base64("latency") + ".nnt"));
  EXPECT_THAT(out(), HasSubstr("metrics     1 numeric, 0 text, 1 histogram\n"));
  EXPECT_THAT(out(), HasSubstr("histograms  1 series files, "));
}

TEST_F(IngestHistograms, KeepsOneTreeForEachOwner) {
  std::mt19937_64 random(36);
  const std::vector<Sample> samples = random_samples(random, 300, 100'000);
  EXPECT_EQ(ingest({"--topology", dir_.write("t.xml", topology_text()), "--me", "all",
                    dir_.write("lines", lines_of(samples))}),
            0);
  const Windows expected = model_of(samples, {60});
  std::map<std::string, int> copies;
  for (const std::string &node : kNodes) {
    for (const std::string &file : files_below(data() + "/" + node)) {
      ++copies[file];
      ASSERT_EQ(expected.count(file), 1U) << file;
      EXPECT_EQ(slots_in(data() + "/" + node + "/" + file), expected.at(file));
    }
  }
  for (const auto &[file, slots] : expected) EXPECT_EQ(copies[file], 2) << file;
  ToolSession one;
  EXPECT_EQ(one.run({"ingest", "--data", dir_.file("one"), "--topology", dir_.file("t.xml"), "--me",
                     kNodes[1], dir_.file("lines")}),
            0);
  EXPECT_EQ(files_below(dir_.file("one")), files_below(data() + "/" + kNodes[1]));
}

TEST_F(IngestHistograms, ReadsTheSourceFieldWhenAsked) {
  const std::string lines =
      "H\tagent\t" + std::to_string(kNow_s) + "\t" + kCheck + "\tlatency\t" + text_of({{{10, 0}, 3}}) + "\n";
  EXPECT_EQ(ingest({"--with-source", dir_.write("lines", lines)}), 0) << out();
  EXPECT_EQ(files_below(data()).size(), 1U);
}

TEST_F(IngestHistograms, EveryFirstFieldThatBeginsWithHIsAHistogramLine) {
  std::string text = line(kNow_s, "latency", text_of({{{10, 0}, 3}}));
  text.insert(1, "1");
  EXPECT_EQ(ingest({dir_.write("lines", text)}), 0) << out();
  EXPECT_EQ(files_below(data()).size(), 1U);
}

TEST_F(IngestHistograms, AnEmptyTextIsANullSample) {
  EXPECT_EQ(ingest({"--json", dir_.write("lines", line(kNow_s, "latency", ""))}), 0);
  EXPECT_THAT(out(), HasSubstr("\"null_samples\":1"));
  EXPECT_THAT(files_below(data()), IsEmpty());
}

TEST_F(IngestHistograms, AHistogramOfNothingIsASampleAllTheSame) {
  EXPECT_EQ(ingest({dir_.write("lines", line(60, "latency", text_of({})))}), 0);
  EXPECT_EQ(slots_in(data() + "/60/" + kLatencyFolder + "0.hss"), (Slots{{60'000, {}}}));
}

TEST_F(IngestHistograms, CountsRefusedLinesByReasonWithTheFirstOfEach) {
  const std::string good = line(kNow_s, "latency", text_of({{{10, 0}, 3}}));
  const std::string value = text_of({{{10, 0}, 1}});
  std::string with_nul = line(kNow_s, "late_cy", value);
  with_nul[with_nul.find('_')] = '\0';
  const std::string lines = good + line(kNow_s, "latency", "none") + line(kNow_s, "latency", value + "\r") +
                            line(kNow_s + 700, "latency", value) + line(kNow_s, "b\x01", value) +
                            "H\t5\tshort\ta\t" + value + "\n" + "H\t5\t" + std::string(36, 'q') + "\ta\t" +
                            value + "\n" + "H\tsoon\t" + kCheck + "\ta\t" + value + "\n" + "H\t5\t" + kCheck +
                            "\ta\n" + "H\t5\t" + kCheck + "\n" + "H\t5\n" + "H\n" + with_nul +
                            line(kNow_s, "latency", text_of({{{11, 0}, uint64_t{1} << 32}}));
  const std::string file = dir_.write("lines", lines);
  EXPECT_EQ(ingest({file}), exit_damaged);
  EXPECT_EQ(slots_in(data() + "/60/" + kLatencyFolder + "1699920000.hss"),
            (Slots{{1'699'999'980'000, {{{10, 0}, 3}}}}));
  EXPECT_THAT(out(), HasSubstr("refused     13 lines"));
  EXPECT_THAT(out(), HasSubstr("2  the value is no histogram\n             first " + file + ":2: 'H\\t"));
  for (const char *reason :
       {"lies further in the future than --future-bound allows", "the metric name is refused: ",
        "the check field is shorter than a UUID", "the check field does not end in a UUID",
        "the timestamp is not a number of seconds", "ends after the name: no TAB before a histogram",
        "ends after the check: no TAB before a name", "ends after the timestamp: no TAB before a check",
        "has no TAB before a timestamp", "holds a NUL byte", "a count of the slot would pass 4294967295"}) {
    EXPECT_THAT(out(), HasSubstr(std::string("1  ") + reason)) << reason;
  }
}

TEST_F(IngestHistograms, ASlotCountsUpToTheLargestThatAFileHolds) {
  const std::string most = line(60, "latency", text_of({{{11, 0}, UINT32_MAX}, {{12, 0}, 7}}));
  const std::string one_more = line(60, "latency", text_of({{{11, 0}, 1}}));
  EXPECT_EQ(ingest({dir_.write("lines", most + one_more)}), exit_damaged);
  const std::string file = "60/" + kLatencyFolder + "0.hss";
  const Slots expected = {{60'000, {{{11, 0}, UINT32_MAX}, {{12, 0}, 7}}}};
  EXPECT_EQ(slots_in(data() + "/" + file), expected);
  EXPECT_EQ(ingest({dir_.write("lines", one_more)}), exit_failed) << "the file is full";
  EXPECT_THAT(err(), HasSubstr(file + ": cannot count beyond 4294967295 in one bucket"));
  EXPECT_EQ(slots_in(data() + "/" + file), expected);
}

TEST_F(IngestHistograms, LateSamplesFindTheirWindow) {
  const std::vector<Sample> samples = {{1'699'999'000, "latency", {{{10, 0}, 1}}},
                                       {86'399, "latency", {{{10, 0}, 2}}},
                                       {0, "latency", {{{10, 0}, 3}}},
                                       {86'400, "latency", {{{10, 0}, 4}}}};
  EXPECT_EQ(ingest({dir_.write("lines", lines_of(samples))}), 0);
  expect_folder_holds(data(), model_of(samples, {60}));
  EXPECT_EQ(files_below(data()).size(), 3U);
}

TEST_F(IngestHistograms, LongPeriodsHaveWindowsThatASeriesCanHold) {
  // The longest of 1440 slots, one more second, the last that a window can hold two slots of, longer than a window.
  const std::pair<uint32_t, uint64_t> windows_s[] = {{2982, 2982 * 1440},    {2983, 2983 * 1439},
                                                     {86400, 86400 * 49},    {2'147'483, 4'294'966},
                                                     {4'294'967, 4'294'967}, {31'622'400, 86'400}};
  for (const auto &[period_s, window_s] : windows_s) {
    EXPECT_EQ(histogram_window_s(period_s), window_s) << period_s;
    const std::string period = std::to_string(period_s);
    ToolSession tool;
    EXPECT_EQ(tool.run({"ingest", "--data", data(), "--period", period,
                        dir_.write("lines", line(1'699'999'999, "latency", text_of({{{10, 0}, 1}})))}),
              0)
        << tool.err.text;
    const uint64_t slot_s = 1'699'999'999 / period_s * period_s;
    const std::string file =
        data() + "/" + period + "/" + kLatencyFolder + std::to_string(slot_s / window_s * window_s) + ".hss";
    EXPECT_EQ(slots_in(file), (Slots{{slot_s * 1000, {{{10, 0}, 1}}}}));
  }
}

TEST_F(IngestHistograms, TheLongestNamesHaveAPlace) {
  const std::string name(4095, 'n');
  const std::string lines = dir_.write("lines", line(kNow_s, name, text_of({{{10, 0}, 1}})));
  EXPECT_EQ(ingest({lines}), 0) << err() << out();
  EXPECT_EQ(ingest({lines}), 0) << "and it is found again";
  EXPECT_THAT(out(), HasSubstr("1 written, 0 of them new"));
}

TEST_F(IngestHistograms, DifferentSpellingsOfOneNameAreOneMetric) {
  const std::string value = text_of({{{10, 0}, 1}});
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "a|ST[x:1,y:2]", value) +
                                            line(kNow_s, "a|ST[y:2,x:1]|MT{z:3}", value))}),
            0);
  const std::string file = data() + "/60/" + kCheck + "/" + base64("a|ST[x:1,y:2]") + ".hist/1699920000.hss";
  EXPECT_EQ(slots_in(file), (Slots{{1'699'999'980'000, {{{10, 0}, 2}}}}));
}

TEST_F(IngestHistograms, TheSummaryTellsCountsAndQuantiles) {
  const std::string lines = line(kNow_s, "latency", text_of({{{10, 0}, 98}, {{20, 1}, 2}}));
  EXPECT_EQ(ingest({dir_.write("lines", lines)}), 0);
  EXPECT_THAT(out(), HasSubstr("\nhistograms\n  " + kCheck +
                               "-latency\n           100 values  p50 1.05  p99 20.5\n"));
  EXPECT_THAT(out(), HasSubstr("samples     0, and 1 histograms\n"));
  EXPECT_EQ(ingest({"--json", dir_.file("lines")}), 0);
  EXPECT_THAT(out(), HasSubstr("\"histograms\":[{\"metric\":\"" + kCheck +
                               "-latency\",\"count\":100,\"p50\":1.05,\"p99\":20.5}]"));
  EXPECT_THAT(out(), HasSubstr("\"histogram_samples\":1"));
  EXPECT_THAT(out(), HasSubstr("\"histogram_metrics\":1"));
  EXPECT_THAT(out(), HasSubstr("\"histogram_files\":{\"written\":1,\"bytes\":"));
}

TEST_F(IngestHistograms, TheSummaryIsBoundedHoweverManyMetricsThereAre) {
  std::string lines;
  for (int i = 0; i < 12; ++i) lines += line(kNow_s, "m" + std::to_string(i), text_of({{{10, 0}, 1}}));
  EXPECT_EQ(ingest({dir_.write("lines", lines)}), 0);
  EXPECT_THAT(out(), HasSubstr("-m9\n"));
  EXPECT_THAT(out(), Not(HasSubstr("-m10\n")));
  EXPECT_THAT(out(), HasSubstr("  and more; 'orlith hist show' draws any\n"));
}

TEST_F(IngestHistograms, TheSummaryOfNothingCountedHasNoQuantiles) {
  EXPECT_EQ(ingest({dir_.write("lines", line(60, "latency", text_of({})) + line(60, "null", ""))}), 0);
  EXPECT_THAT(out(),
              HasSubstr("-latency\n             0 values\n  " + kCheck + "-null\n             0 values\n"));
}

// ---- files in the way, and failing disks

TEST_F(IngestHistograms, ADamagedFileStopsTheRunAndStaysAsItIs) {
  const std::string lines = dir_.write(
      "lines", line(60, "latency", text_of({{{10, 0}, 1}})) + line(60, "other", text_of({{{10, 0}, 1}})));
  EXPECT_EQ(ingest({lines}), 0);
  const std::string file = data() + "/60/" + kLatencyFolder + "0.hss";
  const std::string other = data() + "/60/" + kCheck + "/" + base64("other") + ".hist/0.hss";
  const std::string other_bytes = bytes_of(other);
  const std::string whole = bytes_of(file);
  for (const std::string &damaged :
       {whole.substr(0, whole.size() - 4), std::string("no series"), std::string()}) {
    std::ofstream(file, std::ios::binary) << damaged;
    EXPECT_EQ(ingest({lines}), exit_failed);
    EXPECT_THAT(err(), HasSubstr(file + ": is no histogram series, or a damaged one; move it away to go on"));
    EXPECT_THAT(err(), HasSubstr("nothing of the input was stored"));
    EXPECT_EQ(bytes_of(file), damaged);
    EXPECT_EQ(bytes_of(other), other_bytes);
    EXPECT_EQ(files_below(data()).size(), 2U);
  }
}

TEST_F(IngestHistograms, AFileOfAnotherWindowStopsTheRun) {
  const std::string lines = dir_.write("lines", line(60, "latency", text_of({{{10, 0}, 1}})));
  EXPECT_EQ(ingest({lines}), 0);
  const std::string folder = data() + "/60/" + kLatencyFolder;
  fs::rename(folder + "0.hss", folder + "86400.hss");
  EXPECT_EQ(ingest({dir_.write("later", line(86'400, "latency", text_of({{{10, 0}, 1}})))}), exit_failed);
  EXPECT_THAT(err(), HasSubstr("86400.hss: covers 86400000 ms from 0 ms instead of 86400 s from 86400 s"));
  EXPECT_EQ(slots_in(folder + "86400.hss"), (Slots{{60'000, {{{10, 0}, 1}}}}));
}

TEST_F(IngestHistograms, AFolderInTheWayIsNamed) {
  fs::create_directories(data() + "/60/" + kLatencyFolder + "0.hss");
  EXPECT_EQ(ingest({dir_.write("lines", line(60, "latency", text_of({{{10, 0}, 1}})))}), exit_failed);
  EXPECT_THAT(err(), HasSubstr("0.hss: is no regular file"));
}

TEST_F(IngestHistograms, RightsOfAReplacedFileStay) {
  const std::string lines = dir_.write("lines", line(60, "latency", text_of({{{10, 0}, 1}})));
  EXPECT_EQ(ingest({lines}), 0);
  const std::string file = data() + "/60/" + kLatencyFolder + "0.hss";
  fs::permissions(file, fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(ingest({lines}), 0);
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// Whatever call fails, at whatever use: the folder is as it was, or as it was to be, file by file and as a whole.
TEST_F(IngestHistograms, EveryFailingCallLeavesTheFolderAsItWasOrAsItWasToBe) {
  using faults::Call;
  const std::vector<Sample> first = {{60, "latency", {{{10, 0}, 1}}}, {60, "other", {{{10, 0}, 1}}}};
  const std::vector<Sample> second = {
      {60, "latency", {{{11, 0}, 1}}}, {86'400, "latency", {{{11, 0}, 1}}}, {120, "other", {{{11, 0}, 1}}}};
  std::vector<Sample> both = first;
  both.insert(both.end(), second.begin(), second.end());
  int failures = 0;
  for (const Call call :
       {Call::open, Call::pread, Call::pwrite, Call::fstat, Call::rename, Call::link, Call::syncfs}) {
    for (int use = 1; use < 30; ++use) {
      SCOPED_TRACE(std::to_string(static_cast<int>(call)) + " use " + std::to_string(use));
      fs::remove_all(data());
      ASSERT_EQ(ingest({dir_.write("first", lines_of(first))}), 0);
      const std::string lines = dir_.write("second", lines_of(second));
      int code = 0;
      bool hit = false;
      {
        const faults::Fail fault(call, EIO, use, 1);
        code = ingest({lines});
        hit = fault.hit();
      }
      if (!hit) break;
      if (code != 0) ++failures;
      // The index comes behind the samples, and says so when it fails.
      const bool is_stored = code == 0 || err().find("the samples are stored") != std::string::npos;
      expect_folder_holds(data(), model_of(is_stored ? both : first, {60}));
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(failures, 20);
}

TEST_F(IngestHistograms, CopiesLeftByAKilledProcessAreReplaced) {
  const std::vector<Sample> samples = {{60, "latency", {{{10, 0}, 1}}}};
  const std::string lines = dir_.write("lines", lines_of(samples));
  EXPECT_EQ(ingest({lines}), 0);
  for (const char *suffix : {".new", ".old"})
    std::ofstream(data() + "/60/" + kLatencyFolder + "0.hss" + suffix) << "half of a";
  EXPECT_EQ(ingest({lines}), 0) << err();
  expect_folder_holds(data(), model_of({samples[0], samples[0]}, {60}));
}

// The run holds its open slots only: many empty histograms are no way around the bound.
TEST(HistogramSlots, EverySlotWeighsSomething) {
  HistogramSlots slots(60);
  histogram_t *empty = hist_alloc(), *one = hist_alloc();
  hist_insert(one, 1, 1);
  EXPECT_EQ(slots.fold(0, empty), HistogramSlots::kSlotWeight);
  EXPECT_EQ(slots.fold(59'999, empty), 0U);
  EXPECT_EQ(slots.fold(1000, one), 1U);
  EXPECT_EQ(slots.fold(60'000, one), HistogramSlots::kSlotWeight + 1);
  EXPECT_EQ(slots.slots().size(), 2U);
  EXPECT_EQ(slots.close_all(), 1U);
  EXPECT_TRUE(slots.slots().empty());
  EXPECT_EQ(slots.fold(120'000, one), HistogramSlots::kSlotWeight + 1);
  EXPECT_EQ(slots.close_all(), 0U) << "of a window that was written before";
  hist_free(empty);
  hist_free(one);
}

TEST_F(IngestHistograms, ShortWritesAreGoneOnWith) {
  const std::vector<Sample> samples = {{60, "latency", {{{10, 0}, 1}, {{13, 3}, 9}}}};
  const faults::Short slow(faults::Call::pwrite, 3);
  EXPECT_EQ(ingest({dir_.write("lines", lines_of(samples))}), 0) << err();
  expect_folder_holds(data(), model_of(samples, {60}));
  EXPECT_TRUE(slow.hit());
}

TEST_F(IngestHistograms, AFileSizeLimitIsAFailedWriteAndNothingIsLeft) {
  std::mt19937_64 random(37);
  Buckets many;
  for (int mantissa = 10; mantissa < 100; ++mantissa)
    for (int exponent = -50; exponent < 50; ++exponent) many[{mantissa, exponent}] = random() % UINT32_MAX;
  const std::string command = "ulimit -f 8; '" ORLITH_BINARY "' ingest --data '" + data() + "' '" +
                              dir_.write("lines", line(60, "latency", text_of(many))) + "' >/dev/null 2>'" +
                              dir_.file("err") + "'";
  const int status = system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exit_failed) << status;
  EXPECT_THAT(dir_.read("err"), HasSubstr(".hss: cannot be written: File too large"));
  EXPECT_THAT(files_below(data()), IsEmpty());
}

}  // namespace
