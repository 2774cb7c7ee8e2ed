#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <filesystem>
#include <limits>

#include "orlith/nnt_reader.h"
#include "orlith/signals.h"
#include "test/orlith/nnt_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

struct NntCommands : testing::Test {
  TempDir folder;
  ToolSession tool;
  std::string cpu = folder.write("cpu.nnt", sample_nnt_file());
  std::string damaged = folder.write("damaged.nnt", damaged_nnt_file());
};

size_t line_count(const std::string &text) {
  return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

// Whether the framework's strict parser takes the whole text.
bool is_json(const std::string &text) {
  ruxo_json_object *parsed = ruxo_json_parse(text.c_str());
  ruxo_json_free(parsed);
  return parsed != nullptr;
}

// ---- info ----

TEST_F(NntCommands, InfoShowsHeaderAndExtent) {
  EXPECT_EQ(tool.run({"nnt", "info", "--json", cpu}), exit_fine);
  EXPECT_EQ(tool.out.text,
            "[{\"file\":\"" + cpu +
                "\",\"version\":\"NNT1\",\"period\":300,\"epoch\":1699920000,\"end\":1700006400,"
                "\"slots\":288,\"bytes\":9232,\"tail_bytes\":0}]\n");
}

TEST_F(NntCommands, InfoShowsTimesForPeople) {
  EXPECT_EQ(tool.run({"nnt", "info", "--iso", cpu}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("2023-11-14T00:00:00Z 2023-11-15T00:00:00Z"));
}

TEST_F(NntCommands, InfoOfSeveralFilesGoesOnAfterABadOne) {
  EXPECT_EQ(tool.run({"nnt", "info", folder.file("none"), cpu}), exit_not_found);
  EXPECT_EQ(tool.err.text,
            "orlith nnt info: error: " + folder.file("none") + ": No such file or directory\n");
  EXPECT_THAT(tool.out.text, HasSubstr("1699920000"));
}

TEST_F(NntCommands, InfoOfAHeaderWithoutRecords) {
  const std::string path = folder.write("empty.nnt", nnt_header(60, 120));
  EXPECT_EQ(tool.run({"nnt", "info", "--json", path}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("\"epoch\":120,\"end\":120,\"slots\":0,\"bytes\":16"));
}

TEST_F(NntCommands, RefuseHostileHeaders) {
  struct Case {
    std::string bytes, message;
  };
  const Case cases[] = {
      {"", "could not read header: found 0 bytes, expected 16"},
      {nnt_header(1, 0).substr(0, 15), "could not read header: found 15 bytes, expected 16"},
      {"\x1b]0;x" + std::string(30, 'a'), "unknown version: found '\\x1b]0;', expected 'NNT1'"},
      {nnt_header(0, 0), "invalid period: found 0, expected at least 1"},
      {nnt_header(300, 301), "epoch misaligned: 301 is no multiple of the period 300"},
      {nnt_header(1, 5000000000), "bad epoch: found 5000000000, expected at most 4999999999"},
      {nnt_header(1, UINT64_MAX), "bad epoch: found 18446744073709551615, expected at most 4999999999"},
  };
  for (const Case &c : cases) {
    const std::string path = folder.write("bad.nnt", c.bytes);
    for (const char *command : {"info", "dump", "plot", "verify"}) {
      SCOPED_TRACE(command + (": " + c.message));
      ToolSession one;
      EXPECT_EQ(one.run({"nnt", command, path}), exit_damaged);
      EXPECT_EQ(one.err.text,
                std::string("orlith nnt ") + command + ": error: " + path + ": " + c.message + "\n");
    }
  }
}

TEST_F(NntCommands, RefuseWhatIsNoFile) {
  const std::string pipe = folder.file("pipe.nnt");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(tool.run({"nnt", "dump", pipe}), exit_damaged);
  EXPECT_THAT(tool.err.text, HasSubstr("is no regular file"));
  ToolSession other;
  EXPECT_EQ(other.run({"nnt", "plot", folder.path()}), exit_damaged);
  EXPECT_THAT(other.err.text, HasSubstr("is a folder, expected a file"));
}

TEST_F(NntCommands, OpenAReadOnlyFileAsNobody) {
  chmod(cpu.c_str(), 0444);
  chmod(folder.path().c_str(), 0555);
  ToolSession one;
  EXPECT_EQ(one.run({"nnt", "verify", cpu}), exit_fine);
  EXPECT_EQ(one.run({"nnt", "plot", cpu}), exit_fine);
  chmod(folder.path().c_str(), 0755);
}

// ---- dump ----

TEST_F(NntCommands, DumpShowsARangeOfSlots) {
  EXPECT_EQ(tool.run({"nnt", "dump", cpu, "--from", "1699920601", "--to", "2023-11-14T00:15:01"}), exit_fine);
  EXPECT_EQ(tool.out.text,
            "      time type    count                  value        stddev    derivative      d.stddev       "
            "counter"
            "      c.stddev\n"
            "1699920600 double      1                      2             0  0.0033333334             0       "
            "      0"
            "             0\n"
            "1699920900 double      1                      3             0  0.0033333334             0       "
            "      0"
            "             0\n");
}

TEST_F(NntCommands, DumpShowsEveryTypeExactly) {
  RecordModel model;
  std::string bytes = nnt_header(1, 0);
  model = {.type = 5, .value_bits = UINT64_MAX, .count = 65535, .has_stddev = false};
  model.counter = std::numeric_limits<float>::quiet_NaN();
  bytes += nnt_record(model);
  bytes += nnt_record({.type = 4, .value_bits = uint64_t{1} << 63});
  bytes += nnt_record({.type = 3, .value_bits = 4294967295});
  bytes += nnt_record({.type = 2, .value_bits = 4294967295, .stddev = 0.5f});
  bytes += nnt_record({.type = 1});
  bytes += absent_record;
  bytes += double_record(std::numeric_limits<double>::quiet_NaN());
  const std::string path = folder.write("types.nnt", bytes);
  EXPECT_EQ(tool.run({"nnt", "dump", "--jsonl", "--all", path}), exit_fine);
  EXPECT_EQ(
      tool.out.text,
      R"({"time":0,"type":"uint64","count":65535,"value":18446744073709551615,"stddev":null,"derivative":0.0,"derivative_stddev":0.0,"counter":null,"counter_stddev":0.0}
{"time":1,"type":"int64","count":1,"value":-9223372036854775808,"stddev":0.0,"derivative":0.0,"derivative_stddev":0.0,"counter":0.0,"counter_stddev":0.0}
{"time":2,"type":"uint32","count":1,"value":4294967295,"stddev":0.0,"derivative":0.0,"derivative_stddev":0.0,"counter":0.0,"counter_stddev":0.0}
{"time":3,"type":"int32","count":1,"value":-1,"stddev":0.5,"derivative":0.0,"derivative_stddev":0.0,"counter":0.0,"counter_stddev":0.0}
{"time":4,"type":"null","count":1,"value":null,"stddev":0.0,"derivative":0.0,"derivative_stddev":0.0,"counter":0.0,"counter_stddev":0.0}
{"time":5,"type":"absent","count":null,"value":null,"stddev":null,"derivative":null,"derivative_stddev":null,"counter":null,"counter_stddev":null}
{"time":6,"type":"double","count":1,"value":null,"stddev":0.0,"derivative":0.0,"derivative_stddev":0.0,"counter":0.0,"counter_stddev":0.0}
)");
}

TEST_F(NntCommands, DumpLeavesOutAbsentSlotsUnlessAsked) {
  tool.run({"nnt", "dump", "--jsonl", cpu});
  EXPECT_EQ(line_count(tool.out.text), 276u);
  ToolSession all;
  all.run({"nnt", "dump", "--jsonl", "--all", cpu});
  EXPECT_EQ(line_count(all.out.text), 288u);
}

TEST_F(NntCommands, DumpAsJsonIsOneDocumentAcrossChunks) {
  std::string bytes = nnt_header(10, 1700000000);
  for (int i = 0; i < 10000; ++i) bytes += double_record(i * 0.5);
  const std::string path = folder.write("long.nnt", bytes);
  EXPECT_EQ(tool.run({"nnt", "dump", "--json", path}), exit_fine);
  ruxo_json_object *document = ruxo_json_parse(tool.out.text.c_str());
  ASSERT_NE(document, nullptr);
  const ruxo_json_object *slots = ruxo_json_object_get(document, "slots", nullptr);
  ASSERT_EQ(ruxo_json_array_length(slots), 10000u);
  const ruxo_json_object *last = ruxo_json_array_get(slots, 9999);
  EXPECT_EQ(ruxo_json_int(ruxo_json_object_get(last, "time", nullptr)), 1700099990);
  EXPECT_EQ(ruxo_json_double(ruxo_json_object_get(last, "value", nullptr)), 4999.5);
  ruxo_json_free(document);
}

TEST_F(NntCommands, DumpOfNothingIsStillAHeadingOrADocument) {
  const std::string path = folder.write("empty.nnt", nnt_header(60, 0));
  tool.run({"nnt", "dump", path});
  EXPECT_EQ(line_count(tool.out.text), 1u);
  ToolSession json;
  json.run({"nnt", "dump", "--json", path});
  EXPECT_EQ(json.out.text, "{\"file\":\"" + path + "\",\"period\":60,\"epoch\":0,\"slots\":[]}\n");
  ToolSession lines;
  lines.run({"nnt", "dump", "--jsonl", path});
  EXPECT_EQ(lines.out.text, "");
}

TEST_F(NntCommands, DumpMarksDamagedRecordsAndEndsWithTwo) {
  EXPECT_EQ(tool.run({"nnt", "dump", damaged}), exit_damaged);
  EXPECT_THAT(tool.out.text, HasSubstr("1699929600 damaged"));
  EXPECT_THAT(tool.err.text, HasSubstr(": 2 damaged record(s)"));
}

TEST_F(NntCommands, DumpGoesOnAfterATornEnd) {
  const std::string path = folder.write("torn.nnt", sample_nnt_file() + "torn");
  EXPECT_EQ(tool.run({"nnt", "dump", "--jsonl", path}), exit_damaged);
  EXPECT_EQ(line_count(tool.out.text), 276u);
  EXPECT_THAT(tool.err.text, HasSubstr("4 bytes after the last whole record, left out"));
}

TEST_F(NntCommands, DumpClosesItsDocumentWhenInterrupted) {
  set_interrupted(true);
  EXPECT_EQ(tool.run({"nnt", "dump", "--json", cpu}), exit_interrupted);
  set_interrupted(false);
  EXPECT_TRUE(is_json(tool.out.text)) << tool.out.text;
}

TEST_F(NntCommands, RefuseTimesThatAreNone) {
  EXPECT_EQ(tool.run({"nnt", "dump", cpu, "--from", "yesterday\n"}), exit_usage);
  EXPECT_EQ(tool.err.text,
            "orlith nnt dump: error: --from: found 'yesterday\\n', expected epoch seconds or ISO 8601 "
            "(2023-11-14T22:13:20Z)\n");
}

TEST_F(NntCommands, RangesOutsideTheFileAreEmpty) {
  for (const auto &[from, to] :
       {std::pair("0", "5"), std::pair("4000000000", "5000000000"),
        std::pair("18446744073709551615", "18446744073709551615"), std::pair("1699930000", "1699920000")}) {
    ToolSession one;
    EXPECT_EQ(one.run({"nnt", "dump", "--jsonl", cpu, "--from", from, "--to", to}), exit_fine);
    EXPECT_EQ(one.out.text, "") << from;
  }
}

// A sparse file of a terabyte: no command may read or hold what is not there.
TEST_F(NntCommands, PassOverHolesWithoutReadingThem) {
  const std::string path = folder.write("huge.nnt", nnt_header(4294967295u, 4294967295u) + double_record(1));
  const off_t slots = off_t{1} << 35;
  ASSERT_EQ(truncate(path.c_str(), 16 + 32 * slots), 0);
  const std::string last = double_record(2);
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(fd, last.data(), last.size(), 16 + 32 * (slots - 1)), 32);
  close(fd);
  EXPECT_EQ(tool.run({"nnt", "verify", path}), exit_fine);
  EXPECT_EQ(tool.out.text, "1 file(s), 34,359,738,368 records: no damage found\n");
  ToolSession dump;
  EXPECT_EQ(dump.run({"nnt", "dump", "--jsonl", path}), exit_fine);
  EXPECT_EQ(line_count(dump.out.text), 2u);
  EXPECT_THAT(dump.out.text, HasSubstr("\n{\"time\":18446744073709551615,"));  // beyond what a time can be
  ToolSession plot;
  EXPECT_EQ(plot.run({"nnt", "plot", path}), exit_fine);
  ToolSession info;
  EXPECT_EQ(info.run({"nnt", "info", path}), exit_fine);
}

// ---- verify ----

TEST_F(NntCommands, VerifyFindsNothingInASoundFile) {
  EXPECT_EQ(tool.run({"nnt", "verify", cpu}), exit_fine);
  EXPECT_EQ(tool.out.text, "1 file(s), 288 records: no damage found\n");
}

TEST_F(NntCommands, VerifyNamesTheFirstDamagedSlot) {
  EXPECT_EQ(tool.run({"nnt", "verify", damaged}), exit_damaged);
  EXPECT_EQ(tool.out.text, damaged +
                               ": damaged: 2 of 288 records, the first at offset 1040 (slot 32, 1699929600): "
                               "checksum 0x00, expected 0x01\n"
                               "1 file(s), 288 records: 1 damaged file(s), 2 damaged record(s)\n");
}

TEST_F(NntCommands, VerifyNamesAWrongTypeUnderARightChecksum) {
  std::string stray(32, '\0');
  stray[0] = stray[5] = 1;  // type 0, not all zero
  const std::string path = folder.write("types.nnt", nnt_header(300, 0) + nnt_record({.type = 7}) + stray);
  EXPECT_EQ(tool.run({"nnt", "verify", path}), exit_damaged);
  EXPECT_THAT(tool.out.text,
              HasSubstr("2 of 2 records, the first at offset 16 (slot 0, 0): type code 7 in a record with "
                        "data, expected 1 to 6\n"));
}

TEST_F(NntCommands, VerifyTellsEverythingAsJson) {
  EXPECT_EQ(tool.run({"nnt", "verify", "--json", cpu, damaged}), exit_damaged);
  EXPECT_EQ(tool.out.text,
            "[{\"file\":\"" + cpu +
                "\",\"ok\":true,\"records\":288,\"with_data\":276,\"damaged\":0,\"tail_bytes\":0},"
                "{\"file\":\"" +
                damaged +
                "\",\"ok\":false,\"records\":288,\"with_data\":275,\"damaged\":2,\"tail_bytes\":0,"
                "\"first_damaged\":{\"slot\":32,\"offset\":1040,\"time\":1699929600,"
                "\"fault\":\"checksum 0x00, expected 0x01\"}}]\n");
}

TEST_F(NntCommands, VerifyFindsATornEnd) {
  const std::string path = folder.write("torn.nnt", sample_nnt_file() + "torn");
  EXPECT_EQ(tool.run({"nnt", "verify", path}), exit_damaged);
  EXPECT_THAT(
      tool.out.text,
      StartsWith(path + ": damaged: 4 bytes after the last whole record, at offset 9232; expected none\n"));
}

TEST_F(NntCommands, VerifySearchesFoldersAndSkipsOtherFiles) {
  std::filesystem::create_directories(folder.file("data/a/b"));
  folder.write("data/a/one.nnt", sample_nnt_file());
  folder.write("data/a/b/without-extension", damaged_nnt_file());
  folder.write("data/a/notes.txt", "not an NNT file");
  folder.write("data/z.nnt", "damaged header, but so named");
  std::filesystem::create_directory_symlink(folder.file("data"), folder.file("data/a/loop"));
  EXPECT_EQ(tool.run({"nnt", "verify", folder.file("data")}), exit_damaged);
  EXPECT_THAT(tool.out.text, StartsWith(folder.file("data/a/b/without-extension") + ": damaged: 2 of 288"));
  EXPECT_THAT(
      tool.out.text,
      HasSubstr("3 file(s), 576 records: 2 damaged file(s), 2 damaged record(s); 1 other file(s) skipped\n"));
  EXPECT_THAT(tool.err.text, HasSubstr("data/z.nnt: unknown version: found 'dama', expected 'NNT1'\n"));
}

TEST_F(NntCommands, VerifySaysWhenAFolderCannotBeReadToItsEnd) {
  std::filesystem::create_directories(folder.file("data"));
  folder.write("data/one.nnt", sample_nnt_file());
  folder.write("data/two.nnt", damaged_nnt_file());
  const faults::Fail fault(faults::Call::readdir, EIO, 1, 1);
  EXPECT_EQ(tool.run({"nnt", "verify", folder.file("data")}), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr(folder.file("data") + ": Input/output error\n"));
}

TEST_F(NntCommands, VerifyDoesNotSkipAFileThatItCannotRead) {
  std::filesystem::create_directories(folder.file("data"));
  folder.write("data/without-extension", sample_nnt_file());
  const faults::Fail fault(faults::Call::pread, EIO);
  EXPECT_EQ(tool.run({"nnt", "verify", folder.file("data")}), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr(folder.file("data/without-extension") + ": Input/output error\n"));
}

TEST_F(NntCommands, VerifyEndsWithThreeWhenAFileIsNotThere) {
  EXPECT_EQ(tool.run({"nnt", "verify", damaged, folder.file("none.nnt")}), exit_not_found);
  EXPECT_THAT(tool.err.text, HasSubstr("none.nnt: No such file or directory\n"));
  EXPECT_THAT(tool.out.text, HasSubstr("damaged: 2 of 288"));
}

TEST_F(NntCommands, VerifyFindsEveryFlippedBit) {
  const std::string sound = nnt_header(60, 600) + double_record(1.5) + double_record(2.5);
  for (size_t bit = 16 * 8; bit < sound.size() * 8; ++bit) {
    std::string bytes = sound;
    bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    ToolSession one;
    ASSERT_EQ(one.run({"nnt", "verify", "--quiet", folder.write("bit.nnt", bytes)}), exit_damaged)
        << "bit " << bit;
  }
}

TEST_F(NntCommands, VerifyStopsWhenInterrupted) {
  set_interrupted(true);
  EXPECT_EQ(tool.run({"nnt", "verify", cpu, damaged}), exit_interrupted);
  set_interrupted(false);
}

// ---- plot ----

TEST_F(NntCommands, PlotDrawsTheFileWithItsGap) {
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--width", "59", "--height", "6"}), exit_fine);
  EXPECT_EQ(tool.out.text,
            cpu +
                "  2023-11-14T00:00:00Z to 2023-11-15T00:00:00Z\n"
                "          |                                         .....''\n"
                "      200 +                                 ....''''\n"
                "          |                        ....'''''\n"
                "          |               .....''''\n"
                "          |       ....''''\n"
                "        0 +..''  '\n"  // two columns of half an hour are empty
                "          ++-----------+-----------+-----------+-----------\n"
                "           00:00       06:00       12:00       18:00\n"
                "           value; 288 slots of 300 s; dotted: least to greatest in a column\n");
}

TEST_F(NntCommands, PlotDrawsInBrailleWhereItCan) {
  tool.session.terminal.utf8 = true;
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--width", "40", "--height", "4"}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("        0 ┤⣀⠤⠄⠐⠒⠉⠁\n"));
  ToolSession ascii;
  ascii.session.terminal.utf8 = true;
  EXPECT_EQ(ascii.run({"nnt", "plot", cpu, "--ascii"}), exit_fine);
  EXPECT_EQ(ascii.out.text.find("\xE2"), std::string::npos);
}

TEST_F(NntCommands, PlotGivesItsPointsAsJson) {
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--json", "--from", "1699920000", "--to", "1699920900"}),
            exit_fine);
  EXPECT_EQ(
      tool.out.text,
      R"([{"time":1699920000,"value":0.0,"min":0.0,"max":0.0},{"time":1699920300,"value":1.0,"min":1.0,"max":1.0},{"time":1699920600,"value":2.0,"min":2.0,"max":2.0}])"
      "\n");
}

TEST_F(NntCommands, PlotBucketsHaveMeanLeastAndGreatest) {
  // 288 slots over 48 columns: six slots a column.
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--json", "--width", "59"}), exit_fine);
  EXPECT_THAT(
      tool.out.text,
      StartsWith(R"([{"time":1699920000,"value":2.5,"min":0.0,"max":5.0},{"time":1699921800,"value":8.5,)"));
  EXPECT_THAT(tool.out.text, HasSubstr(R"({"time":1699927200,"value":null,"min":null,"max":null})"));
}

TEST_F(NntCommands, PlotBucketsOfTheLargestNumbersHaveAMean) {
  std::string bytes = nnt_header(60, 600);
  for (int i = 0; i < 10; ++i)
    bytes += double_record(-1.7e308) + double_record(1.7e308) + double_record(1.7e308);
  const std::string path = folder.write("large.nnt", bytes);
  // Ten columns for thirty slots.
  EXPECT_EQ(tool.run({"nnt", "plot", "--json", "--ascii", "--width", "21", path}), exit_fine);
  EXPECT_EQ(line_count(tool.out.text), 1u);
  EXPECT_THAT(tool.out.text, StartsWith("[{\"time\":600,\"value\":5.66"));
  EXPECT_THAT(tool.out.text, HasSubstr("e+307,\"min\":-1.7e+308,\"max\":1.7e+308}"));
  EXPECT_THAT(tool.out.text, Not(HasSubstr("null")));
}

TEST_F(NntCommands, PlotShowsARateOrACounter) {
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--json", "--rate", "--to", "1699920300"}), exit_fine);
  EXPECT_THAT(tool.out.text, HasSubstr("\"value\":0.00333333"));
  ToolSession counter;
  EXPECT_EQ(counter.run({"nnt", "plot", cpu, "--json", "--counter", "--to", "1699920300"}), exit_fine);
  EXPECT_THAT(counter.out.text, HasSubstr("\"value\":0.0,"));
  ToolSession both;
  EXPECT_EQ(both.run({"nnt", "plot", cpu, "--rate", "--counter"}), exit_usage);
}

TEST_F(NntCommands, PlotOfAnEmptyRangeSaysWhatThereIs) {
  EXPECT_EQ(tool.run({"nnt", "plot", cpu, "--to", "1"}), exit_not_found);
  EXPECT_THAT(tool.err.text,
              HasSubstr("there are no slots in this range; the file has 288 from 2023-11-14T00:00:00Z to "
                        "2023-11-15T00:00:00Z\n"));
}

TEST_F(NntCommands, PlotLeavesOutDamagedRecords) {
  EXPECT_EQ(tool.run({"nnt", "plot", damaged}), exit_damaged);
  EXPECT_THAT(tool.err.text, HasSubstr("2 damaged record(s) left out"));
}

}  // namespace
