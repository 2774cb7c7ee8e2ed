#include <gtest/gtest.h>

#include <vector>

#include "liborlith/topo/topo_private.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

using Hasher = void (*)(const char *, uint32_t, uint32_t, uint8_t *);

// One point by the definition: the general hash over 38 bytes.
std::string point_by_definition(const std::string &id, uint32_t number) {
  std::string message = id.substr(0, 36);
  message += static_cast<char>(number >> 8);
  message += static_cast<char>(number & 0xff);
  uint8_t out[32];
  topo_hash(message.data(), message.size(), out);
  return hex(out);
}

class PointHash : public testing::TestWithParam<Hasher> {};
INSTANTIATE_TEST_SUITE_P(Both, PointHash, testing::Values(topo_hash_points, topo_hash_points_portable));

TEST_P(PointHash, KnownPoints) {
  std::vector<uint8_t> points(65535 * 32);
  GetParam()(kId1.c_str(), 0, 65535, points.data());
  EXPECT_EQ(hex(&points[0]), "0e74ae38499610e86ccbd6569fedb934f5f6da358caac6666f3093525853e213");
  EXPECT_EQ(hex(&points[32]), "ed627896aea8b943c24733dc3aea984b4f2ab95a481cfb4cc9200b2dbeee01ba");
  EXPECT_EQ(hex(&points[258 * 32]), "80e1c3e5175b7809f2e5d1aa7a4227bb27a33988678b9e47b9fe33411b633d79");
  EXPECT_EQ(hex(&points[65534 * 32]), "bf929940710abc32d1ed5840a74d12799f0b500342c086937244e1ebfba02664");
}

TEST_P(PointHash, AnyRunOfPoints) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 50; ++round) {
    const std::string id = numbered_id(static_cast<unsigned>(random()));
    const uint32_t count = static_cast<uint32_t>(random() % 9);
    const uint32_t first = static_cast<uint32_t>(random() % (65536 - count));
    SCOPED_TRACE(id + " from " + std::to_string(first) + ", " + std::to_string(count));
    std::vector<uint8_t> points(count * 32 + 1, 0xcd);
    GetParam()(id.c_str(), first, count, points.data());
    for (uint32_t i = 0; i < count; ++i) EXPECT_EQ(hex(&points[32 * i]), point_by_definition(id, first + i));
    EXPECT_EQ(points.back(), 0xcd) << "wrote past the end";
  }
}

}  // namespace
