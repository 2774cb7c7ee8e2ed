// Histograms in a terminal: one bar a range of values, the ranges as fine as the rows allow.
#ifndef ORLITH_HIST_PLOT_H
#define ORLITH_HIST_PLOT_H

#include <cstdint>
#include <string>
#include <vector>

#include "vaskllhist/vaskllhist.h"

struct HistPlotStyle {
  int columns = 80;    // of characters, everything included
  int rows = 20;       // lines at most
  bool blocks = true;  // bars of block characters, in steps of an eighth; else of '#'
  bool color = false;
};

// What one bar stands for.
struct HistRange {
  enum class Kind { values, gap, no_number } kind = Kind::values;  // gap: several empty ranges, left out
  double lower = 0, upper = 0;                                     // of values
  uint64_t count = 0;
};

// Buckets gathered into at most `most` ranges, in order of value, by the finest of a few steps: up to a decade a step
// cuts each decade in the same places, larger ones are whole decades. Zero is a range of its own, and so is what is no
// number. Two or more empty ranges next to each other are one gap. There are always at most kFewestHistRanges ranges
// at the coarsest step, so a smaller `most` is taken for that.
std::vector<HistRange> hist_ranges(const histogram_t *histogram, size_t most);
constexpr size_t kFewestHistRanges = 4;

// The bars, lines ended by newlines; nothing when nothing was counted.
std::string render_histogram(const histogram_t *histogram, const HistPlotStyle &style);

#endif
