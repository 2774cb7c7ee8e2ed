// `orlith ingest` from lines to files, against a model that knows nothing of the library: it cuts lines at TABs,
// reads numbers with the C library, and keeps plain sums.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "liborlith/nnt/nnt.h"
#include "orlith/ingest_run.h"
#include "orlith/signals.h"
#include "test/orlith/ingest_fixture.h"
#include "test/support/line_fields.h"
#include "test/support/values.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

std::string line(uint64_t time_s, const std::string &name, const std::string &type,
                 const std::string &value) {
  return "M\t" + std::to_string(time_s) + ".250\t" + kCheck + "\t" + name + "\t" + type + "\t" + value + "\n";
}

struct Sum {
  uint64_t count = 0;
  double sum = 0;
};
using SlotSums = std::map<uint64_t, Sum>;            // by start second
using ModelFiles = std::map<std::string, SlotSums>;  // by "<period>/<check>/<name>.nnt"

ModelFiles model_of(const std::string &lines, const std::vector<uint64_t> &periods_s) {
  ModelFiles files;
  std::unordered_map<std::string, std::vector<SlotSums *>> by_name;  // one a period
  std::istringstream input(lines);
  std::string text;
  while (std::getline(input, text)) {
    const std::vector<std::string_view> fields = line_fields(text, true, 5);
    const std::string check(fields[1]), name(fields[2]);
    std::vector<SlotSums *> &slots = by_name[check + name];
    for (size_t i = slots.size(); i < periods_s.size(); ++i)
      slots.push_back(&files[std::to_string(periods_s[i]) + "/" + check + "/" + base64(name) + ".nnt"]);
    const uint64_t time_s = strtoull(fields[0].data(), nullptr, 10);
    for (size_t i = 0; i < periods_s.size(); ++i) {
      Sum &sum = (*slots[i])[time_s / periods_s[i] * periods_s[i]];
      ++sum.count;
      sum.sum += strtod(fields[4].data(), nullptr);
    }
  }
  return files;
}

void expect_file_holds(const std::string &path, const SlotSums &expected) {
  SCOPED_TRACE(path);
  nnt_handle *handle = nnt_open(path.c_str(), nullptr);
  ASSERT_NE(handle, nullptr);
  uint64_t epoch = 0, period = 0, apocalypse = 0;
  nnt_get_metadata(handle, &epoch, &period);
  ASSERT_EQ(nnt_get_apocalypse(handle, &apocalypse), 0);
  EXPECT_EQ(epoch, expected.begin()->first);
  EXPECT_EQ(apocalypse, expected.rbegin()->first + period);
  for (uint64_t at = epoch; at < apocalypse; at += period) {
    nnt_multitype value{};
    ASSERT_EQ(nnt_get(handle, at, &value), 1);
    const auto model = expected.find(at);
    if (model == expected.end()) {
      EXPECT_EQ(value.type, NNT_TYPE_ABSENT) << at;
      continue;
    }
    EXPECT_EQ(value.count, model->second.count) << at;
    const double mean = model->second.sum / static_cast<double>(model->second.count);
    EXPECT_NEAR(number_of(value), mean, 1e-9 * (1 + std::abs(mean))) << at;
  }
  nnt_close(handle);
}

void expect_folder_holds(const std::string &folder, const ModelFiles &expected) {
  std::vector<std::string> names;
  for (const auto &[name, slots] : expected) names.push_back(name);
  EXPECT_EQ(files_below(folder), names);
  for (const auto &[name, slots] : expected) expect_file_holds(folder + "/" + name, slots);
}

