// `orlith find` on data folders that the test lays out by hand.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "orlith/data_path.h"
#include "orlith/metric_index.h"
#include "test/orlith/index_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
const std::string kOther = "6f2d1c66-9d0e-4c35-8a35-0123456789ac";

struct Find : testing::Test {
  TempDir folder;
  const std::string data = folder.file("data"), index = data + "/metrics.index";
  std::string out, err;

  Find() {
    put(kCheck, "cpu|ST[core:1,host:a]");
    put(kCheck, "cpu|ST[core:2,host:a]");
    put(kCheck, "cpu_frequency");
    put(kOther, "cpu|ST[core:1,host:b]");
    put(kOther, "disk [1]|ST[url:http://a/]");
  }
  static std::string path_of(const std::string &check, const std::string &name) {
    return "60/" + metric_file_path(check, encoded_name(name));
  }
  void put(const std::string &check, const std::string &name) {
    const std::string path = data + "/" + path_of(check, name);
    fs::create_directories(fs::path(path).parent_path());
    folder.write("data/" + path_of(check, name), "");
  }
  int run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"find", data});
    ToolSession tool;
    const int code = tool.run(arguments);
    out = tool.out.text;
    err = tool.err.text;
    return code;
  }
  // The names found, in order, each with the first character of its check's last one.
  std::vector<std::string> names(const std::vector<std::string> &words) {
    std::vector<std::string> arguments = words;
    arguments.insert(arguments.begin(), "--jsonl");
    EXPECT_NE(run(arguments), exit_usage) << err;
    std::vector<std::string> found;
    static const std::string before = "\"metric_name\":\"";
    for (size_t at = out.find(before); at != std::string::npos; at = out.find(before, at + 1)) {
      const size_t begin = at + before.size();
      found.push_back(out.substr(begin, out.find('"', begin) - begin));
    }
    return found;
  }
  void build() {
    ToolSession tool;
    ASSERT_EQ(tool.run({"index", "build", data}), exit_fine) << tool.err.text;
    stamp(1000);
  }
  void stamp(int seconds) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) + seconds, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, index.c_str(), times, 0), 0);
  }
};

using Names = std::vector<std::string>;

TEST_F(Find, WordsArePartsPatternsAndTags) {
  build();
  EXPECT_EQ(names({}).size(), 5u);
  EXPECT_EQ(names({"cpu"}).size(), 4u);
  EXPECT_EQ(names({"freq"}), Names{"cpu_frequency"});
  EXPECT_EQ(names({"cpu", "freq"}), Names{"cpu_frequency"});
  EXPECT_EQ(names({"CPU"}), Names());
  EXPECT_EQ(names({"cpu*y"}), Names{"cpu_frequency"});
  EXPECT_EQ(names({"cp?"}).size(), 3u);
  EXPECT_EQ(names({"p*"}), Names());
  EXPECT_EQ(names({"*core?2*"}), Names{"cpu|ST[core:2,host:a]"});
  EXPECT_EQ(names({"core:1"}), (Names{"cpu|ST[core:1,host:a]", "cpu|ST[core:1,host:b]"}));
  EXPECT_EQ(names({"host:a", "core:1"}), Names{"cpu|ST[core:1,host:a]"});
  EXPECT_EQ(names({"host:a,core:1"}), Names{"cpu|ST[core:1,host:a]"});
  EXPECT_EQ(names({"freq", "core:1"}), Names());
  EXPECT_EQ(names({"url:http://a/"}), Names{"disk [1]|ST[url:http://a/]"});
  EXPECT_EQ(names({"url:http"}), Names());
  EXPECT_EQ(err, "orlith find: error: " + data + ": no metric is like that\n");
}

TEST_F(Find, NamesWithTheirTagsAreNoTags) {
  build();
  EXPECT_EQ(names({"cpu|ST[core:1,host:a]"}), Names{"cpu|ST[core:1,host:a]"});
  EXPECT_EQ(names({"cpu|ST[core:?,host:a]"}).size(), 2u);
  EXPECT_EQ(names({"disk [1]*"}), Names{"disk [1]|ST[url:http://a/]"});
  EXPECT_EQ(names({"--name", "http:", "--name", "disk"}), Names{"disk [1]|ST[url:http://a/]"});
  EXPECT_EQ(names({"-n", "e:1"}).size(), 2u);
}

