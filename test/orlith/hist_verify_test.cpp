// `orlith hist verify`, on series files that are written independently of the library: doc/histogram-series.md.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "orlith/signals.h"
#include "test/orlith/series_model.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

bool stands_for(const Bytes &frame, const Bytes &image) {
  try {
    return decompressed(frame) == image;
  } catch (const std::runtime_error &) {
    return false;
  }
}

struct HistVerify : testing::Test {
  int verify(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"hist", "verify"});
    return tool.run(arguments);
  }
  // Verifies an image; what is said of its only damage.
  std::string damage_of(const Image &image) {
    const std::string path = folder.write("image.hss", series_file(image.bytes()));
    ToolSession one;
    EXPECT_EQ(one.run({"hist", "verify", path}), exit_damaged) << one.err.text;
    const std::string start = path + ": damaged: ";
    EXPECT_THAT(one.out.text, StartsWith(start));
    return one.out.text.substr(start.size(), one.out.text.find('\n') - start.size());
  }

  TempDir folder;
  ToolSession tool;
  const std::string sound = folder.write("latency.hss", sample_series_file());
  const std::string damaged = folder.write("damaged.hss", damaged_series_file());
};

TEST_F(HistVerify, FindsNothingInASoundFile) {
  EXPECT_EQ(verify({sound}), exit_fine) << tool.err.text;
  EXPECT_EQ(tool.out.text, "1 file(s), 3 histograms: no damage found\n");
}

TEST_F(HistVerify, ASeriesWithoutHistogramsIsSound) {
  EXPECT_EQ(verify({folder.write("empty.hss", series_file(day_of_minutes().bytes()))}), exit_fine);
  EXPECT_EQ(tool.out.text, "1 file(s), 0 histograms: no damage found\n");
}

TEST_F(HistVerify, NamesTheFirstHistogramThatDoesNotDecode) {
  EXPECT_EQ(verify({damaged}), exit_damaged);
  EXPECT_EQ(tool.out.text, damaged +
                               ": damaged: 2 of 3 histograms, the first at entry 1 (1699920120): does not "
                               "decode\n"
                               "1 file(s), 3 histograms: 1 damaged file(s), 2 damaged histogram(s)\n");
}

