// Buckets as columns of codes and counts.
#include <cstring>

#include "vaskllhist/decimal_private.h"
#include "vaskllhist/histogram_private.h"

namespace {

using vaskllhist::Code;

// Eight codes side by side; comparisons give all ones or 0 for each.
typedef Code Codes __attribute__((vector_size(16)));
constexpr size_t kSideBySide = sizeof(Codes) / sizeof(Code);

Codes load(const Code *at) {
  Codes codes;
  memcpy(&codes, at, sizeof(codes));
  return codes;
}

// All ones where is_code() holds.
Codes are_buckets(Codes codes) {
  constexpr Code kSpan = vaskllhist::kMaxMantissa - vaskllhist::kMinMantissa;
  const Codes flip = (codes >> 15) - 1;  // all ones for negative buckets, whose codes are complements
  const Codes mantissas = (codes ^ flip) & (vaskllhist::kPageSize - 1);
  return reinterpret_cast<Codes>(mantissas - vaskllhist::kMinMantissa <= kSpan) |
         reinterpret_cast<Codes>(codes == vaskllhist::kZeroCode) |
         reinterpret_cast<Codes>(codes == vaskllhist::kNoNumberCode);
}

// Whether all are codes, and ascend. This is most of the work of taking a column over.
bool are_codes(const Code *codes, size_t n) {
  Codes good = ~Codes{};
  size_t i = 0;
  for (; i + kSideBySide < n; i += kSideBySide) {
    const Codes here = load(codes + i);
    good &= are_buckets(here) & reinterpret_cast<Codes>(here < load(codes + i + 1));
  }
  bool all_good = true;
  for (size_t lane = 0; lane < kSideBySide; ++lane) all_good &= good[lane] != 0;
  for (; i < n; ++i) all_good &= vaskllhist::is_code(codes[i]) && (i + 1 == n || codes[i] < codes[i + 1]);
  return all_good;
}

}  // namespace

const hist_code_t *hist_codes(const histogram_t *h) {
  return h == nullptr ? nullptr : h->codes.data();
}

const uint64_t *hist_counts(const histogram_t *h) {
  return h == nullptr ? nullptr : h->counts.data();
}

uint64_t *hist_mutable_counts(histogram_t *h) {
  return h == nullptr ? nullptr : h->counts.data();
}

histogram_t *hist_of_columns(const hist_code_t *codes, const uint64_t *counts, int n) {
  if (n < 0 || n > HIST_MAX_BUCKETS || (n > 0 && (codes == nullptr || counts == nullptr))) return nullptr;
  const auto size = static_cast<size_t>(n);
  if (!are_codes(codes, size)) return nullptr;
  try {
    auto h = std::make_unique<histogram>();
    h->codes.assign(codes, codes + size);
    h->counts.assign(counts, counts + size);
    return h.release();
  } catch (const std::bad_alloc &) {
    return nullptr;
  }
}
