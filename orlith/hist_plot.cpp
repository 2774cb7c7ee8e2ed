#include "orlith/hist_plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <map>

#include "orlith/output.h"
#include "orlith/text.h"

namespace {

// Buckets in order of value have consecutive places: 0 for zero, from 1 for the positive ones, the smallest first, and
// their negatives for the negative ones.
constexpr int64_t kMantissas = 90;  // 1.0 to 9.9, the buckets of a decade
constexpr int64_t kDecades = 256;
constexpr int64_t kLowestExponent = -128;

// In buckets. Below a decade: divisors of it, so that every decade is cut alike.
constexpr int64_t kSteps[] = {
    1, 2, 5, 10, 30, kMantissas, 2 * kMantissas, 4 * kMantissas, 16 * kMantissas, kDecades *kMantissas};

int64_t place_of(hist_bucket_t bucket) {
  if (bucket.val == 0) return 0;
  const int64_t place =
      (bucket.exp - kLowestExponent) * kMantissas + std::abs(static_cast<int>(bucket.val)) - 10 + 1;
  return bucket.val < 0 ? -place : place;
}

// The smallest magnitude in the bucket of a positive place; of the place behind the last one, what the last one ends
// with.
double magnitude_at(int64_t place) {
  const auto bucket_at = [](int64_t index) {
    return hist_bucket_t{static_cast<int8_t>(index % kMantissas + 10),
                         static_cast<int8_t>(index / kMantissas + kLowestExponent)};
  };
  const int64_t index = place - 1;
  return index < kDecades * kMantissas ? hist_bucket_lower(bucket_at(index))
                                       : hist_bucket_upper(bucket_at(index - 1));
}

// Ranges of `step` places have consecutive numbers in the same manner.
int64_t range_of(int64_t place, int64_t step) {
  if (place == 0) return 0;
  return place > 0 ? (place - 1) / step + 1 : -((-place - 1) / step + 1);
}

HistRange range_at(int64_t number, int64_t step, uint64_t count) {
  HistRange range;
  range.count = count;
  if (number == 0) return range;
  const int64_t first = (std::abs(number) - 1) * step + 1;
  const double near = magnitude_at(first);
  const double far = magnitude_at(std::min(first + step, kDecades * kMantissas + 1));
  range.lower = number > 0 ? near : -far;
  range.upper = number > 0 ? far : -near;
  return range;
}

bool is_no_number(hist_bucket_t bucket) {
  return bucket.val == -1;
}

// Counts by range number.
std::map<int64_t, uint64_t> gather(const histogram_t *histogram, int64_t step) {
  std::map<int64_t, uint64_t> counts;
  hist_bucket_t bucket;
  uint64_t count = 0;
  for (int i = 0; hist_bucket_at(histogram, i, &bucket, &count) == 0; ++i) {
    if (count == 0 || is_no_number(bucket)) continue;
    uint64_t &sum = counts[range_of(place_of(bucket), step)];
    sum = count > UINT64_MAX - sum ? UINT64_MAX : sum + count;
  }
  return counts;
}

std::vector<HistRange> ranges_of_step(const histogram_t *histogram, int64_t step) {
  std::vector<HistRange> ranges;
  const std::map<int64_t, uint64_t> counts = gather(histogram, step);
  int64_t previous = counts.empty() ? 0 : counts.begin()->first;
  for (const auto &[number, count] : counts) {
    if (number - previous == 2) ranges.push_back(range_at(number - 1, step, 0));
    if (number - previous > 2) ranges.push_back({HistRange::Kind::gap, 0, 0, 0});
    ranges.push_back(range_at(number, step, count));
    previous = number;
  }
  const uint64_t no_numbers = hist_count_at(histogram, {-1, 0});
  if (no_numbers > 0) ranges.push_back({HistRange::Kind::no_number, 0, 0, no_numbers});
  return ranges;
}

struct Label {
  std::string lower, upper;
};

std::string bound_text(double bound) {
  return bound == 0 ? "0" : shortest(bound);
}

Label label_of(const HistRange &range, bool utf8) {
  switch (range.kind) {
    case HistRange::Kind::gap:
      return {utf8 ? "⋮" : ":", ""};
    case HistRange::Kind::no_number:
      return {"no number", ""};
    case HistRange::Kind::values:
      break;
  }
  if (range.lower == range.upper) return {bound_text(range.lower), ""};
  return {bound_text(range.lower), bound_text(range.upper)};
}

// A count above zero always shows.
std::string bar(uint64_t count, uint64_t largest, size_t columns, bool blocks) {
  static constexpr const char *kEighths[] = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  if (count == 0) return "";
  const size_t per_column = blocks ? 8 : 1;
  const double part = static_cast<double>(count) / static_cast<double>(largest);
  const auto steps =
      std::max<size_t>(1, static_cast<size_t>(std::lround(part * static_cast<double>(columns * per_column))));
  std::string text;
  for (size_t i = 0; i < steps / per_column; ++i) text += blocks ? "█" : "#";
  return text + (blocks ? kEighths[steps % per_column] : "");
}

size_t shown_width(const std::string &text) {
  return text == "⋮" ? 1 : text.size();
}

std::string padded(const std::string &text, size_t width) {
  return std::string(width - std::min(width, shown_width(text)), ' ') + text;
}

}  // namespace

std::vector<HistRange> hist_ranges(const histogram_t *histogram, size_t most) {
  std::vector<HistRange> ranges;
  for (const int64_t step : kSteps) {
    ranges = ranges_of_step(histogram, step);
    if (ranges.size() <= std::max(most, kFewestHistRanges)) break;
  }
  return ranges;
}

std::string render_histogram(const histogram_t *histogram, const HistPlotStyle &style) {
  constexpr size_t kNarrowestBar = 8;
  const std::vector<HistRange> ranges = hist_ranges(histogram, static_cast<size_t>(std::max(style.rows, 0)));
  uint64_t largest = 0;
  size_t lower_width = 0, upper_width = 0, count_width = 0;
  std::vector<Label> labels;
  for (const HistRange &range : ranges) {
    labels.push_back(label_of(range, style.blocks));
    largest = std::max(largest, range.count);
    lower_width = std::max(lower_width, shown_width(labels.back().lower));
    upper_width = std::max(upper_width, labels.back().upper.size());
    count_width = std::max(count_width, human_count(range.count).size());
  }
  // "lower to upper | count bar": what stands between them is eight characters.
  const size_t taken = lower_width + upper_width + count_width + 8;
  const auto columns = static_cast<size_t>(std::max(style.columns, 0));
  const size_t bar_columns = std::max(columns, taken + kNarrowestBar) - taken;
  std::string out;
  for (size_t i = 0; i < ranges.size(); ++i) {
    const Label &label = labels[i];
    const bool is_gap = ranges[i].kind == HistRange::Kind::gap;
    out += fmt::format("{} {} {} {} {}", padded(label.lower, lower_width), label.upper.empty() ? "  " : "to",
                       padded(label.upper, upper_width), style.blocks ? "│" : "|",
                       padded(is_gap ? "" : human_count(ranges[i].count), count_width));
    while (out.ends_with(' ')) out.pop_back();
    const std::string drawn = bar(ranges[i].count, largest, bar_columns, style.blocks);
    if (!drawn.empty()) out += " " + styled(drawn, Style::cyan, style.color);
    out += "\n";
  }
  return out;
}