// Random samples: many metrics, all number types, gaps, and samples that come late.
std::string random_lines(std::mt19937 &random, int count, bool in_order) {
  std::string lines;
  for (int i = 0; i < count; ++i) {
    const uint64_t time_s =
        in_order ? 1'699'000'000 + static_cast<uint64_t>(i) * 7 : 1'699'000'000 + random() % 100'000;
    const std::string name =
        "metric" + std::to_string(random() % 9) + "|ST[a:1,host:h" + std::to_string(random() % 3) + "]";
    switch (random() % 5) {
      case 0:
        lines += line(time_s, name, "n", std::to_string(static_cast<int>(random() % 2000) - 1000) + ".5");
        break;
      case 1:
        lines += line(time_s, name, "L", std::to_string(random()));
        break;
      case 2:
        lines += line(time_s, name, "l", "-" + std::to_string(random()));
        break;
      case 3:
        lines += line(time_s, name, "I", std::to_string(random() % 100000));
        break;
      default:
        lines += line(time_s, name, "i", std::to_string(static_cast<int>(random() % 2000) - 1000));
        break;
    }
  }
  return lines;
}

using Ingest = IngestTest;

TEST_F(Ingest, StoresWhatAPlainModelCounts) {
  for (const bool in_order : {true, false}) {
    const auto seed = static_cast<unsigned>(in_order ? 11 : 12);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const std::string lines = random_lines(random, 3000, in_order);
    ToolSession tool;
    const std::string folder = dir_.file(in_order ? "ordered" : "shuffled");
    EXPECT_EQ(tool.run({"ingest", "--data", folder, "--period", "60", "--period", "300",
                        dir_.write("lines", lines)}),
              0)
        << tool.err.text;
    expect_folder_holds(folder, model_of(lines, {60, 300}));
  }
}

// A day of a host: its metrics every 8.64 seconds, counters that grow, gauges that move, a little late.
std::string a_day_of_lines(int rounds, int metrics) {
  std::mt19937 random(17);
  std::string lines;
  for (int round = 0; round < rounds; ++round) {
    for (int metric = 0; metric < metrics; ++metric) {
      const uint64_t time_s = 1'699'900'000 + static_cast<uint64_t>(round) * 864 / 100 - random() % 3;
      const std::string name =
          "metric" + std::to_string(metric / 4) + "|ST[cpu:" + std::to_string(metric % 4) + ",unit:s]";
      const std::string gauge = std::to_string(random() % 1000) + "." + std::to_string(random() % 10);
      const std::string counter = std::to_string(static_cast<uint64_t>(round) * 1000 + random() % 1000);
      lines += metric % 3 == 0 ? line(time_s, name, "n", gauge) : line(time_s, name, "L", counter);
    }
  }
  return lines;
}

