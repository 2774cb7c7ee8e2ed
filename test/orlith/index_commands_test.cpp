// The commands around indexes, as a user calls them, on a data folder that the test lays out by hand.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "orlith/signals.h"
#include "test/orlith/index_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::EndsWith;
using testing::HasSubstr;

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
const std::string kCpu = kCheck + "/Y3B1fFNUW2E6MSxiOjJd";  // cpu|ST[a:1,b:2]
const std::string kMem = kCheck + "/bWVtfFNUW2E6MV0=";      // mem|ST[a:1]

struct IndexCommands : testing::Test {
  TempDir folder;
  const std::string data = folder.file("data"), index = folder.file("i.index");
  std::string out, err;

  IndexCommands() {
    for (const std::string &path : {"60/" + kCpu + ".nnt", "300/" + kCpu + ".nnt", "60/" + kMem + ".nnt"})
      put(path);
    fs::create_directories(data + "/60/" + kMem + ".hist");
  }
  void put(const std::string &path) {
    fs::create_directories(fs::path(data + "/" + path).parent_path());
    folder.write("data/" + path, "");
  }
  int run(const std::vector<std::string> &arguments) {
    ToolSession tool;
    const int code = tool.run(arguments);
    out = tool.out.text;
    err = tool.err.text;
    return code;
  }
  void build() { ASSERT_EQ(run({"index", "build", data, "-o", index}), exit_fine) << err; }
};

TEST_F(IndexCommands, BuildTellsWhatItFound) {
  put("60/" + kCheck + "/readme");
  build();
  const std::string size = std::to_string(fs::file_size(index));
  EXPECT_EQ(out, index + ": 2 metrics, 2 tags, 4 files, " + size + " bytes; 1 passed over\n");
  EXPECT_EQ(run({"index", "build", data, "-o", index, "--json"}), exit_fine);
  EXPECT_EQ(out, "{\"data\":\"" + data + "\",\"output\":\"" + index +
                     "\",\"metrics\":2,\"tags\":2,\"files\":4,\"passed_over\":1,\"bytes\":" + size + "}\n");
}

TEST_F(IndexCommands, BuildWritesTheFoldersOwnIndexUnlessToldOtherwise) {
  EXPECT_EQ(run({"index", "build", data + "/"}), exit_fine);
  EXPECT_TRUE(out.starts_with(data + "/metrics.index: 2 metrics")) << out;
  EXPECT_EQ(run({"index", "verify", data + "/metrics.index"}), exit_fine);
}

TEST_F(IndexCommands, AFailedBuildLeavesTheOldIndexAndNothingElse) {
  build();
  const std::string before = folder.read("i.index");
  put("60/" + kCheck + "/Y3B1.nnt");
  for (const faults::Call call : {faults::Call::pwritev, faults::Call::fdatasync, faults::Call::rename}) {
    const faults::Fail fails(call, ENOSPC);
    EXPECT_EQ(run({"index", "build", data, "-o", index}), exit_failed);
    EXPECT_EQ(err, "orlith index build: error: " + index + ": cannot be written: No space left on device\n");
  }
  EXPECT_EQ(folder.read("i.index"), before);
  EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator()), 2);
}

TEST_F(IndexCommands, BuildNamesWhatCannotBeRead) {
  EXPECT_EQ(run({"index", "build", folder.file("none"), "-o", index}), exit_not_found);
  EXPECT_EQ(err, "orlith index build: error: " + folder.file("none") + ": No such file or directory\n");
  EXPECT_EQ(run({"index", "build", folder.write("file", ""), "-o", index}), exit_not_found);
  EXPECT_THAT(err, EndsWith(": Not a directory\n"));
  EXPECT_EQ(run({"index", "build", data, "-o", folder.file("no/where")}), exit_failed);
  EXPECT_THAT(err, HasSubstr(folder.file("no/where") + ": cannot be written: No such file or directory"));
  const faults::Fail fails(faults::Call::readdir, EIO, 4, 1);
  EXPECT_EQ(run({"index", "build", data, "-o", index}), exit_failed);
  EXPECT_THAT(err, HasSubstr("error: " + data + ": "));
  EXPECT_THAT(err, EndsWith(": Input/output error\n"));
  EXPECT_FALSE(fs::exists(index));
}

