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

class HistogramSeriesFile {
 public:
  // Reads the whole file: 0, or an errno. Then is_sound() tells whether it is a series.
  int read(const std::string &path);
  bool is_sound() const { return series_ != nullptr; }

  const histogram_series_t *series() const { return series_.get(); }
  // Entries in order of time, up to the first false answer, which is then the result; a damaged one is null.
  bool for_each(const std::function<bool(uint64_t time_ms, const histogram_t *histogram)> &take);

 private:
  HistogramSeries series_;
};

// The compressed image; empty when it cannot be made (too large, or out of memory).
std::string image_of_series(histogram_series_t *series);

#endif
