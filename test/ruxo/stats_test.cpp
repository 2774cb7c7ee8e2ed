#include "ruxo/stats.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::HasSubstr;

// All of the text, or the part about one metric.
std::string text_of(const std::string &metric = "") {
  size_t len = 0;
  char *const text = stats_prometheus_text(&len);
  const std::string whole(text, len);
  EXPECT_EQ(text[len], '\0');
  free(text);
  if (metric.empty()) return whole;
  const std::string begin = "# HELP " + metric + " ";
  const size_t from = whole.find(begin);
  if (from == std::string::npos) return "(none)";
  return whole.substr(from, whole.find("# HELP ", from + 1) - from);
}

// A namespace of each test's own: what is registered stays.
stats_ns_t *ns(const char *name) {
  return stats_ns_get(nullptr, name);
}

}  // namespace

TEST(Stats, ACounterCounts) {
  stats_handle_t *const counter =
      stats_register(ns("count"), "requests", nullptr, STATS_TYPE_COUNTER, "what came in");
  stats_add(counter, 2);
  stats_add(counter, 40);
  EXPECT_EQ(stats_count(counter), 42U);
  EXPECT_EQ(stats_value(counter), 0.0);
  EXPECT_EQ(text_of("count_requests_total"),
            "# HELP count_requests_total what came in\n"
            "# TYPE count_requests_total counter\n"
            "count_requests_total 42\n");
}

TEST(Stats, AGaugeIsSet) {
  stats_handle_t *const gauge = stats_register(ns("gauge"), "level", nullptr, STATS_TYPE_GAUGE, nullptr);
  const auto written_as = [&](double value) {
    stats_set(gauge, value);
    const std::string text = text_of("gauge_level");
    return text.substr(text.rfind(' ') + 1);
  };
  EXPECT_EQ(written_as(0.1), "0.1\n");
  EXPECT_EQ(stats_value(gauge), 0.1);
  EXPECT_EQ(written_as(-3), "-3\n");
  EXPECT_EQ(written_as(1e300), "1e+300\n");
  EXPECT_EQ(written_as(std::nan("")), "NaN\n");
  EXPECT_EQ(written_as(HUGE_VAL), "+Inf\n");
  EXPECT_EQ(written_as(-HUGE_VAL), "-Inf\n");
  EXPECT_THAT(text_of("gauge_level"),
              HasSubstr("# HELP gauge_level gauge_level\n# TYPE gauge_level gauge\n"));
}

TEST(Stats, ALatencyIsCountedInBuckets) {
  stats_handle_t *const latency =
      stats_register(ns("took"), "get", "path=/x", STATS_TYPE_LATENCY, "how long");
  for (const double seconds : {0.0005, 0.0006, 0.25, 60.0, 61.0, -1.0}) stats_observe(latency, seconds);
  for (const double none : {std::nan(""), HUGE_VAL}) stats_observe(latency, none);
  EXPECT_EQ(stats_count(latency), 6U);
  EXPECT_DOUBLE_EQ(stats_value(latency), 121.2511);
  const std::string text = text_of("took_get_seconds");
  EXPECT_THAT(text,
              testing::StartsWith("# HELP took_get_seconds how long\n# TYPE took_get_seconds histogram\n"
                                  "took_get_seconds_bucket{path=\"/x\",le=\"0.0005\"} 2\n"
                                  "took_get_seconds_bucket{path=\"/x\",le=\"0.001\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("le=\"0.1\"} 3\n"));
  EXPECT_THAT(text, HasSubstr("le=\"0.25\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("le=\"30\"} 4\n"));
  EXPECT_THAT(text, HasSubstr("le=\"60\"} 5\n"));
  EXPECT_THAT(text, HasSubstr("le=\"+Inf\"} 6\ntook_get_seconds_sum{path=\"/x\"} 121.2511"));
  EXPECT_THAT(text, testing::EndsWith("\ntook_get_seconds_count{path=\"/x\"} 6\n"));
}

