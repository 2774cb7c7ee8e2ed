// Buckets as columns of codes and counts.
#include "vaskllhist/decimal_private.h"
#include "vaskllhist/histogram_private.h"

namespace {

using vaskllhist::Code;

// is_code() for a whole column, and that it ascends, without a branch in the loop: columns are hardly ever refused.
bool are_codes(const Code *codes, size_t n) {
  constexpr unsigned kOtherMantissas = vaskllhist::kMaxMantissa - vaskllhist::kMinMantissa;
  bool bad = false;
  unsigned before = 0;  // no code is 0
  for (size_t i = 0; i < n; ++i) {
    const unsigned code = codes[i];
    const unsigned flip = (code >> 15) - 1;  // all ones for the codes of negative buckets
    const unsigned mantissa = (code ^ flip) % vaskllhist::kPageSize;
    const bool is_bin = mantissa - vaskllhist::kMinMantissa <= kOtherMantissas;
    bad |=
        !(is_bin | (code == vaskllhist::kZeroCode) | (code == vaskllhist::kNoNumberCode)) | (code <= before);
    before = code;
  }
  return !bad;
}

}  // namespace

const hist_code_t *hist_codes(const histogram_t *h) {
  return h == nullptr ? nullptr : h->codes.data();
}

const uint64_t *hist_counts(const histogram_t *h) {
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
