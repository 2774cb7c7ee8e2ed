#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <limits>
#include <random>
#include <string>
#include <utility>

#include "orlith/packed_rollup.h"
#include "orlith/signals.h"
#include "test/orlith/nnt_model.h"
#include "test/orlith/pack_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

using testing::HasSubstr;

struct Pack : testing::Test {
  TempDir folder;
  ToolSession tool;
  const std::string packed = folder.file("a.cfssz"), back = folder.file("back.nnt");

  int pack(const std::string &file) { return tool.run({"pack", file, "-o", packed}); }
  int unpack() { return tool.run({"unpack", packed, "-o", back}); }

  void expect_back(const std::string &bytes) {
    const std::string file = folder.write("a.nnt", bytes);
    ASSERT_EQ(pack(file), exit_fine) << tool.err.text;
    ASSERT_EQ(unpack(), exit_fine) << tool.err.text;
    ASSERT_TRUE(folder.read("back.nnt") == bytes);
    ASSERT_TRUE(folder.read("a.nnt") == bytes);
  }
  auto file_count() { return std::distance(std::filesystem::directory_iterator(folder.path()), {}); }
  // What unpacking the bytes is refused with.
  std::string fault_of(const std::string &stream) {
    folder.write("a.cfssz", stream);
    ToolSession one;
    EXPECT_EQ(one.run({"unpack", packed, "-o", back}), exit_damaged);
    EXPECT_FALSE(std::filesystem::exists(back));
    const std::string start = "orlith unpack: error: " + packed + ": ";
    EXPECT_TRUE(one.err.text.starts_with(start)) << one.err.text;
    return one.err.text.substr(std::min(start.size(), one.err.text.size()));
  }
};

std::string every_type() {
  std::string bytes = nnt_header(1, 0);
  RecordModel model = {.type = 5, .value_bits = UINT64_MAX, .count = 65535, .has_stddev = false};
  model.counter = std::numeric_limits<float>::quiet_NaN();
  bytes += nnt_record(model);
  bytes += nnt_record({.type = 4, .value_bits = uint64_t{1} << 63});
  bytes += nnt_record({.type = 3, .value_bits = 4294967295});
  bytes += absent_record;
  bytes += nnt_record({.type = 2, .value_bits = 4294967295, .stddev = 0.5f});
  bytes += nnt_record({.type = 1});
  bytes += absent_record + absent_record;
  bytes += double_record(std::numeric_limits<double>::quiet_NaN());
  return bytes + double_record(-0.0, std::numeric_limits<float>::infinity());
}

TEST_F(Pack, TellsBothSizes) {
  const std::string cpu = folder.write("cpu.nnt", sample_nnt_file());
  ASSERT_EQ(pack(cpu), exit_fine);
  const size_t size = folder.read("a.cfssz").size();
  char expected[200];
  snprintf(expected, sizeof expected, ": 288 slots, 9,232 bytes, packed %zu bytes, ratio %.3f\n", size,
           static_cast<double>(size) / 9232);
  EXPECT_EQ(tool.out.text, packed + expected);
  EXPECT_LT(size, 9232 / 8);
}

TEST_F(Pack, TellsBothSizesAsJson) {
  const std::string cpu = folder.write("cpu.nnt", sample_nnt_file());
  ASSERT_EQ(tool.run({"pack", "--json", cpu, "-o", packed}), exit_fine);
  const std::string size = std::to_string(folder.read("a.cfssz").size());
  const std::string start = "{\"file\":\"" + cpu + "\",\"output\":\"" + packed +
                            "\",\"slots\":288,\"period\":300,\"epoch\":1699920000,\"bytes\":9232,"
                            "\"packed_bytes\":" +
                            size + ",\"ratio\":0.";
  EXPECT_TRUE(tool.out.text.starts_with(start)) << tool.out.text;
  ToolSession other;
  ASSERT_EQ(other.run({"unpack", "--json", "--iso", packed, "-o", back}), exit_fine);
  EXPECT_THAT(other.out.text,
              HasSubstr("\"epoch\":\"2023-11-14T00:00:00Z\",\"bytes\":9232,\"packed_bytes\":" + size));
}

TEST_F(Pack, GivesBackARamp) {
  expect_back(sample_nnt_file());
}

TEST_F(Pack, GivesBackEveryTypeAndAbsentSlots) {
  expect_back(every_type());
}