TEST(Stats, ANameWithItsLabelsIsOneHandle) {
  stats_ns_t *const one = ns("same");
  stats_handle_t *const plain = stats_register(one, "hits", nullptr, STATS_TYPE_COUNTER, "first");
  EXPECT_EQ(stats_register(one, "hits", "", STATS_TYPE_COUNTER, "second"), plain);
  stats_handle_t *const labelled = stats_register(one, "hits", "b=2,a=1", STATS_TYPE_COUNTER, nullptr);
  EXPECT_NE(labelled, plain);
  EXPECT_EQ(stats_register(one, "hits", "a=1,b=2", STATS_TYPE_COUNTER, nullptr), labelled);
  EXPECT_EQ(stats_ns_get(nullptr, "same"), one);
  EXPECT_NE(stats_ns_get(one, "same"), one);
  EXPECT_EQ(stats_register(nullptr, "same_hits_total", nullptr, STATS_TYPE_COUNTER, nullptr), plain);
  EXPECT_EQ(text_of("same_hits_total"),
            "# HELP same_hits_total first\n# TYPE same_hits_total counter\n"
            "same_hits_total 0\nsame_hits_total{a=\"1\",b=\"2\"} 0\n");
}

TEST(Stats, NamespacesLieInOneAnother) {
  stats_add(stats_register(stats_ns_get(ns("outer"), "inner"), "n", nullptr, STATS_TYPE_COUNTER, "h"), 1);
  EXPECT_THAT(text_of("outer_inner_n_total"), HasSubstr("\nouter_inner_n_total 1\n"));
}

TEST(Stats, EndingsAreAddedOnlyWhereTheyAreMissing) {
  stats_register(ns("ends"), "a_total", nullptr, STATS_TYPE_COUNTER, "h");
  stats_register(ns("ends"), "b_seconds", nullptr, STATS_TYPE_LATENCY, "h");
  EXPECT_NE(text_of("ends_a_total"), "(none)");
  EXPECT_NE(text_of("ends_b_seconds"), "(none)");
}

TEST(Stats, AnotherTypeOfTheSameNameIsRefused) {
  stats_ns_t *const one = ns("types");
  ASSERT_NE(stats_register(one, "x_total", nullptr, STATS_TYPE_COUNTER, "h"), nullptr);
  EXPECT_EQ(stats_register(one, "x_total", "a=1", STATS_TYPE_GAUGE, "h"), nullptr);
  EXPECT_EQ(stats_register(one, "y", nullptr, static_cast<stats_type_t>(3), "h"), nullptr);
}

TEST(Stats, BadNamesAndLabelsAreRefused) {
  for (const char *name : {"", "1a", "a-b", "a b", "\xc3\xa4", "a:b"}) {
    EXPECT_EQ(stats_ns_get(nullptr, name), nullptr) << name;
    EXPECT_EQ(stats_register(nullptr, name, nullptr, STATS_TYPE_COUNTER, "h"), nullptr) << name;
  }
  EXPECT_EQ(stats_ns_get(nullptr, nullptr), nullptr);
  for (const char *labels :
       {"a", "=1", "a=1,", ",", "a=1,,b=2", "1=a", "a-b=1", "a=1,a=2", "le=1", "__a=1", "a=\xff"})
    EXPECT_EQ(stats_register(ns("bad"), "n", labels, STATS_TYPE_COUNTER, "h"), nullptr) << labels;
  EXPECT_EQ(text_of("bad_n_total"), "(none)");
}

TEST(Stats, ValuesOfLabelsAndHelpAreEscaped) {
  stats_register(ns("esc"), "n", "a=\\ \" \n =,b=", STATS_TYPE_COUNTER, "one \\ \"two\"\nthree \xff");
  EXPECT_EQ(text_of("esc_n_total"),
            "# HELP esc_n_total one \\\\ \"two\"\\nthree \xef\xbf\xbd\n# TYPE esc_n_total counter\n"
            "esc_n_total{a=\"\\\\ \\\" \\n =\",b=\"\"} 0\n");
}