TEST_F(Ingest, AMillionLinesOfADayAreStoredAndVerified) {
  const std::string lines = a_day_of_lines(10'000, 100);
  EXPECT_EQ(ingest({"--period", "60", "--period", "300", dir_.write("lines", lines)}), 0) << err();
  EXPECT_THAT(out(), HasSubstr("lines       1,000,000 in "));
  expect_folder_holds(data(), model_of(lines, {60, 300}));
  ToolSession verify;
  EXPECT_EQ(verify.run({"nnt", "verify", data()}), 0) << verify.err.text;
}

TEST_F(Ingest, CheckpointsOnTheWayChangeNothing) {
  std::mt19937 random(18);
  const std::string lines = random_lines(random, 2000, false);
  const LoneNode node;
  IngestOptions options = node.options(data());
  options.periods_s = {60, 300};
  options.max_open_slots = 100;
  IngestRun run(options);
  ASSERT_TRUE(run.open());
  LineReader reader({dir_.write("lines", lines)}, [] { return false; });
  EXPECT_EQ(run.run(reader, [] {}), IngestEnd::complete) << run.error();
  EXPECT_GT(run.totals().checkpoints, 10U);
  expect_folder_holds(data(), model_of(lines, {60, 300}));
}

TEST_F(Ingest, SeveralRunsAddUpLikeOne) {
  std::mt19937 random(13);
  std::string all;
  for (int run = 0; run < 4; ++run) {
    const std::string lines = random_lines(random, 500, false);
    all += lines;
    EXPECT_EQ(ingest({dir_.write("lines", lines)}), 0) << err();
  }
  expect_folder_holds(data(), model_of(all, {60}));
}

TEST_F(Ingest, KeepsOneTreeForEachOwner) {
  std::mt19937 random(14);
  const std::string lines = random_lines(random, 800, true);
  EXPECT_EQ(
      ingest({"--topology", dir_.write("t.xml", topology_text()), "--me", "all", dir_.write("lines", lines)}),
      0);
  const ModelFiles expected = model_of(lines, {60});
  std::map<std::string, int> copies;
  for (const std::string &node : kNodes) {
    for (const std::string &file : files_below(data() + "/" + node)) {
      ++copies[file];
      ASSERT_EQ(expected.count(file), 1U) << file;
      expect_file_holds(data() + "/" + node + "/" + file, expected.at(file));
    }
  }
  for (const auto &[file, slots] : expected) EXPECT_EQ(copies[file], 2) << file;
}

TEST_F(Ingest, KeepsOnlyWhatThisNodeOwns) {
  std::mt19937 random(15);
  const std::string lines = dir_.write("lines", random_lines(random, 800, true));
  const std::string topology = dir_.write("t.xml", topology_text());
  EXPECT_EQ(ingest({"--topology", topology, "--me", "all", lines}), 0);
  ToolSession one;
  EXPECT_EQ(one.run({"ingest", "--data", dir_.file("one"), "--topology", topology, "--me", kNodes[1], lines}),
            0);
  EXPECT_EQ(files_below(dir_.file("one")), files_below(data() + "/" + kNodes[1]));
  EXPECT_THAT(one.out.text, HasSubstr("(not me)"));
}

TEST_F(Ingest, MoreNodesThanOneNeedToBeToldApart) {
  const std::string topology = dir_.write("t.xml", topology_text());
  const std::string lines = dir_.write("lines", line(kNow_s, "a", "n", "1"));
  EXPECT_EQ(ingest({"--topology", topology, lines}), exit_usage);
  EXPECT_EQ(err(), "orlith ingest: error: " + topology +
                       ": has 3 nodes; say which one this is with --me UUID, or --me all\n");
}

TEST_F(Ingest, ANodeIsFoundByItsIdInEitherCase) {
  std::string upper = kNodes[0];
  upper[1] = 'A';
  const std::string topology = dir_.write("t.xml", topology_text());
  EXPECT_EQ(ingest({"--topology", topology, "--me", upper, dir_.write("lines", "")}), 0) << err();
}

TEST_F(Ingest, WhatIsNoIdIsAUsageError) {
  const std::string topology = dir_.write("t.xml", topology_text());
  EXPECT_EQ(ingest({"--topology", topology, "--me", "node1", dir_.write("lines", "")}), exit_usage);
  EXPECT_EQ(err(), "orlith ingest: error: --me: found 'node1', expected a node's UUID, or all\n");
}

TEST_F(Ingest, AnUnknownNodeIsNotFound) {
  const std::string topology = dir_.write("t.xml", topology_text());
  EXPECT_EQ(ingest({"--topology", topology, "--me", kCheck, dir_.write("lines", "")}), exit_not_found);
  EXPECT_THAT(err(), HasSubstr("--me '" + kCheck + "': the topology has no such node"));
}

TEST_F(Ingest, MissingInputsAreNamedBeforeAnythingIsWritten) {
  const std::string lines = dir_.write("lines", line(kNow_s, "a", "n", "1"));
  EXPECT_EQ(ingest({lines, dir_.file("missing")}), exit_not_found);
  EXPECT_EQ(err(), "orlith ingest: error: " + dir_.file("missing") + ": No such file or directory\n");
  EXPECT_FALSE(fs::exists(data()));
}

TEST_F(Ingest, ABadTopologyIsTheCompilersMessage) {
  const std::string topology = dir_.write("t.xml", "<nodes write_copies=\"2\"><node id=\"x\"/></nodes>");
  EXPECT_EQ(ingest({"--topology", topology, "--me", "all", dir_.write("lines", "")}), exit_damaged);
  EXPECT_THAT(err(), HasSubstr(topology));
}

TEST_F(Ingest, CountsRefusedLinesByReasonWithTheFirstOfEach) {
  const std::string good = line(kNow_s - 100, "a", "n", "1");
  const std::string lines = good + "X\t1\t" + kCheck + "\ta\tn\t1\n" + "no tab at all\n" +
                            "M\t1\tshort\ta\tn\t1\n" + line(kNow_s - 100, "b\x01", "n", "1") +
                            line(kNow_s - 100, "b\x02", "n", "1") + line(kNow_s - 100, "c", "q", "1") +
                            line(kNow_s - 100, "c", "n", "one") + line(kNow_s - 100, "c", "I", "5000000000") +
                            line(kNow_s + 700, "c", "n", "1") + "\n" + "M\tsoon\t" + kCheck + "\tc\tn\t1\n";
  const std::string file = dir_.write("lines", lines);
  EXPECT_EQ(ingest({file}), exit_damaged);
  expect_folder_holds(data(), model_of(good, {60}));
  EXPECT_THAT(out(), HasSubstr("refused     10 lines"));
  EXPECT_THAT(out(), HasSubstr("first " + file + ":2: 'X\\t1\\t"));
  EXPECT_THAT(out(), HasSubstr("2  the metric name is refused: "));
  EXPECT_THAT(out(), HasSubstr("first " + file + ":5: "));
  EXPECT_THAT(out(), HasSubstr("1  lies further in the future than --future-bound allows"));
  EXPECT_THAT(out(), HasSubstr("1  the value does not fit its type"));
  EXPECT_THAT(out(), HasSubstr("1  the timestamp is not a number of seconds"));
  EXPECT_EQ(out().find('\x01'), std::string::npos);
}

TEST_F(Ingest, ANulByteNeverReachesTheLocator) {
  const std::string good = line(kNow_s, "a", "n", "1");
  std::string bad = line(kNow_s, "a_b", "n", "2");
  bad[bad.find('_')] = '\0';
  std::string in_value = line(kNow_s, "a", "n", "2_5");
  in_value[in_value.find('_')] = '\0';
  std::string at_end = line(kNow_s, "a", "n", "2_");
  at_end[at_end.find('_')] = '\0';
  const std::string alone = std::string(1, '\0') + "\n";
  EXPECT_EQ(ingest({dir_.write("lines", bad + good + in_value + at_end + alone)}), exit_damaged);
  expect_folder_holds(data(), model_of(good, {60}));
  EXPECT_THAT(out(), HasSubstr("4  holds a NUL byte"));
}

TEST_F(Ingest, ThePastIsWelcomeAndTheFutureBounded) {
  const std::string early = line(3, "a", "n", "1");
  const std::string ahead = line(kNow_s + 599, "a", "n", "1");
  EXPECT_EQ(ingest({"--period", "86400", dir_.write("ahead", ahead)}), 0) << out();
  EXPECT_EQ(ingest({"--period", "86400", dir_.write("early", early)}), 0);
  expect_folder_holds(data(), model_of(ahead + early, {86400}));
  EXPECT_EQ(ingest({"--future-bound", "10", dir_.write("late", line(kNow_s + 60, "a", "n", "1"))}),
            exit_damaged);
}

TEST_F(Ingest, TheFutureBoundMovesWithTheClock) {
  const LoneNode node;
  IngestOptions options = node.options(data());
  uint64_t now_ms = 1'000'000;
  options.now_ms = [&] { return now_ms += 60'000; };  // a minute passes from look to look
  options.future_bound_ms = 10'000;
  IngestRun run(options);
  ASSERT_TRUE(run.open());
  std::string lines;
  for (uint64_t time_s = 1000; time_s < 10'000; time_s += 30) lines += line(time_s, "a", "n", "1");
  lines += line(1'000'000, "a", "n", "1");
  LineReader reader({dir_.write("lines", lines)}, [] { return false; });
  EXPECT_EQ(run.run(reader, [] {}), IngestEnd::complete) << run.error();
  EXPECT_EQ(run.totals().samples, 300U);
  EXPECT_EQ(run.totals().refused, 1U);
}

TEST_F(Ingest, TimesThatNoFileCanHoldAreRefusedWhateverTheBound) {
  const std::string last = line(4'999'999'999, "a", "n", "1");
  const std::string lines =
      last + line(5'000'000'000, "a", "n", "1") + line(18446744073709552, "a", "n", "1");
  EXPECT_EQ(ingest({"--future-bound", "1099511627776", dir_.write("lines", lines)}), exit_damaged) << err();
  expect_folder_holds(data(), model_of(last, {60}));
  EXPECT_THAT(out(), HasSubstr("2  lies further in the future"));
}

TEST_F(Ingest, APipeThatFallsSilentIsStoredUpToThere) {
  const LoneNode node;
  IngestOptions options = node.options(data());
  options.pipe_checkpoint_interval_s = 0;
  IngestRun run(options);
  ASSERT_TRUE(run.open());
  const std::string pipe = dir_.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int fd = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
  const std::string lines = line(kNow_s, "a", "n", "1") + "M\t17";
  ASSERT_EQ(write(fd, lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  LineReader reader({pipe}, [] { return false; });
  bool stored_while_open = false;
  const IngestEnd end = run.run(reader, [&] {
    if (run.totals().checkpoints == 0) return;
    stored_while_open = files_below(data()).size() == 1 && run.stored_up_to().line == 1;
    close(fd);
  });
  EXPECT_EQ(end, IngestEnd::complete);
  EXPECT_TRUE(stored_while_open);
  EXPECT_EQ(run.totals().refused, 1U) << "the line that the pipe's end cut";
}

TEST_F(Ingest, AFolderAsInputIsToldBeforeAnythingIsWritten) {
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "a", "n", "1")), dir_.path()}), exit_failed);
  EXPECT_EQ(err(), "orlith ingest: error: " + dir_.path() + ": Is a directory\n");
  EXPECT_FALSE(fs::exists(data()));
}

TEST_F(Ingest, AnInterruptedRunSaysHowFarItCame) {
  set_interrupted(true);
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "a", "n", "1"))}), exit_interrupted);
  set_interrupted(false);
  EXPECT_EQ(
      err(),
      "orlith ingest: error: interrupted; nothing of the input was stored; to finish, the same input can be "
      "given again\n");
  EXPECT_THAT(out(), HasSubstr("stored      nothing\n"));
}

