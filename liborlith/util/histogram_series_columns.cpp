// Columns of histograms with the instructions that every processor of its kind has, and with AVX2.
#include "liborlith/util/histogram_series_columns_private.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>

#include "liborlith/util/histogram_series_count_private.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

// Compiled for whatever it is inlined into.
#define COLUMN_INLINE __attribute__((always_inline)) inline
#define AVX2_TARGET __attribute__((target("avx2,bmi,bmi2,popcnt")))

namespace hss {
namespace {

// ---- Which counts have changed

constexpr size_t kWordBits = 64;

// The bits of the counts that differ, of up to 64.
using Compare = uint64_t(const uint64_t *now, const uint64_t *before, size_t n) noexcept;

uint64_t compare_one_by_one(const uint64_t *now, const uint64_t *before, size_t n) noexcept {
  uint64_t bits = 0;
  for (size_t i = 0; i < n; ++i) bits |= uint64_t{now[i] != before[i]} << i;
  return bits;
}

#if defined(__x86_64__)

constexpr size_t kAtOnce = 4;  // counts that are compared together

inline unsigned compare_four(const uint64_t *now, const uint64_t *before) noexcept {
  const auto *const a = reinterpret_cast<const __m128i *>(now);
  const auto *const b = reinterpret_cast<const __m128i *>(before);
  // SSE2 compares no more than 32 bits.
  const __m128 first = _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_loadu_si128(a), _mm_loadu_si128(b)));
  const __m128 second = _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_loadu_si128(a + 1), _mm_loadu_si128(b + 1)));
  const __m128 low = _mm_shuffle_ps(first, second, _MM_SHUFFLE(2, 0, 2, 0));
  const __m128 high = _mm_shuffle_ps(first, second, _MM_SHUFFLE(3, 1, 3, 1));
  return static_cast<unsigned>(_mm_movemask_ps(_mm_and_ps(low, high))) ^ 0xf;
}

uint64_t compare_plain(const uint64_t *now, const uint64_t *before, size_t n) noexcept {
  if (n < kAtOnce) return compare_one_by_one(now, before, n);
  const size_t last = n - kAtOnce;  // compared again as far as it overlaps
  uint64_t bits = uint64_t{compare_four(now + last, before + last)} << last;
  for (size_t i = 0; i < last; i += kAtOnce) bits |= uint64_t{compare_four(now + i, before + i)} << i;
  return bits;
}

AVX2_TARGET inline unsigned compare_four_avx2(const uint64_t *now, const uint64_t *before) noexcept {
  const __m256i same = _mm256_cmpeq_epi64(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(now)),
                                          _mm256_loadu_si256(reinterpret_cast<const __m256i *>(before)));
  return static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(same))) ^ 0xf;
}

AVX2_TARGET uint64_t compare_avx2(const uint64_t *now, const uint64_t *before, size_t n) noexcept {
  if (n < kAtOnce) return compare_one_by_one(now, before, n);
  const size_t last = n - kAtOnce;
  uint64_t bits = uint64_t{compare_four_avx2(now + last, before + last)} << last;
  for (size_t i = 0; i < last; i += kAtOnce) bits |= uint64_t{compare_four_avx2(now + i, before + i)} << i;
  return bits;
}

#else

constexpr Compare &compare_plain = compare_one_by_one;

#endif

// ---- The differences

// The numbers of the bits that are set, from `first` on; up to seven more places are overwritten. Eight at a time: how
// many there are is then mostly foreseen.
COLUMN_INLINE size_t put_places(uint64_t bits, size_t first, hist_code_t *places) noexcept {
  static_assert(HIST_MAX_BUCKETS <= UINT16_MAX && kColumnPadding >= 7);
  const auto n = static_cast<size_t>(std::popcount(bits));
  for (size_t done = 0; done < n; done += 8) {
    for (size_t i = 0; i < 8; ++i) {
      places[done + i] = static_cast<hist_code_t>(first + static_cast<size_t>(std::countr_zero(bits)));
      bits &= bits - 1;
    }
  }
  return n;
}