TEST_F(IndexCommands, GetShowsTheFilesOfAMetricInAnySpelling) {
  build();
  for (const std::string name : {"cpu|ST[a:1,b:2]", "cpu|ST[b:2,a:1]", "cpu|ST[b\"Yg==\":2,a:1]|MT{x:y}"}) {
    EXPECT_EQ(run({"index", "get", index, kCheck + "-" + name}), exit_fine) << name;
    EXPECT_EQ(out, "check   " + kCheck + "\nmetric  cpu|ST[a:1,b:2]\nfiles   60/" + kCpu +
                       ".nnt\n        300/" + kCpu + ".nnt\n");
  }
  EXPECT_EQ(run({"index", "get", "--json", index, kCheck + "-mem|ST[a:1]"}), exit_fine);
  EXPECT_EQ(
      out,
      "{\"key\":\"" + kCheck + "-mem|ST[a:1]\",\"check_uuid\":\"" + kCheck +
          "\",\"metric_name\":\"mem|ST[a:1]\",\"files\":[{\"node\":null,\"period\":60,\"kind\":\"rollup\","
          "\"path\":\"60/" +
          kMem + ".nnt\"},{\"node\":null,\"period\":60,\"kind\":\"histograms\",\"path\":\"60/" + kMem +
          ".hist\"}]}\n");
}

TEST_F(IndexCommands, GetSaysWhatIsNotThereAndWhatIsNoKey) {
  build();
  EXPECT_EQ(run({"index", "get", index, kCheck + "-cpu"}), exit_not_found);
  EXPECT_EQ(err, "orlith index get: error: " + index + ": has no metric '" + kCheck + "-cpu'\n");
  EXPECT_EQ(run({"index", "get", index, "cpu"}), exit_usage);
  EXPECT_EQ(
      err,
      "orlith index get: error: KEY: found 'cpu', expected a check's UUID, a dash and a metric's name\n");
  EXPECT_EQ(run({"index", "get", index, kCheck}), exit_usage);
  EXPECT_EQ(run({"index", "get", index, kCheck + "-cpu|ST[a]"}), exit_usage);
  EXPECT_THAT(err, HasSubstr("a tag has no colon after its category"));
}

TEST_F(IndexCommands, PrefixListsKeys) {
  build();
  const std::string cpu = kCheck + "-cpu|ST[a:1,b:2]\n", mem = kCheck + "-mem|ST[a:1]\n";
  EXPECT_EQ(run({"index", "prefix", index, ""}), exit_fine);
  EXPECT_EQ(out, cpu + mem);
  EXPECT_EQ(run({"index", "prefix", index, kCheck + "-m"}), exit_fine);
  EXPECT_EQ(out, mem);
  EXPECT_EQ(run({"index", "prefix", index, "x"}), exit_not_found);
  EXPECT_EQ(out, "");
  EXPECT_EQ(run({"index", "prefix", index, "x", "--json"}), exit_not_found);
  EXPECT_EQ(out, "[]\n");
  EXPECT_EQ(run({"index", "prefix", index, kCheck, "--jsonl"}), exit_fine);
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
  EXPECT_THAT(
      out, HasSubstr("{\"node\":null,\"period\":300,\"kind\":\"rollup\",\"path\":\"300/" + kCpu + ".nnt\"}"));
}

TEST_F(IndexCommands, TagsListsTheMetricsThatHaveThemAll) {
  build();
  const std::string cpu = kCheck + "-cpu|ST[a:1,b:2]\n", mem = kCheck + "-mem|ST[a:1]\n";
  EXPECT_EQ(run({"index", "tags", index, "a:1"}), exit_fine);
  EXPECT_EQ(out, cpu + mem);
  EXPECT_EQ(run({"index", "tags", index, "a:1", "b:2"}), exit_fine);
  EXPECT_EQ(out, cpu);
  EXPECT_EQ(run({"index", "tags", index, "b\"Yg==\":2,a:1"}), exit_fine);
  EXPECT_EQ(out, cpu);
  EXPECT_EQ(run({"index", "tags", index, "a:1", "b:3"}), exit_not_found);
  EXPECT_EQ(run({"index", "tags", index, "a:1", "c"}), exit_usage);
  EXPECT_EQ(err,
            "orlith index tags: error: TAG: found 'c', expected category:value: a tag has no colon after its "
            "category\n");
  EXPECT_EQ(run({"index", "tags", "--json", index, "b:2"}), exit_fine);
  EXPECT_TRUE(out.starts_with("[{\"key\":\"" + kCheck + "-cpu|ST[a:1,b:2]\"") && out.ends_with("}]\n"))
      << out;
}

