#include "orlith/plot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "orlith/text.h"

namespace {

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;

PlotPoint at(double value) {
  return {true, value, value, value};
}

TEST(NiceTicks, StandAtRoundNumbers) {
  EXPECT_THAT(nice_ticks(0, 100, 6), ElementsAre(0, 20, 40, 60, 80, 100));
  EXPECT_THAT(nice_ticks(0.1, 0.9, 5), ElementsAre(0.2, 0.4, 0.6000000000000001, 0.8));
  EXPECT_THAT(nice_ticks(-7, 12, 4), ElementsAre(-5, 0, 5, 10));
  EXPECT_THAT(nice_ticks(5, 5, 4), ElementsAre(5));
}

TEST(NiceTicks, StayInTheRangeAndWithinTheCount) {
  std::mt19937_64 random(11);
  for (int i = 0; i < 5000; ++i) {
    const double scale = std::pow(10.0, static_cast<double>(random() % 600) - 300);
    double low = (static_cast<double>(random() % 20001) - 10000) * scale,
           high = low + static_cast<double>(random() % 9999 + 1) * scale;
    const size_t most = 2 + random() % 10;
    const auto ticks = nice_ticks(low, high, most);
    ASSERT_GE(ticks.size(), 1u);
    ASSERT_LE(ticks.size(), most);
    const double slack = (high - low) * 1e-9;
    for (const double tick : ticks) {
      ASSERT_GE(tick, low - slack);
      ASSERT_LE(tick, high + slack);
    }
  }
  // A step that would be infinite gives no ticks that are not numbers.
  for (size_t most = 2; most < 12; ++most) {
    const auto ticks = nice_ticks(-1.7e308, 1.7e308, most);
    EXPECT_THAT(ticks.size(), AllOf(Ge(1u), Le(most)));
    EXPECT_THAT(ticks, Each(AllOf(Ge(-1.7e308), Le(1.7e308)))) << most;
  }
  EXPECT_FALSE(nice_ticks(5e-324, 1e-323, 5).empty());
}

TEST(TickLabel, HasTheDigitsTheStepNeeds) {
  EXPECT_EQ(tick_label(0, 5, 10), "0");
  EXPECT_EQ(tick_label(0.25, 0.05, 1), "0.25");
  EXPECT_EQ(tick_label(1500, 500, 2000), "1500");
  EXPECT_EQ(tick_label(1500000, 500000, 2000000), "1.5M");
  EXPECT_EQ(tick_label(-20000, 10000, 20000), "-20k");
  EXPECT_EQ(tick_label(2e-7, 1e-7, 5e-7), "2e-07");
  EXPECT_EQ(tick_label(1e300, 1e300, 2e300), "1e+300");
}

TEST(RenderPlot, DrawsARampInAscii) {
  Plot plot{.title = "ramp", .legend = "value", .start_s = 1700000000, .end_s = 1700003600, .points = {}};
  for (int i = 0; i < 20; ++i) plot.points.push_back(at(i));
  EXPECT_EQ(render_plot(plot, {.columns = 31, .rows = 5, .braille = false, .color = false}),
            "ramp\n"
            "          |                ..''\n"
            "          |            ..''\n"
            "       10 +        ..''\n"
            "          |    ..''\n"
            "        0 +..''\n"
            "          +---------------+----\n"  // 23:00 lies 2800 s into the 3600
            "                          23:00\n"
            "           value\n");
}

TEST(RenderPlot, DrawsARampInBraille) {
  Plot plot{.title = "", .legend = "", .start_s = 1700006400, .end_s = 1700049600, .points = {}};
  for (int i = 0; i < 40; ++i) plot.points.push_back(at(i));
  EXPECT_EQ(render_plot(plot, {.columns = 31, .rows = 4, .braille = true, .color = false}),
            "          │               ⣀⡠⠤⠒⠉\n"
            "       20 ┤          ⣀⡠⠔⠒⠉\n"
            "          │     ⣀⠤⠔⠊⠉\n"
            "        0 ┤⣀⠤⠒⠊⠉\n"
            "          └┬───────────────────\n"
            "           00:00\n");
}

TEST(RenderPlot, LeavesGapsWhereNothingIs) {
  Plot plot{.title = "", .legend = "", .start_s = 0, .end_s = 86400, .points = {}};
  for (int i = 0; i < 20; ++i) plot.points.push_back(i >= 5 && i < 10 ? PlotPoint{} : at(1));
  plot.points[15] = at(std::nan(""));
  EXPECT_EQ(render_plot(plot, {.columns = 31, .rows = 4, .braille = false, .color = false}),
            "          |\n"
            "          |\n"
            "        1 +'''''     ''''' ''''\n"
            "          |\n"
            "          ++-------------------\n"
            "           1970-01-01\n");
}

TEST(RenderPlot, DrawsTheBandOfAColumnDotted) {
  Plot plot{.title = "", .legend = "", .start_s = 0, .end_s = 3600, .points = {}};
  for (int i = 0; i < 20; ++i) plot.points.push_back({true, 5, 0, 10});
  EXPECT_EQ(render_plot(plot, {.columns = 31, .rows = 4, .braille = false, .color = false}),
            "       10 +'.'.'.'.'.'.'.'.'.'.\n"
            "          |:.:.:.:.:.:.:.:.:.:.\n"  // the line itself has the lower dot in every column
            "          |'.'.'.'.'.'.'.'.'.'.\n"
            "        0 +'.'.'.'.'.'.'.'.'.'.\n"
            "          ++-------------------\n"
            "           00:00\n");
}

TEST(RenderPlot, SaysThatThereIsNothing) {
  const Plot plot{
      .title = "t", .legend = "", .start_s = 0, .end_s = 3600, .points = std::vector<PlotPoint>(8)};
  EXPECT_THAT(render_plot(plot, {.columns = 40, .rows = 4, .braille = true, .color = false}),
              HasSubstr("no values in this range\n"));
}

TEST(RenderPlot, MarksTheLineByColour) {
  Plot plot{.title = "", .legend = "", .start_s = 0, .end_s = 3600, .points = {at(1), at(2)}};
  const std::string chart = render_plot(plot, {.columns = 31, .rows = 4, .braille = true, .color = true});
  EXPECT_THAT(chart, HasSubstr("\033[36m"));
}

TEST(RenderPlot, SurvivesEveryRangeAndSize) {
  constexpr double huge = std::numeric_limits<double>::max();
  const double extremes[] = {0, -0.0, 5e-324, -5e-324, huge, -huge, 1, 1e-300};
  for (const double a : extremes) {
    for (const double b : extremes) {
      for (const int columns : {-5, 0, 1, 30, 200}) {
        Plot plot{.title = "", .legend = "", .start_s = 0, .end_s = UINT64_MAX, .points = {at(a), at(b)}};
        const std::string chart =
            render_plot(plot, {.columns = columns, .rows = columns, .braille = true, .color = false});
        ASSERT_EQ(valid_utf8(chart), chart);
      }
    }
  }
  Plot backwards{.title = "", .legend = "", .start_s = 100, .end_s = 5, .points = {}};
  EXPECT_FALSE(render_plot(backwards, {}).empty());
}

TEST(PlotPointCount, IsTwoDotsACharacterInBraille) {
  EXPECT_EQ(plot_point_count({.columns = 80, .rows = 20, .braille = true, .color = false}), 138u);
  EXPECT_EQ(plot_point_count({.columns = 80, .rows = 20, .braille = false, .color = false}), 69u);
}

}  // namespace