TEST_F(Ingest, ALineOfUnknownTypeMakesNoMetric) {
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "a", "h", "1"))}), exit_damaged);
  EXPECT_THAT(out(), HasSubstr("metrics     0 numeric, 0 text"));
}

// Runs the program itself with a limit on the size of files, as a shell would set it.
TEST_F(Ingest, AFileSizeLimitIsAFailedWriteAndNothingIsLeft) {
  std::string lines;
  for (uint64_t slot = 0; slot < 1000; ++slot) lines += line(60 * slot, "a", "n", "1");
  const std::string command = "ulimit -f 8; '" ORLITH_BINARY "' ingest --data '" + data() + "' '" +
                              dir_.write("lines", lines) + "' >/dev/null 2>'" + dir_.file("err") + "'";
  const int status = system(command.c_str());
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == exit_failed) << status;
  EXPECT_THAT(dir_.read("err"), HasSubstr(".nnt: cannot be written: File too large"));
  EXPECT_THAT(dir_.read("err"), HasSubstr("nothing of the input was stored"));
  EXPECT_TRUE(files_below(data()).empty());
}

TEST_F(Ingest, TextsAreCountedApartAndTheLatestIsShown) {
  const std::string lines = line(kNow_s - 5, "os", "s", "newer") + line(kNow_s - 9, "os", "s", "older") +
                            line(kNow_s, "cpu", "n", "1") + line(kNow_s, "os", "s", "[[null]]");
  EXPECT_EQ(ingest({"--json", dir_.write("lines", lines)}), 0);
  EXPECT_THAT(out(), HasSubstr("\"text_samples\":2"));
  EXPECT_THAT(out(), HasSubstr("\"null_samples\":1"));
  EXPECT_THAT(out(), HasSubstr("\"text\":\"newer\""));
  EXPECT_EQ(files_below(data()).size(), 1U);
}