TEST_F(Find, ACheckNarrowsTheSearch) {
  build();
  EXPECT_EQ(names({"--check", kOther}).size(), 2u);
  EXPECT_EQ(names({"--check", kOther, "cpu"}), Names{"cpu|ST[core:1,host:b]"});
  EXPECT_EQ(names({"--check", "6F2D1C66-9d0e-4c35-8a35-0123456789ac", "core:1"}),
            Names{"cpu|ST[core:1,host:b]"});
  EXPECT_EQ(run({"--check", "x"}), exit_usage);
  EXPECT_EQ(err, "orlith find: error: --check: found 'x', expected a UUID\n");
}

TEST_F(Find, ShowsMetricCheckPeriodAndFile) {
  build();
  EXPECT_EQ(run({"freq"}), exit_fine);
  const std::string path = data + "/" + path_of(kCheck, "cpu_frequency");
  EXPECT_THAT(out, HasSubstr("cpu_frequency " + kCheck + "     60 rollup " + path + "\n"));
  EXPECT_EQ(run({"--json", "freq"}), exit_fine);
  EXPECT_EQ(
      out,
      "[{\"key\":\"" + kCheck + "-cpu_frequency\",\"check_uuid\":\"" + kCheck +
          "\",\"metric_name\":\"cpu_frequency\",\"files\":[{\"node\":null,\"period\":60,\"kind\":\"rollup\","
          "\"path\":\"" +
          path + "\"}]}]\n");
  EXPECT_EQ(err, "");
}

TEST_F(Find, NothingFoundIsSaidAndCounted) {
  build();
  EXPECT_EQ(run({"none"}), exit_not_found);
  EXPECT_EQ(out, "");
  EXPECT_EQ(run({"--json", "none"}), exit_not_found);
  EXPECT_EQ(out, "[]\n");
  EXPECT_EQ(run({"--jsonl", "none"}), exit_not_found);
  EXPECT_EQ(out, "");
}

TEST_F(Find, WhatIsNoTagIsAUsageError) {
  EXPECT_EQ(run({":b"}), exit_usage);
  EXPECT_EQ(
      err,
      "orlith find: error: ':b' is no tag category:value: a category is empty; for a part of a name give it "
      "with --name\n");
}

TEST_F(Find, WithoutAnIndexTheFolderIsLookedThrough) {
  EXPECT_EQ(names({"core:1"}).size(), 2u);
  EXPECT_EQ(err, "orlith find: " + data +
                     ": has no index; looking through the folder ('orlith index build' makes one)\n");
  EXPECT_FALSE(fs::exists(index));
}

TEST_F(Find, AnOldIndexIsNotBelieved) {
  build();
  put(kCheck, "new|ST[core:1]");
  stamp(-1000);
  EXPECT_EQ(names({"core:1"}).size(), 3u);
  EXPECT_EQ(err, "orlith find: " + index +
                     ": older than the folder; looking through the folder ('orlith index build' brings it up "
                     "to date)\n");
  // A current one is.
  stamp(1000);
  EXPECT_EQ(names({"core:1"}).size(), 2u);
  EXPECT_EQ(err, "");
}

TEST_F(Find, ADamagedIndexIsToldAndNotUsed) {
  folder.write("data/metrics.index", "ART");
  EXPECT_EQ(names({"core:1"}).size(), 2u);
  EXPECT_EQ(err, "orlith find: warning: " + index +
                     ": 3 bytes, expected an index of 80 or more; looking through the "
                     "folder ('orlith index build' brings it up to date)\n");
  // Damage that shows only on the way.
  IndexModel model;
  const uint64_t metric = model.leaf(kCheck + "-x", 1 << 20);
  folder.write("data/metrics.index", model.finish(metric, 1, 0, 0, 0, "60\n"));
  stamp(1000);
  EXPECT_EQ(names({"cpu"}).size(), 4u);
  EXPECT_THAT(err,
              HasSubstr(index + ": leaf at offset 8: its files at offset 1048576 are not within the first "));
}

TEST_F(Find, AFolderThatIsNotThereIsNamed) {
  ToolSession tool;
  EXPECT_EQ(tool.run({"find", folder.file("none"), "x"}), exit_not_found);
  EXPECT_EQ(tool.err.text, "orlith find: error: " + folder.file("none") + ": No such file or directory\n");
}

}  // namespace
