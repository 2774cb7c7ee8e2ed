// The numbers of the stored form, which doc/histogram.md describes. Internal to the library.
#ifndef VASKLLHIST_FORMAT_PRIVATE_H
#define VASKLLHIST_FORMAT_PRIVATE_H

#include <bit>
#include <cstddef>
#include <cstdint>

namespace vaskllhist {

constexpr uint8_t kMark = 'h';
constexpr uint8_t kVersion = 0x10;      // version 1, in the upper half of the second byte
constexpr uint8_t kDifferenceFlag = 1;  // in the lower half
constexpr size_t kHeaderBytes = 2;
constexpr size_t kFirstCodeBytes = 2;     // little-endian
constexpr size_t kMinBytesPerBucket = 2;  // one of the step, one of the count

// Seven bits a byte, the lowest first; all bytes but the last have the top bit set. Numbers of 64 bits take up to 10.
constexpr size_t varint_size(uint64_t number) {
  return number == 0 ? 1 : (static_cast<size_t>(std::bit_width(number)) + 6) / 7;
}

// A signed count as an unsigned number that is small when its magnitude is: 0, -1, 1, -2, 2 become 0, 1, 2, 3, 4.
constexpr uint64_t zigzag(uint64_t count) {
  return count << 1 ^ (0 - (count >> 63));
}

constexpr uint64_t from_zigzag(uint64_t number) {
  return number >> 1 ^ (0 - (number & 1));
}

}  // namespace vaskllhist

#endif
