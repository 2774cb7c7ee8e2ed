// The three questions that are asked of bytes side by side: where a byte stands among the sixteen of a node, before
// which of them it belongs, and whether the stored bytes of a path agree with a key. Needs nothing of the library, so
// that it can be compiled alone for another processor.
#ifndef LIBORLITH_UTIL_VASK_ART_SIMD_PRIVATE_H
#define LIBORLITH_UTIL_VASK_ART_SIMD_PRIVATE_H

#include <stdint.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace liborlith {

#if defined(__SSE2__)

// A set of positions among sixteen bytes, kBitsPerByte bits each; lowest first.
using ByteSet = uint32_t;
inline constexpr unsigned kBitsPerByte = 1;

inline ByteSet bytes_equal(const uint8_t *keys, uint8_t c) noexcept {
  const __m128i all = _mm_loadu_si128(reinterpret_cast<const __m128i *>(keys));
  return static_cast<ByteSet>(_mm_movemask_epi8(_mm_cmpeq_epi8(all, _mm_set1_epi8(static_cast<char>(c)))));
}
// Compared as signed bytes.
inline ByteSet bytes_greater(const uint8_t *keys, uint8_t c) noexcept {
  const __m128i all = _mm_loadu_si128(reinterpret_cast<const __m128i *>(keys));
  return static_cast<ByteSet>(_mm_movemask_epi8(_mm_cmpgt_epi8(all, _mm_set1_epi8(static_cast<char>(c)))));
}

#elif defined(__ARM_NEON)

using ByteSet = uint64_t;
inline constexpr unsigned kBitsPerByte = 4;

inline ByteSet set_of(uint8x16_t holds) noexcept {
  const uint8x8_t nibbles = vshrn_n_u16(vreinterpretq_u16_u8(holds), 4);
  return vget_lane_u64(vreinterpret_u64_u8(nibbles), 0) & 0x1111111111111111u;
}
inline ByteSet bytes_equal(const uint8_t *keys, uint8_t c) noexcept {
  return set_of(vceqq_u8(vld1q_u8(keys), vdupq_n_u8(c)));
}
inline ByteSet bytes_greater(const uint8_t *keys, uint8_t c) noexcept {
  return set_of(vcgtq_s8(vreinterpretq_s8_u8(vld1q_u8(keys)), vdupq_n_s8(static_cast<int8_t>(c))));
}

#else

using ByteSet = uint32_t;
inline constexpr unsigned kBitsPerByte = 1;

inline ByteSet bytes_equal(const uint8_t *keys, uint8_t c) noexcept {
  ByteSet set = 0;
  for (unsigned i = 0; i < 16; ++i) set |= ByteSet{keys[i] == c} << i;
  return set;
}
inline ByteSet bytes_greater(const uint8_t *keys, uint8_t c) noexcept {
  ByteSet set = 0;
  for (unsigned i = 0; i < 16; ++i)
    set |= ByteSet{static_cast<int8_t>(keys[i]) > static_cast<int8_t>(c)} << i;
  return set;
}

#endif

// The first position in the set that is below `count` (at most 16), or `count`.
inline unsigned first_below(ByteSet set, unsigned count) noexcept {
  if constexpr (kBitsPerByte == 1) {
    // `count` itself as one more position: no branch and no comparison.
    return static_cast<unsigned>(__builtin_ctz(static_cast<uint32_t>(set) | uint32_t{1} << (count & 31)));
  } else {
    if (set == 0) return count;
    const unsigned first = static_cast<unsigned>(__builtin_ctzll(set)) / kBitsPerByte;
    return first < count ? first : count;
  }
}

}  // namespace liborlith

#endif
