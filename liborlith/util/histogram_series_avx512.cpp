// Columns of histograms with the 64-byte instructions of AVX-512: masks do the work of all branches.
#include "liborlith/util/histogram_series_columns_private.h"
#include "liborlith/util/histogram_series_count_private.h"

#if defined(__x86_64__)

#ifndef __clang__
// Instructions without a merged operand are given an uninitialised one by the compiler's own header, and it then
// warns of that wherever they are inlined.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <immintrin.h>

#include <algorithm>
#include <array>
#include <bit>

#define WIDE_TARGET \
  __attribute__((target("avx512f,avx512bw,avx512vl,avx512dq,avx512cd,avx512vbmi,avx512vbmi2,popcnt")))
#define WIDE_INLINE WIDE_TARGET __attribute__((always_inline)) inline

namespace hss {
namespace {

constexpr size_t kCounts = 8;  // counts in 64 bytes
constexpr size_t kCodes = 32;  // codes in 64 bytes

// The first `n` lanes, all of `Mask` where there are more.
template <typename Mask>
constexpr Mask first_lanes(size_t n) noexcept {
  constexpr size_t kLanes = 8 * sizeof(Mask);
  return n >= kLanes ? static_cast<Mask>(~Mask{0}) : static_cast<Mask>((uint64_t{1} << n) - 1);
}

struct Buckets {
  __m512i mantissas;  // 16 bits each, signed
  __m512i exponents;
};

// As hist_bucket_of_code().
WIDE_INLINE Buckets buckets_of(__m512i codes) noexcept {
  const __m512i zero = _mm512_setzero_si512();
  const __mmask32 is_negative = ~_mm512_movepi16_mask(codes);
  const __mmask32 is_zero = _mm512_cmpeq_epi16_mask(codes, _mm512_set1_epi16(INT16_MIN));
  const __mmask32 is_no_number = _mm512_cmpeq_epi16_mask(codes, _mm512_set1_epi16(-1));
  const __m512i mirrored = _mm512_mask_sub_epi16(codes, is_negative, _mm512_set1_epi16(-1), codes);
  const __m512i magnitudes = _mm512_and_si512(mirrored, _mm512_set1_epi16(0x7fff));
  const __m512i positive = _mm512_and_si512(magnitudes, _mm512_set1_epi16(0x7f));
  const __m512i mantissas = _mm512_mask_sub_epi16(positive, is_negative, zero, positive);
  const __m512i exponents = _mm512_sub_epi16(_mm512_srli_epi16(magnitudes, 7), _mm512_set1_epi16(128));
  return {_mm512_mask_mov_epi16(mantissas, is_no_number, _mm512_set1_epi16(-1)),
          _mm512_mask_mov_epi16(exponents, is_zero | is_no_number, zero)};
}

WIDE_INLINE uint8_t *write_buckets(uint8_t *at, const hist_code_t *codes, size_t n) noexcept {
  uint8_t *const exponents = at;
  uint8_t *const mantissas = at + n;
  for (size_t i = 0; i < n; i += kCodes) {
    const auto lanes = first_lanes<uint32_t>(n - i);
    const __m512i here = _mm512_maskz_loadu_epi16(lanes, codes + i);
    __m512i before = _mm512_maskz_expand_epi16(~uint32_t{1}, here);
    if (i > 0) before = _mm512_mask_set1_epi16(before, 1, static_cast<int16_t>(codes[i - 1]));
    const Buckets buckets = buckets_of(here);
    const Buckets previous = buckets_of(before);
    const __mmask32 with_previous = i > 0 ? ~uint32_t{0} : ~uint32_t{1};
    const __mmask32 repeats =
        _mm512_mask_cmpeq_epi16_mask(with_previous, buckets.exponents, previous.exponents);
    const __m512i steps =
        _mm512_mask_sub_epi16(buckets.mantissas, repeats, buckets.mantissas, previous.mantissas);
    // Behind the exponents there may be mantissas already, behind the mantissas nothing.
    const __m256i narrow = _mm512_cvtepi16_epi8(buckets.exponents);
    if (i == 0) {
      _mm256_storeu_si256(reinterpret_cast<__m256i *>(exponents), narrow);
    } else {
      _mm256_mask_storeu_epi8(exponents + i, lanes, narrow);
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(mantissas + i), _mm512_cvtepi16_epi8(steps));
  }
  return mantissas + n;
}

// How many bytes a count takes behind its first, less one, by its width in bits, as far as it is below 2^56.
constexpr std::array<uint8_t, 64> kSizes = [] {
  std::array<uint8_t, 64> sizes{};
  std::copy_n(count_sizes().begin(), sizes.size(), sizes.begin());
  return sizes;
}();

// Up to eight counts, each in a lane of its own, then moved together.
WIDE_INLINE uint8_t *write_counts(uint8_t *at, const uint64_t *counts, size_t n) noexcept {
  const auto lanes = first_lanes<uint8_t>(n);
  const __m512i one = _mm512_set1_epi64(1);
  __m512i c = _mm512_maskz_loadu_epi64(lanes, counts);
  const __mmask8 is_negative = _mm512_cmpeq_epi64_mask(_mm512_srli_epi64(c, 56), _mm512_set1_epi64(0xff));
  c = _mm512_mask_xor_epi64(c, is_negative, c, _mm512_set1_epi64(-1));
  if (_mm512_test_epi64_mask(c, _mm512_set1_epi64(static_cast<int64_t>(uint64_t{0xff} << 56))) != 0) {
    for (size_t i = 0; i < std::min(n, kCounts); ++i)
      at = hss_write_bvcount(at, at + kMaxCountBytes, static_cast<int64_t>(counts[i]));
    return at;
  }
  const __mmask8 is_short =
      _mm512_cmplt_epu64_mask(_mm512_sub_epi64(c, one), _mm512_set1_epi64(kLargestShort));
  const __m512i widths = _mm512_sub_epi64(_mm512_set1_epi64(64), _mm512_lzcnt_epi64(c));
  // The other bytes of a lane look up what a width of 0 takes, which is 0.
  const __m512i sizes = _mm512_permutexvar_epi8(widths, _mm512_loadu_si512(kSizes.data()));
  const __m512i flags = _mm512_maskz_mov_epi64(is_negative, _mm512_set1_epi64(kNegative));
  const __m512i long_form = _mm512_or_si512(_mm512_slli_epi64(c, 8), sizes);
  const __m512i form = _mm512_mask_slli_epi64(long_form, is_short, c, 4);
  const __m512i bytes = _mm512_or_si512(form, flags);
  const __m512i lengths = _mm512_mask_mov_epi64(_mm512_add_epi64(sizes, _mm512_set1_epi64(2)), is_short, one);
  // A lane's length in each of its bytes.
  const __m512i spread = _mm512_set_epi64(0x0808080808080808, 0, 0x0808080808080808, 0, 0x0808080808080808, 0,
                                          0x0808080808080808, 0);
  const __m512i ends = _mm512_shuffle_epi8(_mm512_maskz_mov_epi64(lanes, lengths), spread);
  const __mmask64 taken = _mm512_cmplt_epu8_mask(_mm512_set1_epi64(0x0706050403020100), ends);
  _mm512_storeu_si512(at, _mm512_maskz_compress_epi8(taken, bytes));
  return at + std::popcount(taken);
}

// Up to so many counts are looked at together, so that which of them differ is known before anything is done about it.
constexpr size_t kTogether = 2048;
constexpr size_t kWordBits = 64;
using Words = uint64_t[kTogether / kWordBits];

// Eight counts of each, the first `lanes` of them.
WIDE_INLINE uint64_t compare_eight(const uint64_t *now, const uint64_t *before, __mmask8 lanes) noexcept {
  return _mm512_cmpneq_epi64_mask(_mm512_maskz_loadu_epi64(lanes, now),
                                  _mm512_maskz_loadu_epi64(lanes, before));
}

// A bit for each count that differs, of up to kTogether; returns how many there are.
WIDE_INLINE size_t compare(const uint64_t *now, const uint64_t *before, size_t n, Words words) noexcept {
  size_t changes = 0;
  for (size_t i = 0; i < n; i += kWordBits) {
    const size_t len = std::min(n - i, kWordBits);
    const size_t full = len / kCounts * kCounts;
    uint64_t bits = 0;
    if (len == kWordBits) {
#pragma GCC unroll 8
      for (size_t k = 0; k < kWordBits; k += kCounts)
        bits |= compare_eight(now + i + k, before + i + k, 0xff) << k;
    } else {
#pragma GCC unroll 1
      for (size_t k = 0; k < full; k += kCounts)
        bits |= compare_eight(now + i + k, before + i + k, 0xff) << k;
      if (full < len) {
        const auto lanes = first_lanes<uint8_t>(len - full);
        bits |= compare_eight(now + i + full, before + i + full, lanes) << full;
      }
    }
    words[i / kWordBits] = bits;
    changes += static_cast<size_t>(std::popcount(bits));
  }
  return changes;
}

// The differences of two columns of counts as they are gathered.
struct Changes {
  hist_code_t *codes;
  uint64_t *counts;
  size_t n = 0;
  bool overflows = false;
};

// Few differ: each is looked up by its place.
WIDE_INLINE void put_few(const Columns &h, const uint64_t *prior_counts, const Words words,
                         Changes &out) noexcept {
  hist_code_t *const places = out.codes + out.n;  // until the codes take their place
  const __m512i lanes =
      _mm512_set_epi8(63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42,
                      41, 40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20,
                      19, 18, 17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
  size_t n = 0;
  for (size_t i = 0; i < h.n; i += kWordBits) {
    const uint64_t bits = words[i / kWordBits];
    const __m512i first = _mm512_set1_epi16(static_cast<int16_t>(i));
    const __m512i packed = _mm512_maskz_compress_epi8(bits, lanes);
    const auto count = static_cast<size_t>(std::popcount(bits));
    _mm512_storeu_si512(places + n,
                        _mm512_add_epi16(first, _mm512_cvtepu8_epi16(_mm512_castsi512_si256(packed))));
    if (count > kCodes) {
      const __m512i rest = _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(packed, 1));
      _mm512_storeu_si512(places + n + kCodes, _mm512_add_epi16(first, rest));
    }
    n += count;
  }
  uint64_t *const counts = out.counts + out.n;
  uint64_t large = 0;
  for (size_t k = 0; k < n; ++k) {
    const size_t i = places[k];
    const uint64_t now = h.counts[i];
    const uint64_t before = prior_counts[i];
    large |= now | before;
    places[k] = h.codes[i];
    counts[k] = now - before;
  }
  out.n += n;
  out.overflows |= large >> 63 != 0 && any_overflows(h, prior_counts);
}

// Many differ: all are subtracted, and what is 0 left out.
WIDE_INLINE void put_many(const Columns &h, const uint64_t *prior_counts, Changes &out) noexcept {
  size_t n = out.n;
  unsigned wrong_signs = 0;
  for (size_t i = 0; i < h.n; i += kCounts) {
    const auto lanes = first_lanes<uint8_t>(h.n - i);
    const __m512i now = _mm512_maskz_loadu_epi64(lanes, h.counts + i);
    const __m512i before = _mm512_maskz_loadu_epi64(lanes, prior_counts + i);
    const __m512i change = _mm512_sub_epi64(now, before);
    const __mmask8 has_changed = _mm512_test_epi64_mask(change, change);
    wrong_signs |= static_cast<unsigned>(_mm512_cmplt_epu64_mask(now, before) ^ _mm512_movepi64_mask(change));
    const __m128i here = _mm_maskz_loadu_epi16(lanes, h.codes + i);
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out.codes + n), _mm_maskz_compress_epi16(has_changed, here));
    _mm512_storeu_si512(out.counts + n, _mm512_maskz_compress_epi64(has_changed, change));
    n += static_cast<size_t>(std::popcount(static_cast<unsigned>(has_changed)));
  }
  out.n = n;
  out.overflows |= wrong_signs != 0;
}

}  // namespace

WIDE_TARGET size_t subtract_avx512(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes,
                                   uint64_t *counts, bool *overflows) noexcept {
  constexpr size_t kFewer = 10;  // one of so many is few
  Changes out{.codes = codes, .counts = counts};
  for (size_t i = 0; i < h.n; i += kTogether) {
    const Columns part = {h.codes + i, h.counts + i, std::min(h.n - i, kTogether)};
    Words words;
    const size_t changes = compare(part.counts, prior_counts + i, part.n, words);
    if (changes * kFewer < part.n) {
      put_few(part, prior_counts + i, words, out);
    } else {
      put_many(part, prior_counts + i, out);
    }
  }
  *overflows = out.overflows;
  return out.n;
}

WIDE_TARGET uint8_t *write_avx512(uint8_t *at, const Columns &h) noexcept {
  const Columns own = h;
  at = write_buckets(at, own.codes, own.n);
  for (size_t i = 0; i < own.n; i += kCounts) at = write_counts(at, own.counts + i, own.n - i);
  return at;
}

}  // namespace hss

#endif