TEST_F(Pack, GivesBackAFileWithoutSlots) {
  expect_back(nnt_header(UINT32_MAX, 0));
}

TEST_F(Pack, GivesBackTheLatestEpoch) {
  expect_back(nnt_header(1, 4999999999) + double_record(1));
}

TEST_F(Pack, GivesBackTypeBitsThatReadersDoNotLookAt) {
  std::string record = double_record(3);
  record[1] = static_cast<char>(record[1] | 0xa0);
  record[0] = static_cast<char>(record[0] ^ 0xa0);
  expect_back(nnt_header(60, 0) + record + absent_record + record);
}

// Doubles with all their digits, among them such whose bits differ from their neighbours' in three trailing zeros.
TEST_F(Pack, GivesBackAnyValues) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20; ++round) {
    std::string bytes = nnt_header(60, 60 * (random() % 1000));
    uint64_t bits = random();
    for (size_t slot = random() % 300; slot > 0; --slot) {
      if (random() % 8 == 0) {
        bytes += absent_record;
        continue;
      }
      bits ^= random() % 2 == 0 ? uint64_t{8} << (random() % 50) : random();
      RecordModel model = {.type = static_cast<uint8_t>(1 + random() % 6), .value_bits = bits};
      model.count = static_cast<uint16_t>(random());
      model.has_stddev = random() % 2 == 0;
      for (float *value : {&model.stddev, &model.derivative, &model.derivative_stddev, &model.counter}) {
        const auto float_bits = static_cast<uint32_t>(random());
        memcpy(value, &float_bits, sizeof float_bits);
        if (std::isnan(*value)) *value = 0;  // the bits of a NaN may change on their way through a float
      }
      bytes += nnt_record(model);
    }
    expect_back(bytes);
  }
}

TEST_F(Pack, TakesHolesForAbsentSlots) {
  const std::string file = folder.write("holes.nnt", nnt_header(60, 0));
  ASSERT_EQ(truncate(file.c_str(), 16 + 32 * 100000), 0);
  ASSERT_EQ(pack(file), exit_fine) << tool.err.text;
  ASSERT_EQ(unpack(), exit_fine);
  EXPECT_TRUE(folder.read("back.nnt") == folder.read("holes.nnt"));
  EXPECT_LT(folder.read("a.cfssz").size(), 100000u);
}

// The stream as a reader of its own finds it, bit by bit.
TEST_F(Pack, WritesTheHeaderTheSlotsAndTheHashOfTheFile) {
  using namespace cfssz_model;
  const Field word = {CFSSZ_INT32, CFSSZ_XOR_VARBIT};
  const Layout halved(std::vector<Field>(8, word));
  const Layout whole({word, word, {CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT}, word, word, word, word});
  std::string counter = nnt_header(60, 600), gauge = counter;
  for (uint64_t i = 0; i < 50; ++i) {
    counter += nnt_record({.type = 5, .value_bits = 123456789012 + 1000003 * i, .count = 3});
    gauge += double_record(static_cast<double>(i * 37 % 64) / 4 - 8);
  }
  const struct {
    std::string file;
    const Layout &layout;
    uint16_t signature;
  } cases[] = {{counter, whole, 0x4e31}, {gauge, halved, 0x4e32}};
  for (const auto &c : cases) {
    ASSERT_EQ(pack(folder.write("a.nnt", c.file)), exit_fine);
    const std::string text = folder.read("a.cfssz");
    const Bytes stream(text.begin(), text.end());
    ASSERT_EQ(stream[0] << 8 | stream[1], c.signature);
    Decoder decoder(c.layout, stream);
    std::string decoded;
    Record record;
    while (decoder.next(&record) > 0) {
      const Bytes bytes = c.layout.lay_out(record);
      decoded.append(bytes.begin(), bytes.end());
    }
    EXPECT_TRUE(decoded == packed_records(c.file));
  }
}

// The example of doc/packed-rollup.md.
TEST_F(Pack, WritesTheDocumentedExample) {
  ASSERT_EQ(pack(folder.write("a.nnt", nnt_header(60, 600) + double_record(1) + absent_record)), exit_fine);
  const uint8_t expected[] = {0x4e, 0x31, 0x00, 0x00, 0x00, 0x04, 0xc3, 0xc9, 0x89, 0x2a, 0xde, 0x7c,
                              0x0d, 0x4b, 0x30, 0x9c, 0x90, 0xaa, 0xe2, 0xcd, 0x07, 0x50, 0xfb, 0xff,
                              0xff, 0xff, 0xff, 0xdf, 0x7f, 0xf0, 0x00, 0x0c, 0x52, 0x7b, 0x25, 0x10,
                              0x98, 0x2b, 0xcb, 0xc5, 0x06, 0xe8, 0x16, 0x61, 0x01};
  const std::string stream = folder.read("a.cfssz");
  EXPECT_EQ(std::vector<uint8_t>(stream.begin(), stream.end()),
            std::vector<uint8_t>(std::begin(expected), std::end(expected)));
}