TEST_F(Ingest, NullSamplesLeaveNoSlot) {
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "a", "n", "[[null]]"))}), 0);
  EXPECT_TRUE(files_below(data()).empty());
}

TEST_F(Ingest, ReadsTheSourceFieldWhenAsked) {
  const std::string lines = "M\tagent-1\t" + std::to_string(kNow_s) + "\t" + kCheck + "\ta\tn\t1\n";
  EXPECT_EQ(ingest({"--with-source", dir_.write("lines", lines)}), 0) << out();
  EXPECT_EQ(files_below(data()).size(), 1U);
}

TEST_F(Ingest, DifferentSpellingsOfOneNameAreOneMetric) {
  const std::string one = line(kNow_s, "a|ST[x:1,y:2]", "n", "1");
  const std::string other = line(kNow_s, "a|ST[y:2,x:1]|MT{z:3}", "L", "3");
  EXPECT_EQ(ingest({dir_.write("lines", one + other)}), 0);
  EXPECT_EQ(files_below(data()),
            std::vector<std::string>{"60/" + kCheck + "/" + base64("a|ST[x:1,y:2]") + ".nnt"});
}

TEST_F(Ingest, TheLongestNamesHaveAPlace) {
  const std::string name(4095, 'n');
  const std::string lines = dir_.write("lines", line(kNow_s, name, "n", "1"));
  EXPECT_EQ(ingest({lines}), 0) << err() << out();
  EXPECT_EQ(ingest({lines}), 0) << "and it is found again";
  EXPECT_THAT(out(), HasSubstr("1 written, 0 of them new"));
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, name + "n", "n", "1"))}), exit_damaged);
  EXPECT_THAT(out(), HasSubstr("longer than 4095 bytes in canonical form"));
}

