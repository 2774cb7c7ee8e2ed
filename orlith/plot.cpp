#include "orlith/plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "orlith/output.h"

namespace {

constexpr size_t label_width = 9;             // of the y axis' labels
constexpr size_t margin = label_width + 2;    // a blank, and the axis itself
constexpr size_t narrowest = 10, lowest = 4;  // what is left of a drawing on a tiny terminal

struct Grid {
  size_t columns, rows;           // characters
  size_t dots_across, dots_down;  // in one character
  size_t width() const { return columns * dots_across; }
  size_t height() const { return rows * dots_down; }
};

Grid grid_of(const PlotStyle &style) {
  const auto at_least = [](int value, size_t least) {
    return std::max(static_cast<size_t>(std::max(value, 0)), least);
  };
  const size_t columns = at_least(style.columns, margin + narrowest) - margin;
  const size_t rows = at_least(style.rows, lowest);
  return style.braille ? Grid{columns, rows, 2, 4} : Grid{columns, rows, 1, 2};
}

// Dots that become characters. Row 0 is the top.
class Canvas {
 public:
  Canvas(Grid grid, bool braille)
      : grid_(grid), braille_(braille), masks_(grid.columns * grid.rows), line_(masks_.size()) {}

  void set(size_t x, size_t y, bool is_line) {
    if (x >= grid_.width() || y >= grid_.height()) return;
    const size_t cell = y / grid_.dots_down * grid_.columns + x / grid_.dots_across;
    masks_[cell] |= bit(x % grid_.dots_across, y % grid_.dots_down);
    if (is_line) line_[cell] = true;
  }

  // One row of characters without trailing blanks. Line cells stand out by colour, if there is any.
  std::string row(size_t row, bool color) const {
    const auto mask_at = [&](size_t column) { return masks_[row * grid_.columns + column]; };
    size_t end = grid_.columns;
    while (end > 0 && mask_at(end - 1) == 0) --end;
    std::string out;
    for (size_t column = 0; column < end;) {
      const bool is_line = line_[row * grid_.columns + column];
      std::string run;
      const size_t first = column;
      for (; column < end && line_[row * grid_.columns + column] == is_line; ++column)
        run += glyph(mask_at(column));
      const bool blank =
          std::all_of(&masks_[row * grid_.columns + first], &masks_[row * grid_.columns + column],
                      [](uint8_t mask) { return mask == 0; });
      out += styled(run, is_line ? Style::cyan : Style::dim, color && !blank);
    }
    return out;
  }