TEST_F(Pack, UnpackTakesWhatAnotherWriterMade) {
  for (const std::string &file : {sample_nnt_file(), every_type(), nnt_header(60, 60)}) {
    folder.write("a.cfssz", packed_file(file));
    ASSERT_EQ(unpack(), exit_fine) << tool.err.text;
    EXPECT_TRUE(folder.read("back.nnt") == file);
  }
}

TEST_F(Pack, RefusesADamagedFile) {
  const std::string file = folder.write("damaged.nnt", damaged_nnt_file());
  EXPECT_EQ(pack(file), exit_damaged);
  EXPECT_EQ(tool.err.text, "orlith pack: error: " + file +
                               ": damaged record at offset 1040 (slot 32, 1699929600): checksum 0x00, "
                               "expected 0x01; `orlith nnt verify` counts them\n");
  EXPECT_FALSE(std::filesystem::exists(packed));
}

TEST_F(Pack, RefusesAFileCutInsideARecord) {
  const std::string file = folder.write("cut.nnt", sample_nnt_file().substr(0, 16 + 32 * 3 + 5));
  EXPECT_EQ(pack(file), exit_damaged);
  EXPECT_EQ(tool.err.text, "orlith pack: error: " + file +
                               ": 5 bytes after the last whole record, at offset 112; expected none\n");
}

TEST_F(Pack, RefusesMoreSlotsThanItTakes) {
  const std::string file = folder.write("long.nnt", nnt_header(60, 0));
  ASSERT_EQ(truncate(file.c_str(), 16 + 32 * ((int64_t{1} << 24) + 1)), 0);
  EXPECT_EQ(pack(file), exit_damaged);
  EXPECT_THAT(tool.err.text, HasSubstr("too many slots: found 16777217, expected at most 16777216"));
}

TEST_F(Pack, SaysWhatIsNotThere) {
  EXPECT_EQ(pack(folder.file("none.nnt")), exit_not_found);
  EXPECT_EQ(tool.err.text,
            "orlith pack: error: " + folder.file("none.nnt") + ": No such file or directory\n");
  ToolSession other;
  EXPECT_EQ(other.run({"unpack", packed, "-o", back}), exit_not_found);
  EXPECT_EQ(other.err.text, "orlith unpack: error: " + packed + ": No such file or directory\n");
  EXPECT_EQ(other.run({"unpack", folder.path(), "-o", back}), exit_damaged);
  EXPECT_EQ(other.run({"unpack", packed}), exit_usage);
}

TEST_F(Pack, ChangesNothingInPlace) {
  const std::string file = folder.write("cpu.nnt", sample_nnt_file());
  EXPECT_EQ(tool.run({"pack", file, "-o", folder.path() + "/./cpu.nnt"}), exit_usage);
  EXPECT_EQ(tool.err.text, "orlith pack: error: '" + folder.path() +
                               "/./cpu.nnt' is the file to read; give another name with --output\n");
  EXPECT_TRUE(folder.read("cpu.nnt") == sample_nnt_file());
}

TEST_F(Pack, KeepsTheOlderFileWhenWritingFails) {
  const std::string file = folder.write("cpu.nnt", sample_nnt_file());
  for (const faults::Call call : {faults::Call::write, faults::Call::fsync, faults::Call::rename}) {
    folder.write("a.cfssz", "older");
    ToolSession one;
    {
      const faults::Fail fail(call, ENOSPC);
      EXPECT_EQ(one.run({"pack", file, "-o", packed}), exit_failed);
    }
    EXPECT_EQ(one.err.text, "orlith pack: error: cannot write '" + packed + "': No space left on device\n");
    EXPECT_EQ(folder.read("a.cfssz"), "older");
    EXPECT_EQ(file_count(), 2);
  }
  EXPECT_EQ(pack(file), exit_fine);
  EXPECT_NE(folder.read("a.cfssz"), "older");
}

