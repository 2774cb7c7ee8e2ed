#include "orlith/histogram_value.h"

#include <fmt/format.h>

#include <cmath>
#include <new>

Histogram new_histogram() {
  Histogram histogram(hist_alloc());
  if (histogram == nullptr) throw std::bad_alloc();
  return histogram;
}

Histogram histogram_of_text(std::string_view text) {
  Histogram histogram = new_histogram();
  if (hist_deserialize_b64(histogram.get(), text.data(), text.size()) < 0) return nullptr;
  if (hist_is_difference(histogram.get())) return nullptr;
  return histogram;
}

std::string text_of_histogram(const histogram_t *histogram) {
  std::string text(hist_serialized_b64_size(histogram), '\0');
  hist_serialize_b64(histogram, text.data(), text.size());
  return text;
}

void accumulate(histogram_t *target, const histogram_t *source) {
  if (hist_accumulate(target, &source, 1) != 0) throw std::bad_alloc();
}

double quantile_of(const histogram_t *histogram, double quantile) {
  double value = 0;
  return hist_quantiles(histogram, &quantile, 1, &value) == 0 ? value : std::nan("");
}

std::string quantile_name(double quantile) {
  // Ten digits: 0.999 times 100 is not exactly 99.9.
  return fmt::format("p{:.10g}", quantile * 100);
}
