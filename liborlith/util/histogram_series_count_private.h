// The counts in the image of a histogram series: signed 64-bit numbers in 1 to 9 bytes.
//
//   c << 4 | flag                  1 to 15
//   flag | k, k + 1 bytes of c     all others, least significant byte first
//
// A count whose top byte is 0xff is a negative one, written as its complement with the flag 8.
#ifndef LIBORLITH_UTIL_HISTOGRAM_SERIES_COUNT_PRIVATE_H
#define LIBORLITH_UTIL_HISTOGRAM_SERIES_COUNT_PRIVATE_H

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

namespace hss {

constexpr size_t kMaxCountBytes = 9;
constexpr uint8_t kNegative = 8;
constexpr uint64_t kLargestShort = 15;

// The largest count for each k up to 6; above them k is 7. The fourth is 36 bits wide and the sixth 52, wider by
// half a byte than what k + 1 bytes hold, so that counts of 33 to 36 and of 49 to 52 bits lose their top four
// bits. They stay as they are: every image there is was written with them.
constexpr uint64_t kCountLimits[] = {0xff,         0xffff,          0xffffff,        0xfffffffff,
                                     0xffffffffff, 0xfffffffffffff, 0xffffffffffffff};

// k by the count's width in bits; the limits are whole numbers of bits.
constexpr std::array<uint8_t, 65> count_sizes() {
  std::array<uint8_t, 65> sizes{};
  for (size_t width = 0; width <= 64; ++width) {
    const uint64_t largest = width == 0 ? 0 : ~uint64_t{0} >> (64 - width);
    uint8_t k = 0;
    while (k < 7 && largest > kCountLimits[k]) ++k;
    sizes[width] = k;
  }
  return sizes;
}

// Writes a count at `at`; returns the place behind it, or null when it does not fit before `end`.
inline uint8_t *hss_write_bvcount(uint8_t *at, const uint8_t *end, int64_t count) {
  static constexpr std::array<uint8_t, 65> kSizes = count_sizes();
  auto c = static_cast<uint64_t>(count);
  uint8_t flag = 0;
  if (c >> 56 == 0xff) {
    c = ~c;
    flag = kNegative;
  }
  const auto room = static_cast<size_t>(end - at);
  if (c - 1 < kLargestShort) {
    if (room < 1) return nullptr;
    *at = static_cast<uint8_t>(c << 4 | flag);
    return at + 1;
  }
  const uint8_t k = kSizes[static_cast<size_t>(std::bit_width(c))];
  const size_t len = size_t{k} + 1;
  if (room < 1 + len) return nullptr;
  *at = static_cast<uint8_t>(flag | k);
  memcpy(at + 1, &c, room < kMaxCountBytes ? len : sizeof(c));
  return at + 1 + len;
}

// Reads a count at `at`; returns the place behind it, or null when it does not end before `end`.
inline const uint8_t *hss_read_bvcount(const uint8_t *at, const uint8_t *end, int64_t *count) {
  if (at == end) return nullptr;
  const uint8_t first = *at++;
  const uint64_t flip = (first & kNegative) != 0 ? ~uint64_t{0} : 0;
  if (first > kLargestShort) {
    *count = static_cast<int64_t>((first >> 4) ^ flip);
    return at;
  }
  const size_t len = (first & 7u) + 1;
  const auto room = static_cast<size_t>(end - at);
  if (room < len) return nullptr;
  uint64_t c = 0;
  if (room < sizeof(c)) {
    memcpy(&c, at, len);
  } else {
    memcpy(&c, at, sizeof(c));
    c &= ~uint64_t{0} >> (64 - 8 * len);
  }
  *count = static_cast<int64_t>(c ^ flip);
  return at + len;
}

}  // namespace hss

#endif