TEST_F(Pack, WritesNothingWhenInterrupted) {
  const std::string file = folder.write("cpu.nnt", sample_nnt_file());
  set_interrupted(true);
  EXPECT_EQ(pack(file), exit_interrupted);
  set_interrupted(false);
  EXPECT_FALSE(std::filesystem::exists(packed));
}

TEST_F(Pack, UnpackWritesNothingWhenInterrupted) {
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  folder.write("back.nnt", "older");
  set_interrupted(true);
  EXPECT_EQ(unpack(), exit_interrupted);
  set_interrupted(false);
  EXPECT_EQ(folder.read("back.nnt"), "older");
  EXPECT_EQ(file_count(), 2);
}

TEST_F(Pack, UnpackKeepsTheOlderFileWhenWritingFails) {
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  for (const faults::Call call :
       {faults::Call::write, faults::Call::fsync, faults::Call::close, faults::Call::rename}) {
    folder.write("back.nnt", "older");
    ToolSession one;
    {
      // The first close is that of the stream, and is not looked at.
      const faults::Fail fail(call, ENOSPC, call == faults::Call::close ? 2 : 1);
      EXPECT_EQ(one.run({"unpack", packed, "-o", back}), exit_failed);
    }
    EXPECT_EQ(one.err.text, "orlith unpack: error: cannot write '" + back + "': No space left on device\n");
    EXPECT_EQ(one.out.text, "");
    EXPECT_EQ(folder.read("back.nnt"), "older");
    EXPECT_EQ(file_count(), 2);
  }
  EXPECT_EQ(unpack(), exit_fine);
  EXPECT_TRUE(folder.read("back.nnt") == sample_nnt_file());
}

TEST_F(Pack, UnpackMakesNoFileWhenWritingFails) {
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  {
    const faults::Short slow(faults::Call::write, 100);
    const faults::Fail fail(faults::Call::write, EIO, 2);
    EXPECT_EQ(unpack(), exit_failed) << "the disk took a hundred bytes";
    EXPECT_TRUE(slow.hit());
  }
  EXPECT_EQ(file_count(), 1);
  EXPECT_EQ(tool.run({"unpack", packed, "-o", folder.file("none/back.nnt")}), exit_failed);
  EXPECT_THAT(tool.err.text,
              HasSubstr("cannot write '" + folder.file("none/back.nnt") + "': No such file or directory\n"));
}

// ---- files that are none, or change under the reader

TEST_F(Pack, TakesRegularFilesOnly) {
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string verb : {"pack", "unpack"}) {
    for (const auto &[from, fault] :
         {std::pair{pipe, "is no regular file"}, {folder.path(), "is a folder, expected a file"}}) {
      ToolSession one;
      EXPECT_EQ(one.run({verb, from, "-o", back}), exit_damaged);
      EXPECT_EQ(one.err.text, "orlith " + verb + ": error: " + from + ": " + fault + "\n");
    }
  }
  EXPECT_FALSE(std::filesystem::exists(back));
}

TEST_F(Pack, UnpackTakesAGibibyteAtMost) {
  folder.write("a.cfssz", "N2");
  ASSERT_EQ(truncate(packed.c_str(), (int64_t{1} << 30) + 1), 0);
  EXPECT_EQ(unpack(), exit_damaged);
  EXPECT_EQ(tool.err.text, "orlith unpack: error: " + packed +
                               ": too long: found 1073741825 bytes, expected at most 1073741824\n");
  EXPECT_EQ(file_count(), 1);
}

TEST_F(Pack, SaysThatAFileBecameShorter) {
  const std::string cpu = folder.write("cpu.nnt", sample_nnt_file());
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  {
    // The header is there, and the records are gone.
    const faults::Answer at_end(faults::Call::pread, 0, 2);
    EXPECT_EQ(tool.run({"pack", cpu, "-o", folder.file("other.cfssz")}), exit_failed);
  }
  EXPECT_EQ(tool.err.text, "orlith pack: error: " + cpu + ": became shorter while it was read\n");
  ToolSession other;
  {
    const faults::Short slow(faults::Call::pread, 100, 1, 1);
    const faults::Answer at_end(faults::Call::pread, 0, 2);
    EXPECT_EQ(other.run({"unpack", packed, "-o", back}), exit_failed);
  }
  EXPECT_EQ(other.err.text, "orlith unpack: error: " + packed + ": became shorter while it was read\n");
  EXPECT_EQ(file_count(), 2);
}