TEST_F(IndexCommands, StatsCountsNodesAndBytes) {
  build();
  EXPECT_EQ(run({"index", "stats", index}), exit_fine);
  EXPECT_THAT(out, testing::StartsWith(index + ": 2 metrics, 2 tags, 1.5 on average a metric; "));
  EXPECT_EQ(run({"index", "stats", "--json", index}), exit_fine);
  const std::string nodes =
      "\"nodes\":[{\"children\":4,\"count\":1,\"bytes\":56},{\"children\":16,\"count\":0,\"bytes\":0},"
      "{\"children\":48,\"count\":0,\"bytes\":0},{\"children\":256,\"count\":0,\"bytes\":0}],";
  // Keys of 37 + 15 + 1 and 37 + 11 + 1 bytes, behind 12 bytes each; files of two places and of one.
  EXPECT_EQ(
      out,
      "{\"file\":\"" + index + "\",\"bytes\":" + std::to_string(fs::file_size(index)) +
          ",\"metrics\":2,\"tags\":2,\"tagged\":3,\"trees\":{\"metrics\":{\"keys\":2,\"key_bytes\":102,"
          "\"depth\":2," +
          nodes +
          "\"leaves\":{\"count\":2,\"bytes\":136},\"value_bytes\":88},\"tags\":{\"keys\":2,\"key_bytes\":8,"
          "\"depth\":2," +
          nodes + "\"leaves\":{\"count\":2,\"bytes\":32},\"value_bytes\":32}}}\n");
  // All of the file is one of these.
  EXPECT_EQ(fs::file_size(index), 8u + 56 + 136 + 88 + 56 + 32 + 32 + 72);
}

TEST_F(IndexCommands, VerifyNamesFileAndPlace) {
  build();
  EXPECT_EQ(run({"index", "verify", index}), exit_fine);
  EXPECT_EQ(out, index + ": 2 metrics, 2 tags: no damage found\n");
  std::string bytes = folder.read("i.index");
  bytes[bytes.size() - 72 + 24] = 7;
  const std::string bad = folder.write("bad.index", bytes);
  EXPECT_EQ(run({"index", "verify", bad}), exit_damaged);
  EXPECT_EQ(err, "orlith index verify: error: " + bad + ": the directory says 7 metrics, found 2\n");
  EXPECT_EQ(run({"index", "verify", "--json", index, bad}), exit_damaged);
  EXPECT_EQ(out, "[{\"file\":\"" + index + "\",\"ok\":true,\"metrics\":2,\"tags\":2,\"tagged\":3,\"bytes\":" +
                     std::to_string(bytes.size()) + "},{\"file\":\"" + bad +
                     "\",\"ok\":false,\"error\":\"the directory says 7 metrics, found 2\"}]\n");
  EXPECT_EQ(run({"index", "verify", folder.file("none"), bad}), exit_not_found);
}

TEST_F(IndexCommands, EachCommandRefusesWhatIsNoIndex) {
  const std::string bad = folder.write("bad", std::string(1000, 'x'));
  for (const std::vector<std::string> &arguments :
       {std::vector<std::string>{"index", "get", bad, kCheck + "-cpu"},
        {"index", "prefix", bad, ""},
        {"index", "tags", bad, "a:1"},
        {"index", "stats", bad},
        {"index", "verify", bad}}) {
    EXPECT_EQ(run(arguments), exit_damaged);
    EXPECT_EQ(err, "orlith index " + arguments[1] + ": error: " + bad +
                       ": no index: it does not begin with \"ART\" and a zero byte\n");
    EXPECT_EQ(out, "");
  }
}

TEST_F(IndexCommands, DamageOnTheWayIsNamedAndEarlierResultsStand) {
  IndexModel model;
  const uint64_t files = model.rollups({60});
  const uint64_t a = model.leaf(kCheck + "-a", files), b = model.leaf(kCheck + "-b", 1 << 20);
  const uint64_t root = model.node4(kCheck + "-", {{'a', a}, {'b', b}});
  const std::string bad = folder.write("bad", model.finish(root, 2, 0, 0, 0));
  EXPECT_EQ(run({"index", "prefix", bad, ""}), exit_damaged);
  EXPECT_EQ(out, kCheck + "-a\n");
  const std::string fault =
      ": leaf at offset 96: its files at offset 1048576 are not within the first 208 bytes\n";
  EXPECT_EQ(err, "orlith index prefix: error: " + bad + fault);
  EXPECT_EQ(run({"index", "get", bad, kCheck + "-a"}), exit_fine);
  EXPECT_EQ(run({"index", "get", bad, kCheck + "-b"}), exit_damaged);
  EXPECT_EQ(err, "orlith index get: error: " + bad + fault);
  EXPECT_EQ(run({"index", "stats", bad}), exit_damaged);
}

}  // namespace