TEST(Stats, AGaugeCanBeAsked) {
  static double level = 1.5;  // as long as the gauge
  const auto read = [](void *closure) { return *static_cast<double *>(closure); };
  stats_handle_t *const gauge = stats_register_callback(ns("asked"), "level", nullptr, read, &level, "h");
  ASSERT_NE(gauge, nullptr);
  EXPECT_EQ(stats_value(gauge), 1.5);
  level = 2.5;
  stats_set(gauge, 7);
  EXPECT_THAT(text_of("asked_level"), HasSubstr("\nasked_level 2.5\n"));
  EXPECT_EQ(stats_register_callback(ns("asked"), "level", nullptr, read, &level, "h"), gauge);
  EXPECT_EQ(stats_register_callback(ns("asked"), "level", nullptr, read, nullptr, "h"), nullptr);
  EXPECT_EQ(stats_register(ns("asked"), "level", nullptr, STATS_TYPE_GAUGE, "h"), nullptr);
  EXPECT_EQ(stats_register_callback(ns("asked"), "none", nullptr, nullptr, nullptr, "h"), nullptr);
}

TEST(Stats, NullAndOtherTypesAreIgnored) {
  stats_handle_t *const counter = stats_register(ns("ign"), "c", nullptr, STATS_TYPE_COUNTER, "h");
  stats_handle_t *const gauge = stats_register(ns("ign"), "g", nullptr, STATS_TYPE_GAUGE, "h");
  for (stats_handle_t *const handle : {counter, static_cast<stats_handle_t *>(nullptr)}) {
    stats_set(handle, 1);
    stats_observe(handle, 1);
  }
  stats_add(nullptr, 1);
  stats_add(gauge, 1);
  EXPECT_EQ(stats_count(counter), 0U);
  EXPECT_EQ(stats_count(gauge), 0U);
  EXPECT_EQ(stats_count(nullptr), 0U);
  EXPECT_EQ(stats_value(nullptr), 0.0);
}

TEST(Stats, ThreadsAddUp) {
  stats_handle_t *const counter = stats_register(ns("many"), "c", nullptr, STATS_TYPE_COUNTER, "h");
  stats_handle_t *const latency = stats_register(ns("many"), "l", nullptr, STATS_TYPE_LATENCY, "h");
  std::vector<std::thread> threads;
  for (int t = 0; t < 12; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < 1000; ++n) {
        stats_add(stats_register(ns("many"), "c", nullptr, STATS_TYPE_COUNTER, "h"), 1);
        stats_observe(latency, 0.5);
        if (n % 250 == 0) text_of();
        if (n % 100 == 0)
          stats_register(ns("many"), "made", ("t=" + std::to_string(t * 10000 + n)).c_str(), STATS_TYPE_GAUGE,
                         "h");
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(stats_count(counter), 12000U);
  EXPECT_EQ(stats_count(latency), 12000U);
  EXPECT_DOUBLE_EQ(stats_value(latency), 6000.0);
}

// What a collector expects of any text: names in one block each, buckets that only grow, the last one the count.
TEST(Stats, TheTextIsWellFormed) {
  stats_observe(stats_register(ns("form"), "b", "x=1", STATS_TYPE_LATENCY, "h"), 3);
  stats_add(stats_register(ns("form"), "a", nullptr, STATS_TYPE_COUNTER, "h"), 1);
  std::map<std::string, int> blocks;
  std::istringstream lines(text_of());
  std::string line, metric;
  uint64_t last_bucket = 0;
  bool saw_bucket = false;
  while (std::getline(lines, line)) {
    if (line.starts_with("# HELP ")) {
      metric = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_EQ(++blocks[metric], 1) << line;
      ASSERT_TRUE(std::getline(lines, line) && line.starts_with("# TYPE " + metric + " ")) << line;
      last_bucket = 0;
      continue;
    }
    EXPECT_TRUE(line.starts_with(metric)) << line;
    if (!line.starts_with(metric + "_bucket")) continue;
    const uint64_t count = std::stoull(line.substr(line.rfind(' ') + 1));
    EXPECT_GE(count, last_bucket) << line;
    last_bucket = count;
    saw_bucket = true;
    if (line.find("le=\"+Inf\"") != std::string::npos) {
      last_bucket = 0;
      std::string sum, total;
      std::getline(lines, sum);
      std::getline(lines, total);
      EXPECT_THAT(sum, testing::StartsWith(metric + "_sum"));
      EXPECT_EQ(total.substr(total.rfind(' ') + 1), std::to_string(count));
    }
  }
  EXPECT_TRUE(saw_bucket);
  EXPECT_GE(blocks.size(), 2U);
}