template <Compare compare>
COLUMN_INLINE size_t subtract(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes,
                              uint64_t *counts, bool *overflows) noexcept {
  const Columns own = h;  // what is stored could be its fields for all the compiler knows
  size_t n = 0;
  for (size_t i = 0; i < own.n; i += kWordBits) {
    const uint64_t bits = compare(own.counts + i, prior_counts + i, std::min(own.n - i, kWordBits));
    n += put_places(bits, i, codes + n);
  }
  uint64_t large = 0;
  for (size_t k = 0; k < n; ++k) {
    const size_t i = codes[k];
    const uint64_t now = own.counts[i];
    const uint64_t before = prior_counts[i];
    large |= now | before;
    codes[k] = own.codes[i];
    counts[k] = now - before;
  }
  *overflows = large >> 63 != 0 && any_overflows(own, prior_counts);
  return n;
}

// ---- Writing

// Eight codes side by side.
typedef hist_code_t Codes __attribute__((vector_size(16)));
typedef uint8_t Octets __attribute__((vector_size(8)));
constexpr size_t kSideBySide = sizeof(Codes) / sizeof(hist_code_t);
constexpr int kMantissaBits = 7;
constexpr hist_code_t kMantissaMask = (1 << kMantissaBits) - 1;
constexpr hist_code_t kZeroCode = 0x8000;
constexpr hist_code_t kNoNumberCode = 0xffff;

COLUMN_INLINE void store_octets(uint8_t *at, Codes numbers) noexcept {
  const Octets octets = __builtin_convertvector(numbers, Octets);
  memcpy(at, &octets, sizeof(octets));
}

// Buckets of positive numbers, which is what most histograms have and nothing else.
COLUMN_INLINE void write_positive(uint8_t *exponents, uint8_t *mantissas, const hist_code_t *codes,
                                  size_t n) noexcept {
  const auto write = [&](size_t i, bool first) {
    const unsigned code = codes[i];
    const unsigned before = first ? 0 : codes[i - 1];
    exponents[i] = static_cast<uint8_t>(code >> kMantissaBits ^ 0x80);
    const bool repeats = (code ^ before) >> kMantissaBits == 0;
    mantissas[i] = static_cast<uint8_t>((code & kMantissaMask) - (repeats ? before & kMantissaMask : 0));
  };
  const auto write_eight = [&](size_t i) {
    Codes here;
    Codes before;
    memcpy(&here, codes + i, sizeof(here));
    memcpy(&before, codes + i - 1, sizeof(before));
    const auto repeats = reinterpret_cast<Codes>((here ^ before) >> kMantissaBits == 0);
    store_octets(exponents + i, (here >> kMantissaBits ^ 0x80) & 0xff);
    store_octets(mantissas + i, ((here & kMantissaMask) - (before & kMantissaMask & repeats)) & 0xff);
  };
  write(0, true);
  size_t i = 1;
  if (n <= kSideBySide) {
    for (; i < n; ++i) write(i, false);
    return;
  }
  for (; i + kSideBySide < n; i += kSideBySide) write_eight(i);
  write_eight(n - kSideBySide);  // some of them again
}

COLUMN_INLINE void write_any(uint8_t *exponents, uint8_t *mantissas, const hist_code_t *codes,
                             size_t n) noexcept {
  hist_bucket_t previous{};
  for (size_t i = 0; i < n; ++i) {
    const hist_bucket_t bucket = hist_bucket_of_code(codes[i]);
    const bool repeats = i > 0 && bucket.exp == previous.exp;
    exponents[i] = static_cast<uint8_t>(bucket.exp);
    mantissas[i] = static_cast<uint8_t>(bucket.val - (repeats ? previous.val : 0));
    previous = bucket;
  }
}

// How a count below 2^56 is written: shifted, with these bits added, in so many bytes.
struct Form {
  uint32_t shift;
  uint32_t bits;
  size_t len;
};

// By the count's width in bits; 0 itself is not among them.
constexpr std::array<Form, 57> kForms = [] {
  std::array<Form, 57> forms{};
  for (size_t width = 0; width < forms.size(); ++width) {
    const uint8_t k = count_sizes()[width];
    const bool is_short = (uint64_t{1} << width) - 1 <= kLargestShort;
    forms[width] = is_short ? Form{4, 0, 1} : Form{8, k, size_t{k} + 2};
  }
  return forms;
}();

