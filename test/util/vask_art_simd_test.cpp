#include "liborlith/util/vask_art_simd_private.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using liborlith::bytes_equal;
using liborlith::bytes_greater;
using liborlith::first_below;

TEST(ArtSimd, AgreesWithALinearScan) {
  std::mt19937 random(1);
  uint8_t unaligned[17];
  uint8_t *keys = unaligned + 1;
  for (int round = 0; round < 20000; ++round) {
    for (int i = 0; i < 16; ++i)
      keys[i] = static_cast<uint8_t>(round % 2 == 0 ? random() : 0x7e + random() % 4);
    const auto c = static_cast<uint8_t>(round % 3 == 0 ? random() : keys[random() % 16]);
    for (unsigned count = 0; count <= 16; ++count) {
      unsigned equal = 0, greater = 0;
      while (equal < count && keys[equal] != c) ++equal;
      while (greater < count && static_cast<int8_t>(keys[greater]) <= static_cast<int8_t>(c)) ++greater;
      ASSERT_EQ(first_below(bytes_equal(keys, c), count), equal);
      ASSERT_EQ(first_below(bytes_greater(keys, c), count), greater);
    }
  }
}

}  // namespace
