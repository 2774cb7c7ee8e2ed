// `orlith hist`, from the argument to the screen. The texts of histograms are written by hand: doc/histogram.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "orlith/histogram_series_file.h"
#include "orlith/histogram_value.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/temp_dir.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

const std::string kCheck = "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66";
const std::string kOneOneTwoTwos = "aBACCsABCgI=";  // 1 once, 2 twice
const std::string kEmpty = "aBAA";

std::string line(const std::string &time, const std::string &name, const std::string &value) {
  return "H\t" + time + "\t" + kCheck + "\t" + name + "\t" + value + "\n";
}

struct HistShow : testing::Test {
  int show(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"hist", "show"});
    return tool.run(arguments);
  }
  std::string write_series(const std::string &name) {
    const HistogramSeries series(histogram_series_alloc(0, 60'000));
    for (const uint64_t time_ms : {0U, 10'000U, 30'000U}) {
      histogram_series_add(series.get(), time_ms, histogram_of_text(kOneOneTwoTwos).release(), true);
    }
    return folder.write(name, image_of_series(series.get()));
  }

  TempDir folder;
  ToolSession tool;
};

TEST_F(HistShow, DrawsTheTextOfAHistogram) {
  EXPECT_EQ(show({kOneOneTwoTwos, "--width", "40"}), 0) << tool.err.text;
  EXPECT_EQ(tool.out.text,
            "histogram\n"
            "3 values in 1 sample; mean 1.717, from 1 to 2.1\n"
            "p50 2.05   p90 2.05   p99 2.05   p99.9 2.05\n"
            "1 to 1.1 | 1 ##############\n"
            ":        |\n"
            "2 to 2.1 | 2 ###########################\n");
}

TEST_F(HistShow, DrawsALineWithItsMetricAndTime) {
  std::string text = line("1700000000.5", "latency|ST[b:2,a:1]", kOneOneTwoTwos);
  text.pop_back();
  EXPECT_EQ(show({text, "--quantile", "0", "--quantile", "1"}), 0) << tool.err.text;
  EXPECT_THAT(tool.out.text, StartsWith(kCheck + "-latency|ST[a:1,b:2]  2023-11-14T22:13:20Z\n"
                                                 "3 values in 1 sample; mean 1.717, from 1 to 2.1\n"
                                                 "p0 1.05   p100 2.05\n"));
}

TEST_F(HistShow, DrawsBlocksOnATerminalOfUtf8AndAsciiOnDemand) {
  tool.session.terminal.utf8 = true;
  EXPECT_EQ(show({kOneOneTwoTwos}), 0);
  EXPECT_THAT(tool.out.text, HasSubstr("│ 1 █"));
  ToolSession ascii;
  ascii.session.terminal.utf8 = true;
  EXPECT_EQ(ascii.run({"hist", "show", kOneOneTwoTwos, "--ascii"}), 0);
  EXPECT_THAT(ascii.out.text, HasSubstr("| 1 #"));
}

TEST_F(HistShow, BarsKeepToTheTerminalsHeight) {
  const Histogram many = new_histogram();
  for (int i = 1; i < 5000; ++i) hist_insert(many.get(), i, 1);
  tool.session.terminal.rows = 20;
  EXPECT_EQ(show({text_of_histogram(many.get())}), 0);
  EXPECT_LE(std::count(tool.out.text.begin(), tool.out.text.end(), '\n'), 20);
  EXPECT_THAT(tool.out.text, HasSubstr("4,999 values"));
}

TEST_F(HistShow, MergesTheLinesOfEachMetricAndPassesOverOtherLines) {
  const std::string file = folder.write("lines", line("100", "b", kOneOneTwoTwos) + "M\t1\t" + kCheck +
                                                     "\ta\tn\t1\n\n" + line("90", "a", kOneOneTwoTwos) +
                                                     line("160", "b", kOneOneTwoTwos) + line("170", "b", ""));
  EXPECT_EQ(show({file}), 0) << tool.err.text;
  EXPECT_THAT(tool.out.text, StartsWith(kCheck + "-b  1970-01-01T00:01:40Z to 1970-01-01T00:02:40Z\n"
                                                 "6 values in 2 samples, 1 null; mean 1.717"));
  EXPECT_THAT(tool.out.text, HasSubstr("\n\n" + kCheck + "-a  1970-01-01T00:01:30Z\n3 values in 1 sample;"));
}

TEST_F(HistShow, ReadsTheSourceFieldWhenAsked) {
  const std::string file =
      folder.write("lines", "H\tagent\t100\t" + kCheck + "\ta\t" + kOneOneTwoTwos + "\n");
  EXPECT_EQ(show({file, "--with-source"}), 0) << tool.err.text;
  EXPECT_THAT(tool.out.text, StartsWith(kCheck + "-a  1970"));
  EXPECT_EQ(show({file}), exit_damaged);
}

TEST_F(HistShow, AtShowsTheLastSampleThatIsNotLater) {
  const std::string file =
      folder.write("lines", line("100", "a", kOneOneTwoTwos) + line("200.75", "a", kEmpty) +
                                line("300", "a", kOneOneTwoTwos));
  EXPECT_EQ(show({file, "--at", "200"}), 0) << tool.err.text;
  EXPECT_THAT(tool.out.text, AllOf(HasSubstr("1970-01-01T00:03:20Z\n"), HasSubstr("0 values in 1 sample\n")));
  EXPECT_EQ(show({file, "--at", "99"}), exit_not_found);
  EXPECT_THAT(tool.err.text, HasSubstr(file + ": there is no histogram at or before 1970-01-01T00:01:39Z"));
  EXPECT_EQ(show({file, "--at", "noon"}), exit_usage);
}

TEST_F(HistShow, AtLeavesOutWhatIsNullLater) {
  const std::string file = folder.write("lines", line("300", "a", ""));
  EXPECT_EQ(show({file, "--at", "200"}), exit_not_found);
  ToolSession later;
  EXPECT_EQ(later.run({"hist", "show", file, "--at", "300"}), 0) << later.err.text;
  EXPECT_THAT(later.out.text, HasSubstr("0 values in 0 samples, 1 null"));
}

TEST_F(HistShow, MergesTheEntriesOfASeriesFile) {
  const std::string file = write_series("0.hss");
  EXPECT_EQ(show({file}), 0) << tool.err.text;
  EXPECT_THAT(tool.out.text, StartsWith(file + "  1970-01-01T00:00:00Z to 1970-01-01T00:00:30Z\n"
                                               "9 values in 3 samples; mean 1.717, from 1 to 2.1\n"));
  ToolSession at;
  EXPECT_EQ(at.run({"hist", "show", file, "--at", "29"}), 0);
  EXPECT_THAT(at.out.text, HasSubstr("  1970-01-01T00:00:10Z\n3 values in 1 sample"));
}

TEST_F(HistShow, ADamagedSeriesFileIsDamage) {
  const std::string file = write_series("0.hss");
  std::filesystem::resize_file(file, std::filesystem::file_size(file) - 5);
  EXPECT_EQ(show({file}), exit_damaged);
  EXPECT_EQ(tool.err.text,
            "orlith hist show: error: " + file + ": is no histogram series, or a damaged one\n");
  EXPECT_EQ(tool.out.text, "");
}

TEST_F(HistShow, BadLinesAreNamedAndTheOthersShown) {
  const std::string file = folder.write(
      "lines", line("100", "a", "nonsense") + line("100", "a", kOneOneTwoTwos) +
                   line("x", "a", kOneOneTwoTwos) + "X\t1\t" + kCheck + "\ta\t" + kOneOneTwoTwos + "\n");
  EXPECT_EQ(show({file}), exit_damaged);
  EXPECT_THAT(tool.err.text,
              StartsWith("orlith hist show: error: " + file + ":1: the value is no histogram: 'H\\t100\\t"));
  EXPECT_THAT(tool.err.text, HasSubstr(file + ": 2 more lines are left out\n"));
  EXPECT_THAT(tool.out.text, HasSubstr("3 values in 1 sample"));
}

TEST_F(HistShow, EveryPlaceWhereALineMayEndIsToldApart) {
  const std::pair<std::string, std::string> lines[] = {
      {"H\t5", "ends after the timestamp: no TAB before a check"},
      {"H\t5\t" + kCheck, "ends after the check: no TAB before a name"},
      {"H\t5\t" + kCheck + "\ta", "ends after the name: no TAB before a histogram"},
      {"H\t5\tshort\ta\t" + kOneOneTwoTwos, "the check field is shorter than a UUID"},
      {"H\t5\t" + std::string(36, 'z') + "\ta\t" + kOneOneTwoTwos, "the check field does not end in a UUID"},
      {"H\t5\t" + kCheck + "\ta\x01\t" + kOneOneTwoTwos, "the metric name is refused"},
      {"H\t5 \t" + kCheck + "\ta\t" + kOneOneTwoTwos, "the timestamp is not a number of seconds"},
      {"H\t5\t" + kCheck + "\ta\t" + kOneOneTwoTwos + "=", "the value is no histogram"},
      {"H\t5\t" + kCheck + "\ta\taBE=", "the value is no histogram"},
  };
  for (const auto &[text, what] : lines) {
    ToolSession one;
    EXPECT_EQ(one.run({"hist", "show", text}), exit_damaged) << text;
    EXPECT_THAT(one.err.text, HasSubstr(": " + what + "\n"));
    EXPECT_EQ(one.out.text, "");
  }
}

TEST_F(HistShow, ADifferenceIsNoHistogram) {
  const Histogram a = histogram_of_text(kOneOneTwoTwos), b = new_histogram();
  hist_insert(b.get(), 1, 5);
  const histogram_t *const source = b.get();
  ASSERT_EQ(hist_subtract_as_int64(a.get(), &source, 1), 0);
  EXPECT_EQ(show({text_of_histogram(a.get())}), exit_damaged);
}

TEST_F(HistShow, DamagedTextsAndMissingFilesAreToldApart) {
  EXPECT_EQ(show({kOneOneTwoTwos.substr(1)}), exit_not_found);
  EXPECT_EQ(show({kOneOneTwoTwos.substr(0, 11)}), exit_damaged);
  EXPECT_EQ(show({folder.file("missing")}), exit_not_found);
  EXPECT_THAT(tool.err.text,
              HasSubstr("missing': No such file, and neither a histogram line nor a histogram"));
  EXPECT_EQ(show({folder.path()}), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr("Is a directory"));
  EXPECT_EQ(show({folder.write("none", "M\t1\n\n")}), exit_not_found);
  EXPECT_THAT(tool.err.text, HasSubstr("none: there is no histogram\n"));
}

TEST_F(HistShow, JsonHasAllBuckets) {
  const std::string file = folder.write("lines", line("100", "a", kOneOneTwoTwos));
  EXPECT_EQ(show({"--json", file, "--quantile", "0.5"}), 0);
  EXPECT_EQ(tool.out.text,
            "[{\"metric\":\"" + kCheck +
                "-a\",\"first\":100,\"last\":100,\"samples\":1,\"null_samples\":0,\"count\":3,\"numbers\":3,"
                "\"mean\":1.7166666666666666,\"stddev\":0.47140452079103157,\"lower\":1.0,\"upper\":2.1,"
                "\"quantiles\":[{\"quantile\":0.5,\"value\":2.05}],"
                "\"buckets\":[{\"lower\":1.0,\"upper\":1.1,\"count\":1},{\"lower\":2.0,\"upper\":2.1,"
                "\"count\":2}]}]\n");
}

TEST_F(HistShow, JsonOfNothingCountedHasNulls) {
  EXPECT_EQ(show({"--json", "--quantile", "1", kEmpty}), 0);
  EXPECT_EQ(tool.out.text,
            "[{\"metric\":null,\"first\":null,\"last\":null,\"samples\":1,\"null_samples\":0,\"count\":0,"
            "\"numbers\":0,\"mean\":null,\"stddev\":null,\"lower\":null,\"upper\":null,"
            "\"quantiles\":[{\"quantile\":1.0,\"value\":null}],\"buckets\":[]}]\n");
}

TEST_F(HistShow, RefusesWhatIsNoQuantile) {
  for (const char *quantile : {"-0.1", "1.001", "nan", "inf", "x"}) {
    ToolSession one;
    EXPECT_EQ(one.run({"hist", "show", kOneOneTwoTwos, "--quantile", quantile}), exit_usage) << quantile;
  }
}

TEST(QuantileName, HasTheDigitsItNeeds) {
  EXPECT_EQ(quantile_name(0.5), "p50");
  EXPECT_EQ(quantile_name(0.999), "p99.9");
  EXPECT_EQ(quantile_name(0.99999), "p99.999");
  EXPECT_EQ(quantile_name(0.07), "p7");
}

}  // namespace