 private:
  uint8_t bit(size_t x, size_t y) const {
    // The numbering of Braille dots: 1 2 3 7 down the left, 4 5 6 8 down the right.
    static constexpr uint8_t braille[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
    return braille_ ? braille[y][x] : static_cast<uint8_t>(1u << y);
  }
  std::string glyph(uint8_t mask) const {
    if (!braille_) return std::string(1, " '.:"[mask]);
    if (mask == 0) return " ";
    // U+2800 plus the mask, in UTF-8.
    return {'\xE2', static_cast<char>(0xA0 | mask >> 6), static_cast<char>(0x80 | (mask & 0x3F))};
  }

  Grid grid_;
  bool braille_;
  std::vector<uint8_t> masks_;
  std::vector<bool> line_;
};

struct Range {
  double low, high;
};

bool is_drawn(const PlotPoint &point) {
  return point.present && std::isfinite(point.value) && std::isfinite(point.low) && std::isfinite(point.high);
}

std::optional<Range> range_of(const std::vector<PlotPoint> &points) {
  std::optional<Range> range;
  for (const PlotPoint &point : points) {
    if (!is_drawn(point)) continue;
    const double low = std::min(point.low, point.value), high = std::max(point.high, point.value);
    range = range ? Range{std::min(range->low, low), std::max(range->high, high)} : Range{low, high};
  }
  if (!range || range->low < range->high) return range;
  // A flat line runs through the middle. The smallest numbers have no tenth, the largest no neighbours.
  const double level = range->low, around = std::abs(level) * 0.1;
  const Range wider{level - around, level + around};
  if (std::isfinite(wider.low) && std::isfinite(wider.high) && wider.low < wider.high) return wider;
  return std::abs(level) < 1 ? Range{level - 1, level + 1}
                             : Range{std::min(level, 0.0), std::max(level, 0.0)};
}

// The dot row of a value.
size_t dot_row(double value, Range range, size_t height) {
  // The whole range may exceed what a double holds; halves of the smallest ones would be zero.
  const bool wide = !std::isfinite(range.high - range.low);
  const double part = wide ? (value / 2 - range.low / 2) / (range.high / 2 - range.low / 2)
                           : (value - range.low) / (range.high - range.low);
  const double from_bottom = std::clamp(part, 0.0, 1.0) * static_cast<double>(height - 1);
  return height - 1 - static_cast<size_t>(std::lround(from_bottom));
}

void draw_points(Canvas &canvas, const Plot &plot, Range range, const Grid &grid) {
  size_t previous = 0;
  bool joined = false;  // with the column before
  const size_t count = plot.points.size();
  for (size_t x = 0; count > 0 && x < grid.width(); ++x) {
    const PlotPoint &point = plot.points[x * count / grid.width()];
    if (!is_drawn(point)) {
      joined = false;
      continue;
    }
    const size_t top = dot_row(point.high, range, grid.height()),
                 bottom = dot_row(point.low, range, grid.height());
    for (size_t y = top; y <= bottom; ++y)
      if ((x + y) % 2 == 0) canvas.set(x, y, false);
    const size_t here = dot_row(point.value, range, grid.height());
    // Joined with the column before, so that a steep line has no holes.
    const size_t from = joined ? previous : here;
    const size_t first = from < here ? from + 1 : here, last = from > here ? from - 1 : here;
    for (size_t y = first; y <= last; ++y) canvas.set(x, y, true);
    canvas.set(x, here, true);
    previous = here;
    joined = true;
  }
}

struct Glyphs {
  const char *tick, *axis, *corner, *bottom, *bottom_tick;
};
constexpr Glyphs line_glyphs = {"┤", "│", "└", "─", "┬"};
constexpr Glyphs ascii_glyphs = {"+", "|", "+", "-", "+"};

// The label that stands at each row of characters; empty where none does.
std::vector<std::string> row_labels(Range range, const Grid &grid) {
  std::vector<std::string> labels(grid.rows);
  const std::vector<double> ticks = nice_ticks(range.low, range.high, std::max<size_t>(2, grid.rows / 3));
  const double step = ticks.size() > 1 ? ticks[1] - ticks[0] : 0;
  const double largest = std::max(std::abs(range.low), std::abs(range.high));
  for (const double tick : ticks)
    labels[dot_row(tick, range, grid.height()) / grid.dots_down] = tick_label(tick, step, largest);
  return labels;
}

// Seconds between the time labels: at least `least_s`, a division people use.
uint64_t nice_time_step_s(uint64_t least_s) {
  static constexpr std::array<uint64_t, 23> steps = {
      1,    2,    5,     10,    15,    30,    60,     120,    300,     600,     900,    1800,
      3600, 7200, 10800, 21600, 43200, 86400, 172800, 604800, 1209600, 2592000, 7776000};
  for (const uint64_t step : steps)
    if (step >= least_s) return step;
  constexpr uint64_t year_s = 31536000;
  return least_s > UINT64_MAX - year_s ? UINT64_MAX : (least_s + year_s - 1) / year_s * year_s;
}

std::string time_label(uint64_t epoch_s, uint64_t step_s) {
  std::string iso = iso_time(epoch_s);
  if (iso.size() != 20) return iso;
  if (step_s >= 86400) return iso.substr(0, 10);
  return step_s >= 60 ? iso.substr(11, 5) : iso.substr(11, 8);
}

struct TimeAxis {
  std::string line, labels;
};

TimeAxis time_axis(const Plot &plot, const Grid &grid, const Glyphs &glyphs) {
  const uint64_t span_s = plot.end_s > plot.start_s ? plot.end_s - plot.start_s : 1;
  constexpr uint64_t label_room = 12;
  const uint64_t step_s =
      nice_time_step_s(std::max<uint64_t>(1, span_s / std::max<uint64_t>(1, grid.columns / label_room)));
  std::vector<bool> ticks(grid.columns);
  std::string labels;
  const uint64_t past_step = plot.start_s % step_s;
  for (uint64_t offset_s = past_step == 0 ? 0 : step_s - past_step; offset_s < span_s; offset_s += step_s) {
    const auto part = static_cast<double>(offset_s) / static_cast<double>(span_s);
    const auto column =
        std::min(grid.columns - 1, static_cast<size_t>(part * static_cast<double>(grid.columns)));
    const std::string label = time_label(plot.start_s + offset_s, step_s);
    const size_t at = column;
    if (at + label.size() <= grid.columns && at >= labels.size() + (labels.empty() ? 0 : 1)) {
      labels += std::string(at - labels.size(), ' ') + label;
      ticks[column] = true;
    }
    if (step_s > UINT64_MAX - offset_s) break;
  }
  TimeAxis axis{"", labels};
  for (const bool tick : ticks) axis.line += tick ? glyphs.bottom_tick : glyphs.bottom;
  return axis;
}

}  // namespace

size_t plot_point_count(const PlotStyle &style) {
  return grid_of(style).width();
}

std::string render_plot(const Plot &plot, const PlotStyle &style) {
  const Grid grid = grid_of(style);
  const Glyphs &glyphs = style.braille ? line_glyphs : ascii_glyphs;
  const auto range = range_of(plot.points);
  Canvas canvas(grid, style.braille);
  if (range) draw_points(canvas, plot, *range, grid);
  const std::vector<std::string> labels =
      range ? row_labels(*range, grid) : std::vector<std::string>(grid.rows);
  std::string out = plot.title.empty() ? "" : styled(plot.title, Style::bold, style.color) + "\n";
  for (size_t row = 0; row < grid.rows; ++row) {
    const std::string &label = labels[row];
    out += fmt::format("{:>{}} {}{}\n", label, label_width, label.empty() ? glyphs.axis : glyphs.tick,
                       canvas.row(row, style.color));
  }
  const TimeAxis axis = time_axis(plot, grid, glyphs);
  out += fmt::format("{:>{}} {}{}\n", "", label_width, glyphs.corner, axis.line);
  out += fmt::format("{:>{}}{}\n", "", margin, axis.labels);
  if (!range) out += fmt::format("{:>{}}no values in this range\n", "", margin);
  if (!plot.legend.empty()) out += fmt::format("{:>{}}{}\n", "", margin, plot.legend);
  return out;
}

std::vector<double> nice_ticks(double low, double high, size_t most) {
  most = std::max<size_t>(most, 2);
  const double raw = high / static_cast<double>(most) - low / static_cast<double>(most);
  if (!(raw > 0) || !std::isfinite(raw)) return {low};
  const double power = std::pow(10.0, std::floor(std::log10(raw)));
  for (const double factor : {1.0, 2.0, 5.0, 10.0, 20.0, 50.0}) {
    const double step = factor * power;
    if (!(step > 0) || !std::isfinite(step)) continue;
    const double first = std::ceil(low / step), last = std::floor(high / step);
    if (last - first + 1 > static_cast<double>(most)) continue;
    std::vector<double> ticks;
    // Multiples of the step, not sums of it: no rounding errors pile up.
    for (int i = 0; i <= last - first; ++i) ticks.push_back((first + i) * step + 0.0);
    return ticks.empty() ? std::vector<double>{low} : ticks;
  }
  return {low};
}

std::string tick_label(double value, double step, double largest) {
  static constexpr std::array<const char *, 7> prefixes = {"", "k", "M", "G", "T", "P", "E"};
  if (value == 0) return "0";
  if (largest >= 1e21 || largest < 1e-3) return fmt::format("{:.3g}", value);
  size_t prefix = 0;
  // Four digits are read as easily as "1.5k".
  if (largest >= 10000)
    for (double rest = largest; rest >= 1000 && prefix + 1 < prefixes.size(); rest /= 1000) ++prefix;
  const double scale = std::pow(1000.0, static_cast<double>(prefix));
  const double scaled_step = step / scale;
  const double digits = scaled_step > 0 ? std::ceil(-std::log10(scaled_step) - 1e-9) : 0;
  const int decimals = static_cast<int>(std::clamp(digits, 0.0, 6.0));
  return fmt::format("{:.{}f}{}", value / scale, decimals, prefixes[prefix]).substr(0, label_width);
}
