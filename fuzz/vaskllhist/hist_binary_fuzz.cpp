// Any bytes as the stored form of a histogram: refused with a known code and nothing changed, or the very bytes that
// the histogram writes again.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/vaskllhist/hist_checks.h"

using hist_fuzz::Owned;
using hist_fuzz::require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const Owned h(hist_alloc());
  hist_insert(h.get(), 7, 7);
  const ssize_t result = hist_deserialize(h.get(), data, size);
  if (result < 0) {
    require(std::string(hist_error_text(result)) != "unknown error");
    require(hist_bucket_count(h.get()) == 1 && hist_count_at(h.get(), hist_bucket_of(7)) == 7);
    return 0;
  }
  require(static_cast<size_t>(result) == size);
  require(hist_fuzz::stored(h.get()) == std::vector<uint8_t>(data, data + size));
  hist_fuzz::check_all(h.get());
  return 0;
}
