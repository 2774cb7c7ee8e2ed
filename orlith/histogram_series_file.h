// Files that hold one image of a histogram series (doc/histogram-series.md): a window of a metric's histograms.
#ifndef ORLITH_HISTOGRAM_SERIES_FILE_H
#define ORLITH_HISTOGRAM_SERIES_FILE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "liborlith/util/histogram_series.h"

struct FreeHistogramSeries {
  void operator()(histogram_series_t *series) const { histogram_series_free(series); }
};
using HistogramSeries = std::unique_ptr<histogram_series_t, FreeHistogramSeries>;

// Whether the file begins as a compressed image does. A file that cannot be read does not.
bool is_series_file(const std::string &path);

// No image is larger before compression, and compression adds little to what it cannot shrink.
constexpr size_t kMaxSeriesFileBytes =
    HISTOGRAM_SERIES_MAX_IMAGE_BYTES + (HISTOGRAM_SERIES_MAX_IMAGE_BYTES >> 6);

class HistogramSeriesFile {
 public:
  // Reads the whole file: 0, or an errno. Then is_sound() tells whether it is a series.
  int read(const std::string &path);
  // Takes the bytes of a file; whether they are a series.
  bool parse(std::string_view bytes);
  bool is_sound() const { return series_ != nullptr; }

  // Of a series only.
  uint64_t base_ms() const { return series_->base_ms; }
  uint32_t window_ms() const { return series_->window_ms; }
  // Entries in order of time, up to the first false answer, which is then the result; a damaged one is null.
  bool for_each(const std::function<bool(uint64_t time_ms, const histogram_t *histogram)> &take);

 private:
  HistogramSeries series_;
};

// The compressed image; empty when it cannot be made (too large, or out of memory).
std::string image_of_series(histogram_series_t *series);

#endif