TEST_F(HistVerify, NamesTimesThatNoWriterMakes) {
  Image twice = day_of_minutes(), back = day_of_minutes(), late = day_of_minutes();
  for (Image *image : {&twice, &back, &late}) image->add(60'000, 0, ones_and_twos(2));
  twice.add(0, 0, ones_and_twos(2));
  EXPECT_EQ(damage_of(twice),
            "1 of 2 histograms, the first at entry 1 (1699920060): is not later than the one before");
  back.add(static_cast<uint32_t>(-30'000), 0, ones_and_twos(2));
  EXPECT_EQ(damage_of(back),
            "1 of 2 histograms, the first at entry 1 (1699920030): is not later than the one before");
  late.add(86'400'000 - 60'000, 0, ones_and_twos(2));  // the end belongs to the window
  late.add(1000, 0, ones_and_twos(2));
  EXPECT_EQ(damage_of(late), "1 of 3 histograms, the first at entry 2 (1700006401): lies behind the window");
}

TEST_F(HistVerify, TellsEverythingAsJson) {
  EXPECT_EQ(verify({"--json", sound, damaged}), exit_damaged);
  EXPECT_EQ(tool.out.text,
            "[{\"file\":\"" + sound +
                "\",\"ok\":true,\"base\":1699920000,\"window_ms\":86400000,\"histograms\":3,\"damaged\":0},"
                "{\"file\":\"" +
                damaged +
                "\",\"ok\":false,\"base\":1699920000,\"window_ms\":86400000,\"histograms\":3,\"damaged\":2,"
                "\"first_damaged\":{\"entry\":1,\"time\":1699920120,\"fault\":\"does not decode\"}}]\n");
}

TEST_F(HistVerify, TellsFilesOneByOneAsJsonLines) {
  EXPECT_EQ(verify({"--jsonl", "--iso", damaged, folder.file("none.hss")}), exit_not_found);
  EXPECT_THAT(tool.out.text,
              HasSubstr("\"time\":\"2023-11-14T00:02:00Z\",\"fault\":\"does not decode\"}}\n"));
  EXPECT_THAT(tool.out.text, StartsWith("{\"file\":\"" + folder.file("none.hss") +
                                        "\",\"ok\":false,\"error\":\"No such file or directory\"}\n"));
}

// Some bits of a frame can change without changing what it stands for: a run of zeros copied from further back.
TEST_F(HistVerify, FindsEveryChangedBitOfAFileThatTheLibraryWrote) {
  const Bytes frame =
      serialized(series_of({{60'000, {{{10, 0}, 1}, {{20, 0}, 2}}}, {120'000, {{{10, 0}, 3}}}}).get());
  const Bytes image = decompressed(frame);
  size_t without_effect = 0;
  for (size_t bit = 0; bit < frame.size() * 8; ++bit) {
    Bytes bytes = frame;
    bytes[bit / 8] = static_cast<uint8_t>(bytes[bit / 8] ^ 1U << bit % 8);
    const bool same = stands_for(bytes, image);
    without_effect += same;
    ToolSession one;
    ASSERT_EQ(one.run({"hist", "verify", folder.write("bit.hss", std::string(bytes.begin(), bytes.end()))}),
              same ? exit_fine : exit_damaged)
        << "bit " << bit;
  }
  EXPECT_LT(without_effect, frame.size() * 8 / 20);
}

TEST_F(HistVerify, NamesWhatIsNoSeries) {
  const std::string whole = sample_series_file();
  for (const std::string &bytes :
       {std::string(), std::string("no series"), whole.substr(0, whole.size() - 1), whole + "x"}) {
    ToolSession one;
    const std::string path = folder.write("none.hss", bytes);
    EXPECT_EQ(one.run({"hist", "verify", path}), exit_damaged);
    EXPECT_EQ(one.err.text,
              "orlith hist verify: error: " + path + ": is no histogram series, or a damaged one\n");
    EXPECT_EQ(one.out.text, "1 file(s), 0 histograms: 1 damaged file(s), 0 damaged histogram(s)\n");
  }
}

TEST_F(HistVerify, SearchesFoldersAndSkipsOtherFiles) {
  std::filesystem::create_directories(folder.file("data/a.hist"));
  folder.write("data/a.hist/0.hss", sample_series_file());
  folder.write("data/a.hist/86400.hss", damaged_series_file());
  folder.write("data/a.nnt", "another kind");
  folder.write("data/text.lz4", sample_series_file());
  EXPECT_EQ(verify({folder.file("data")}), exit_damaged);
  EXPECT_THAT(tool.out.text, StartsWith(folder.file("data/a.hist/86400.hss") + ": damaged: 2 of 3"));
  EXPECT_THAT(tool.out.text, HasSubstr("2 file(s), 6 histograms: 1 damaged file(s), 2 damaged histogram(s); "
                                       "2 other file(s) skipped\n"));
}

TEST_F(HistVerify, WhatIsNoFileIsNamed) {
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(verify({pipe}), exit_damaged);
  EXPECT_EQ(tool.err.text, "orlith hist verify: error: " + pipe + ": is no regular file\n");
}

TEST_F(HistVerify, WhatCannotBeReadOutweighsDamage) {
  const faults::Fail fault(faults::Call::pread, EIO, 3, 1);
  EXPECT_EQ(verify({damaged, sound}), exit_failed);
  EXPECT_EQ(tool.err.text, "orlith hist verify: error: " + sound + ": Input/output error\n");
  EXPECT_TRUE(fault.hit());
}

TEST_F(HistVerify, StopsWhenInterrupted) {
  set_interrupted(true);
  EXPECT_EQ(verify({sound, damaged}), exit_interrupted);
  set_interrupted(false);
  EXPECT_EQ(tool.out.text, "0 file(s), 0 histograms: no damage found\n");
}

}  // namespace