COLUMN_INLINE uint8_t *write_count(uint8_t *at, uint64_t count) noexcept {
  constexpr uint64_t kLargestHere = ~uint64_t{0} >> 8;
  const uint64_t flip = uint64_t{0} - uint64_t{count >> 56 == 0xff};
  const uint64_t c = count ^ flip;
  if (c - 1 >= kLargestHere) return hss_write_bvcount(at, at + kMaxCountBytes, static_cast<int64_t>(count));
  const Form form =
      kForms[64U - static_cast<unsigned>(__builtin_clzll(c))];  // of 0 there would be no telling
  const uint64_t bytes = c << form.shift | form.bits | (flip & kNegative);
  memcpy(at, &bytes, sizeof(bytes));
  return at + form.len;
}

COLUMN_INLINE uint8_t *write(uint8_t *at, const Columns &h) noexcept {
  const Columns own = h;
  if (own.n == 0) return at;
  uint8_t *const mantissas = at + own.n;
  if (own.codes[0] > kZeroCode && own.codes[own.n - 1] != kNoNumberCode) {
    write_positive(at, mantissas, own.codes, own.n);
  } else {
    write_any(at, mantissas, own.codes, own.n);
  }
  at = mantissas + own.n;
  for (size_t i = 0; i < own.n; ++i) at = write_count(at, own.counts[i]);
  return at;
}

// ---- Which of them

constexpr ColumnCode kPlain = {subtract_plain, write_plain};
#if defined(__x86_64__)
constexpr ColumnCode kAvx2 = {subtract_avx2, write_avx2};
constexpr ColumnCode kAvx512 = {subtract_avx512, write_avx512};

bool has_avx2() noexcept {
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2") &&
         __builtin_cpu_supports("popcnt");
}
bool has_avx512() noexcept {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512dq") &&
         __builtin_cpu_supports("avx512cd") && __builtin_cpu_supports("avx512vbmi") &&
         __builtin_cpu_supports("avx512vbmi2") && __builtin_cpu_supports("popcnt");
}
#endif

const ColumnCode *best_up_to(Instructions most) noexcept {
  for (const auto instructions : {Instructions::avx512, Instructions::avx2}) {
    const ColumnCode *const code = instructions <= most ? column_code(instructions) : nullptr;
    if (code != nullptr) return code;
  }
  return &kPlain;
}

std::atomic<const ColumnCode *> &chosen() noexcept {
  static std::atomic<const ColumnCode *> code = best_up_to(Instructions::avx512);
  return code;
}

}  // namespace

bool any_overflows(const Columns &h, const uint64_t *prior_counts) noexcept {
  bool overflows = false;
  for (size_t i = 0; i < h.n; ++i) {
    int64_t change;
    overflows |= __builtin_sub_overflow(h.counts[i], prior_counts[i], &change);
  }
  return overflows;
}

size_t subtract_plain(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes, uint64_t *counts,
                      bool *overflows) noexcept {
  return subtract<compare_plain>(h, prior_counts, codes, counts, overflows);
}
uint8_t *write_plain(uint8_t *at, const Columns &h) noexcept {
  return write(at, h);
}

#if defined(__x86_64__)
AVX2_TARGET size_t subtract_avx2(const Columns &h, const uint64_t *prior_counts, hist_code_t *codes,
                                 uint64_t *counts, bool *overflows) noexcept {
  return subtract<compare_avx2>(h, prior_counts, codes, counts, overflows);
}
AVX2_TARGET uint8_t *write_avx2(uint8_t *at, const Columns &h) noexcept {
  return write(at, h);
}
#endif

const ColumnCode *column_code(Instructions instructions) noexcept {
#if defined(__x86_64__)
  if (instructions == Instructions::avx512) return has_avx512() ? &kAvx512 : nullptr;
  if (instructions == Instructions::avx2) return has_avx2() ? &kAvx2 : nullptr;
#endif
  return instructions == Instructions::plain ? &kPlain : nullptr;
}

const ColumnCode &column_code() noexcept {
  return *chosen().load(std::memory_order_relaxed);
}

void limit_instructions(Instructions most) noexcept {
  chosen().store(best_up_to(most), std::memory_order_relaxed);
}

}  // namespace hss
