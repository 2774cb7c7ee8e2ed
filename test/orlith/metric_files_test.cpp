#include "orlith/metric_files.h"

#include <gtest/gtest.h>

#include <array>

#include "orlith/data_path.h"

namespace {

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";

MetricPlace place(uint32_t period_s, uint8_t kinds) {
  MetricPlace result;
  result.period_s = period_s;
  result.kinds = kinds;
  return result;
}

MetricPlace below(uint8_t node, uint32_t period_s, uint8_t kinds) {
  MetricPlace result = place(period_s, kinds);
  result.below_node = true;
  result.node.fill(node);
  return result;
}

std::string bytes_of_one(std::array<uint8_t, 28> bytes) {
  return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
}

constexpr std::array<uint8_t, 28> kSixty = {1, 0, 1, 0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0,
                                            0, 0, 0, 0, 0, 0, 60, 0, 0, 0, 0, 1, 0, 0};

TEST(MetricFiles, AreKeptInOrderAndOnce) {
  MetricFiles files;
  add_place(&files, below(2, 60, kind_rollup));
  add_place(&files, place(300, kind_rollup));
  add_place(&files, place(60, kind_rollup));
  add_place(&files, place(300, kind_histograms));
  add_place(&files, below(1, 60, kind_histograms));
  add_place(&files, place(60, kind_rollup));
  const MetricFiles expected = {place(60, 1), place(300, 3), below(1, 60, 2), below(2, 60, 1)};
  EXPECT_EQ(files, expected);
  EXPECT_TRUE(has_place(files, place(300, kind_rollup)));
  EXPECT_FALSE(has_place(files, place(60, kind_histograms)));
  EXPECT_FALSE(has_place(files, below(3, 60, kind_rollup)));
  EXPECT_FALSE(has_place(files, below(0, 60, kind_rollup)));
}

TEST(MetricFiles, TheBytesOfOnePlace) {
  EXPECT_EQ(encode_files({place(60, kind_rollup)}), bytes_of_one(kSixty));
  std::array<uint8_t, 28> of_node = kSixty;
  for (size_t i = 4; i < 20; ++i) of_node[i] = 7;
  of_node[20] = 0x2c;
  of_node[21] = 1;
  of_node[24] = 1;
  of_node[25] = 3;
  EXPECT_EQ(encode_files({below(7, 300, kind_rollup | kind_histograms)}), bytes_of_one(of_node));
}

TEST(MetricFiles, ComeBackWhateverFollowsThem) {
  const MetricFiles files = {place(60, 1), place(300, 3), below(1, 60, 2), below(2, UINT32_MAX, 1)};
  MetricFiles back;
  EXPECT_EQ(decode_files(encode_files(files) + "rest", &back), "");
  EXPECT_EQ(back, files);
}

TEST(MetricFiles, SayWhatIsWrongWithTheirBytes) {
  const auto fault_of = [](size_t at, uint8_t byte) {
    std::array<uint8_t, 28> bytes = kSixty;
    bytes[at] = byte;
    MetricFiles ignored;
    return decode_files(bytes_of_one(bytes), &ignored);
  };
  EXPECT_EQ(fault_of(0, 2), "unknown path form 2, expected 1");
  EXPECT_EQ(fault_of(1, 1), "bytes that are not used are not zero");
  EXPECT_EQ(fault_of(2, 0), "a metric without files");
  EXPECT_EQ(fault_of(2, 2), "24 bytes are left for 2 places of 24");
  EXPECT_EQ(fault_of(3, 255), "24 bytes are left for 65281 places of 24");
  EXPECT_EQ(fault_of(4, 1), "place 0: a node where none is expected");
  EXPECT_EQ(fault_of(20, 0), "place 0: a period of 0 seconds");
  EXPECT_EQ(fault_of(24, 2), "place 0: found 2 where 0 or 1 is expected");
  EXPECT_EQ(fault_of(25, 0), "place 0: unknown kinds 0");
  EXPECT_EQ(fault_of(25, 4), "place 0: unknown kinds 4");
  EXPECT_EQ(fault_of(27, 1), "place 0: bytes that are not used are not zero");
  MetricFiles ignored;
  EXPECT_EQ(decode_files("\1", &ignored), "1 bytes are left for a head of 4");
  std::string twice = encode_files({place(60, 1), place(60, 1)});
  EXPECT_EQ(decode_files(twice, &ignored), "place 1: not behind the one before it");
  EXPECT_EQ(decode_files(encode_files({place(61, 1), place(60, 1)}), &ignored),
            "place 1: not behind the one before it");
}

TEST(MetricFiles, PathsAreThoseOfTheDataFolder) {
  const std::vector<MetricFile> files =
      files_of(kCheck + "-mem|ST[kind:free]", {place(60, 1), below(0xab, 300, 3)});
  ASSERT_EQ(files.size(), 3u);
  const std::string encoded = "bWVtfFNUW2tpbmQ6ZnJlZV0=";
  const std::string node = "abababab-abab-abab-abab-abababababab";
  EXPECT_EQ(files[0].path, "60/" + kCheck + "/" + encoded + ".nnt");
  EXPECT_EQ(files[0].node, "");
  EXPECT_EQ(files[1].path, node + "/300/" + kCheck + "/" + encoded + ".nnt");
  EXPECT_EQ(files[2].path, node + "/300/" + kCheck + "/" + encoded + ".hist");
  EXPECT_EQ(files[2].node, node);
  EXPECT_EQ(files[2].period_s, 300u);
  EXPECT_EQ(files[2].kind, kind_histograms);
}

TEST(MetricFiles, KeysHaveAForm) {
  EXPECT_TRUE(is_metric_key(kCheck + "-"));
  EXPECT_TRUE(is_metric_key(kCheck + "-cpu"));
  EXPECT_FALSE(is_metric_key(kCheck));
  EXPECT_FALSE(is_metric_key(kCheck + "+cpu"));
  EXPECT_FALSE(is_metric_key("6F2d1c66-9d0e-4c35-8a35-0123456789ab-cpu"));
  EXPECT_FALSE(is_metric_key(kCheck + std::string("-c\0u", 4)));
  EXPECT_FALSE(is_metric_key(""));
}

TEST(EncodedName, IsBase64WithUnderscoresAndComesBack) {
  EXPECT_EQ(encoded_name(""), "");
  EXPECT_EQ(encoded_name("cpu"), "Y3B1");
  EXPECT_EQ(encoded_name("a???"), "YT8_Pw==");
  // The first character is not replaced.
  EXPECT_EQ(encoded_name("\xff\xff\xff"), "/___");
  for (const std::string name : {"", "cpu", "a???", "\xff\xff\xff"})
    EXPECT_EQ(decoded_name(encoded_name(name)), name);
  for (const std::string text : {"Y3B", "____", "Y3/1", "Y3B1\n", "Y3B1Y", "="})
    EXPECT_EQ(decoded_name(text), std::nullopt);
}

}  // namespace