TEST_F(Ingest, AFileOfAnotherPeriodStopsTheRunAndSaysWhereTheInputIsStored) {
  const std::string file = "60/" + kCheck + "/" + base64("a") + ".nnt";
  fs::create_directories(fs::path(data() + "/" + file).parent_path());
  ASSERT_EQ(nnt_create(nullptr, (data() + "/" + file).c_str(), 300, 300, 0600), 0);
  EXPECT_EQ(ingest({dir_.write("lines", line(kNow_s, "b", "n", "1") + line(kNow_s, "a", "n", "1"))}),
            exit_failed);
  EXPECT_THAT(err(), HasSubstr(data() + "/" + file + ": holds slots of 300 s instead of 60 s"));
  EXPECT_THAT(err(), HasSubstr("nothing of the input was stored"));
  EXPECT_EQ(files_below(data()), std::vector<std::string>{file})
      << "the other metric's file is taken back too";
}

TEST_F(Ingest, JsonIsOneDocumentThatSaysHowFarTheInputIsStored) {
  const std::string lines = line(kNow_s, "a", "n", "1") + line(kNow_s, "a", "n", "2");
  const std::string file = dir_.write("lines", lines);
  EXPECT_EQ(ingest({"--json", file}), 0);
  ruxo_json_object *document = ruxo_json_parse(out().c_str());
  ASSERT_NE(document, nullptr) << out();
  const ruxo_json_object *stored = ruxo_json_object_get(document, "stored_up_to", nullptr);
  EXPECT_EQ(ruxo_json_int(ruxo_json_object_get(stored, "line", nullptr)), 2);
  EXPECT_EQ(ruxo_json_int(ruxo_json_object_get(stored, "byte", nullptr)), static_cast<int64_t>(lines.size()));
  EXPECT_TRUE(ruxo_json_boolean(ruxo_json_object_get(document, "complete", nullptr)));
  ruxo_json_free(document);
}

TEST_F(Ingest, RandomBytesAreRefusedLineByLine) {
  std::mt19937 random(16);
  std::string bytes;
  for (int i = 0; i < 200'000; ++i)
    bytes += random() % 3 == 0 ? "M\t\n1."[random() % 5] : static_cast<char>(random());
  const int code = ingest({"--json", dir_.write("noise", bytes)});
  EXPECT_TRUE(code == exit_damaged) << code;
}

}  // namespace
