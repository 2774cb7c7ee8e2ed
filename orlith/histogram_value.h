// Histograms as the commands hold them: owned, read from their text, written as their text.
#ifndef ORLITH_HISTOGRAM_VALUE_H
#define ORLITH_HISTOGRAM_VALUE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vaskllhist/vaskllhist.h"

struct FreeHistogram {
  void operator()(histogram_t *histogram) const { hist_free(histogram); }
};
using Histogram = std::unique_ptr<histogram_t, FreeHistogram>;

// A new empty one.
Histogram new_histogram();

// The histogram that a base64 text stands for. Null when it stands for none, and for the difference of two
// histograms, whose counts are no counts of values.
Histogram histogram_of_text(std::string_view text);

// The base64 text.
std::string text_of_histogram(const histogram_t *histogram);

// Adds the counts of `source`.
void accumulate(histogram_t *target, const histogram_t *source);

// One quantile; not-a-number when the histogram holds no numbers.
double quantile_of(const histogram_t *histogram, double quantile);

// The name of a quantile: 0.5 is p50, 0.999 is p99.9.
std::string quantile_name(double quantile);

#endif
