// Line charts in a terminal, drawn with Braille patterns (2 x 4 dots a character) or plain ASCII (1 x 2).
#ifndef ORLITH_PLOT_H
#define ORLITH_PLOT_H

#include <cstdint>
#include <string>
#include <vector>

// What one dot column shows: the line's height, and the range its samples covered. Absent, or not finite: a gap.
struct PlotPoint {
  bool present = false;
  double value = 0;
  double low = 0, high = 0;  // drawn as a dotted band where they differ from the value
};

struct PlotStyle {
  int columns = 80;  // of characters, everything included
  int rows = 20;     // lines of the drawing itself
  bool braille = true;
  bool color = false;
};

struct Plot {
  std::string title;
  std::string legend;               // below the axis
  uint64_t start_s = 0, end_s = 0;  // the times of the left and the right edge
  std::vector<PlotPoint> points;    // plot_point_count() of them, or fewer; spread over the whole width
};

// How many dot columns a chart of this style has.
size_t plot_point_count(const PlotStyle &style);

// The finished chart, lines ended by newlines.
std::string render_plot(const Plot &plot, const PlotStyle &style);

// Ticks at round numbers (1, 2 or 5 times a power of ten) inside [low, high], at most `most` of them and, where
// the range allows, at least two. The range must be finite and low <= high.
std::vector<double> nice_ticks(double low, double high, size_t most);

// A tick's label for an axis whose ticks are `step` apart and reach `largest` in size: "0.25", "1500", "1.5M".
std::string tick_label(double value, double step, double largest);

#endif