TEST_F(Pack, SaysWhereAFileCannotBeRead) {
  const std::string cpu = folder.write("cpu.nnt", sample_nnt_file());
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  {
    const faults::Fail fail(faults::Call::pread, EIO, 2);
    EXPECT_EQ(tool.run({"pack", cpu, "-o", folder.file("other.cfssz")}), exit_failed);
  }
  EXPECT_EQ(tool.err.text, "orlith pack: error: " + cpu + ": at offset 16: Input/output error\n");
  ToolSession other;
  {
    const faults::Short slow(faults::Call::pread, 100, 1, 1);
    const faults::Fail fail(faults::Call::pread, EIO, 2);
    EXPECT_EQ(other.run({"unpack", packed, "-o", back}), exit_failed);
  }
  EXPECT_EQ(other.err.text, "orlith unpack: error: " + packed + ": at offset 100: Input/output error\n");
  EXPECT_EQ(file_count(), 2);
}

TEST_F(Pack, ReadsOnAfterShortAndInterruptedReads) {
  folder.write("a.cfssz", packed_file(sample_nnt_file()));
  const faults::Short slow(faults::Call::pread, 7);
  const faults::Fail signal(faults::Call::pread, EINTR, 3, 2);
  EXPECT_EQ(unpack(), exit_fine) << tool.err.text;
  EXPECT_TRUE(slow.hit() && signal.hit());
  EXPECT_TRUE(folder.read("back.nnt") == sample_nnt_file());
}

TEST_F(Pack, UnpackRefusesEveryCutAndEveryTurnedBit) {
  ASSERT_EQ(pack(folder.write("a.nnt", every_type())), exit_fine);
  const std::string stream = folder.read("a.cfssz");
  for (size_t len = 0; len < stream.size(); ++len) fault_of(stream.substr(0, len));
  EXPECT_EQ(fault_of(stream + "x"), "1 bytes after the last record; expected none\n");
  for (size_t bit = 0; bit < 8 * (stream.size() - 1); ++bit) {  // some bits of the last byte are not used
    std::string turned = stream;
    turned[bit / 8] = static_cast<char>(turned[bit / 8] ^ 1 << bit % 8);
    fault_of(turned);
  }
}

TEST_F(Pack, UnpackSaysWhatIsWrong) {
  EXPECT_EQ(fault_of(""), "could not read header: found 0 bytes, expected 6\n");
  EXPECT_EQ(fault_of(sample_nnt_file()), "unknown signature: found 0x4e4e, expected 0x4e31 or 0x4e32\n");
  EXPECT_EQ(fault_of(std::string("N1\0\0\0\1", 6)), "too few records: found 1, expected at least 2\n");
  EXPECT_EQ(fault_of("N2\xff\xff\xff\xff"), "too many slots: found 4294967293, expected at most 16777216\n");
  EXPECT_EQ(fault_of(std::string("N2\0\0\0\2", 6)),
            "record 0 of 2 at bit 48: is cut or damaged (6 bytes in the file)\n");
  EXPECT_EQ(fault_of(std::string("N2\0\0\0\2\0\0\0", 9)),
            "unknown version: found '\\x00\\x00\\x00\\x00', expected 'NNT1'\n");
}

TEST_F(Pack, UnpackRefusesForgedRecords) {
  const std::string header = nnt_header(60, 0) + std::string(16, '\0');
  std::string slot = double_record(1), bad_type = slot;
  EXPECT_THAT(fault_of(PackedModel().add(header).add(slot).add(header).text()),
              HasSubstr("slot 0: checksum byte 0x"));
  bad_type[0] = 0;
  bad_type[1] = 7;
  EXPECT_EQ(fault_of(PackedModel().add(header).add(bad_type).add(header).text()),
            "slot 0: type code 7 in a record with data, expected 1 to 6\n");
  slot[0] = 0;
  EXPECT_THAT(fault_of(PackedModel().add(header).add(slot).add(absent_record).text()),
              HasSubstr("hash 0000000000000000, expected "));
  EXPECT_EQ(fault_of(PackedModel().add(nnt_header(60, 0) + std::string(15, '\0') + "x").add(header).text()),
            "record 0: more than a header\n");
  EXPECT_EQ(fault_of(PackedModel().add(nnt_header(0, 0) + std::string(16, '\0')).add(header).text()),
            "invalid period: found 0, expected at least 1\n");
}

}  // namespace
