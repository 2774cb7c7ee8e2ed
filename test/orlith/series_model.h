// Files of histogram series, written independently of the tool.
#ifndef TEST_ORLITH_SERIES_MODEL_H
#define TEST_ORLITH_SERIES_MODEL_H

#include <string>

#include "test/util/histogram_series_support.h"

inline std::string series_file(const Bytes &image) {
  const Bytes frame = compressed(image);
  return {frame.begin(), frame.end()};
}

// A day of minutes that begins at 2023-11-14T00:00:00Z; slots at 00:01, 00:02 and 00:05.
inline Image day_of_minutes() {
  return {.base_ms = 1'699'920'000'000, .window_ms = 86'400'000, .offsets = {}, .words = {}, .data = {}};
}
// 1 once, 2 `twos` times.
inline Bytes ones_and_twos(int64_t twos) {
  return entry_data({{{10, 0}, 1}, {{20, 0}, twos}});
}

inline Image sample_series() {
  Image image = day_of_minutes();
  image.add(60'000, 0, ones_and_twos(2));
  image.add(60'000, 2, entry_data({{{20, 0}, 5}}));  // seven of 2
  image.add(180'000, 0, ones_and_twos(300));
  return image;
}
inline std::string sample_series_file() {
  return series_file(sample_series().bytes());
}

// The second histogram has a mantissa that does not exist, and the third is a difference from it.
inline std::string damaged_series_file() {
  Image image = day_of_minutes();
  image.add(60'000, 0, ones_and_twos(2));
  image.add(60'000, 0, entry_data({{{5, 0}, 1}}));
  image.add(180'000, 2, entry_data({{{20, 0}, 5}}));
  return series_file(image.bytes());
}

#endif
