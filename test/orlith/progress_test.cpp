#include "orlith/progress.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "test/orlith/tool_fixture.h"

namespace {

struct ProgressTest : testing::Test {
  ProgressTest() {
    tool.session.terminal.err_is_terminal = true;
    tool.session.terminal.columns = 100;
    tool.session.command = "orlith test";
  }
  ToolSession tool;
};

// How often the bar was drawn: every drawing starts with a carriage return and does not only clear.
size_t drawings(const std::string &text) {
  const auto returns = static_cast<size_t>(std::count(text.begin(), text.end(), '\r'));
  return text.find("\r\033[K") == std::string::npos ? returns : returns - 1;
}

TEST_F(ProgressTest, WorkUnderASecondShowsNothing) {
  {
    Progress progress(tool.session, "testing", 1000, Progress::items);
    for (int i = 0; i < 99; ++i) {
      tool.clock.advance_ms(10);
      progress.advance(10);
    }
  }
  EXPECT_EQ(tool.err.text, "");
}

TEST_F(ProgressTest, ShowsPartRateAndRemainingTimeAndEndsWithASummary) {
  Progress progress(tool.session, "testing", 4 * 1024 * 1024, Progress::bytes);
  tool.clock.advance_ms(1000);
  progress.advance(1024 * 1024);
  EXPECT_EQ(
      tool.err.text,
      "\rtesting  25% [##########------------------------------] 1.0 MiB of 4.0 MiB, 1.0 MiB/s, 3.00 s left"
      "\033[K");
  tool.err.text.clear();
  tool.clock.advance_ms(20);
  progress.advance(3 * 1024 * 1024);  // too soon to draw again
  EXPECT_EQ(tool.err.text, "");
  tool.clock.advance_ms(980);
  progress.finish();
  EXPECT_EQ(tool.err.text, "\r\033[Korlith test: testing 4.0 MiB in 2.00 s (2.0 MiB/s)\n");
  tool.err.text.clear();
  progress.finish();
  EXPECT_EQ(tool.err.text, "");
}

TEST_F(ProgressTest, DrawsAtMostTenTimesASecond) {
  Progress progress(tool.session, "testing", 100000, Progress::items, "slots");
  for (int i = 0; i < 3000; ++i) {
    tool.clock.advance_ms(1);
    progress.advance(1);
  }
  EXPECT_EQ(drawings(tool.err.text), 21u);  // at 1.0 s, 1.1 s, ... 3.0 s
}

TEST_F(ProgressTest, FitsTheTerminal) {
  for (int columns : {1, 20, 30, 40, 60, 72, 80, 200}) {
    tool.session.terminal.columns = columns;
    tool.err.text.clear();
    Progress progress(tool.session, "testing", 1000, Progress::items, "slots");
    tool.clock.advance_ms(1500);
    progress.advance(500);
    const size_t shown = tool.err.text.size() - std::string("\r\033[K").size();
    EXPECT_LT(shown, static_cast<size_t>(std::max(columns, 20))) << tool.err.text;
  }
}

TEST_F(ProgressTest, AnUnknownTotalShowsAmountAndRate) {
  Progress progress(tool.session, "reading", 0, Progress::items, "lines");
  tool.clock.advance_ms(2000);
  progress.advance(5000);
  EXPECT_EQ(tool.err.text, "\rreading 5,000, 2.5 k lines/s\033[K");
}

TEST_F(ProgressTest, StaysSilentWhenNotWanted) {
  for (int way = 0; way < 3; ++way) {
    ToolSession quiet;
    quiet.session.terminal.err_is_terminal = way != 0;
    quiet.session.settings.quiet = way == 1;
    if (way == 2) quiet.session.settings.progress = ProgressMode::never;
    Progress progress(quiet.session, "testing", 10, Progress::items);
    quiet.clock.advance_ms(5000);
    progress.advance(5);
    progress.finish();
    EXPECT_EQ(quiet.err.text, "") << way;
  }
}

TEST_F(ProgressTest, ForcedIntoALogWritesWholeLinesOnceASecond) {
  tool.session.terminal.err_is_terminal = false;
  tool.session.settings.progress = ProgressMode::always;
  Progress progress(tool.session, "testing", 100, Progress::items);
  for (int i = 0; i < 20; ++i) {
    progress.advance(1);
    tool.clock.advance_ms(100);
  }
  EXPECT_EQ(std::count(tool.err.text.begin(), tool.err.text.end(), '\n'), 2);
  EXPECT_EQ(tool.err.text.find('\r'), std::string::npos);
}

TEST_F(ProgressTest, MakesRoomForAMessage) {
  Progress progress(tool.session, "testing", 100, Progress::items);
  tool.clock.advance_ms(1000);
  progress.advance(1);
  tool.err.text.clear();
  progress.pause();
  EXPECT_EQ(tool.err.text, "\r\033[K");
  progress.pause();
  EXPECT_EQ(tool.err.text, "\r\033[K");
}

}  // namespace
