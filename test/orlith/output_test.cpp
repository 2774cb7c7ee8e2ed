#include "orlith/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "test/orlith/tool_fixture.h"

namespace {

TEST(UseColor, FollowsTheOptionThenTheEnvironmentThenTheTerminal) {
  Terminal terminal;
  EXPECT_TRUE(use_color(ColorMode::automatic, terminal, true));
  EXPECT_FALSE(use_color(ColorMode::automatic, terminal, false));
  EXPECT_TRUE(use_color(ColorMode::always, terminal, false));
  EXPECT_FALSE(use_color(ColorMode::never, terminal, true));
  terminal.no_color = true;
  EXPECT_FALSE(use_color(ColorMode::automatic, terminal, true));
  EXPECT_TRUE(use_color(ColorMode::always, terminal, true));
}

TEST(DetectTerminal, ReadsNoColorAndTerm) {
  setenv("TERM", "xterm", 1);
  setenv("NO_COLOR", "", 1);
  EXPECT_FALSE(detect_terminal().no_color);
  setenv("NO_COLOR", "1", 1);
  EXPECT_TRUE(detect_terminal().no_color);
  unsetenv("NO_COLOR");
  setenv("TERM", "dumb", 1);
  EXPECT_TRUE(detect_terminal().no_color);
}

TEST(Styled, AddsNothingWithoutColor) {
  EXPECT_EQ(styled("bad", Style::red, false), "bad");
  EXPECT_EQ(styled("bad", Style::red, true), "\033[31mbad\033[0m");
  EXPECT_EQ(styled("bad", Style::plain, true), "bad");
}

TEST(FdOutput, WritesEverythingInOrder) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  {
    FdOutput out(ends[1], 4);
    out << "ab"
        << "cdef"
        << "g";
  }
  close(ends[1]);
  char buffer[16];
  EXPECT_EQ(read(ends[0], buffer, sizeof buffer), 7);
  EXPECT_EQ(std::string(buffer, 7), "abcdefg");
  close(ends[0]);
}

TEST(FdOutput, NoticesThatNobodyReads) {
  signal(SIGPIPE, SIG_IGN);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  FdOutput out(ends[1]);
  out << "lost";
  EXPECT_FALSE(out.flush());
  EXPECT_TRUE(out.reader_gone());
  close(ends[1]);
}

TEST(FdOutput, KeepsTheFirstError) {
  FdOutput out(-1);
  out << "lost";
  EXPECT_FALSE(out.flush());
  EXPECT_EQ(out.error(), EBADF);
  EXPECT_FALSE(out.reader_gone());
}

TEST(Session, ReportsAFullDevice) {
  const int fd = open("/dev/full", O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  FdOutput out(fd);
  ToolSession tool;
  Session session{.out = out, .err = tool.err, .clock = tool.clock, .terminal = {}, .settings = {}};
  session.out << "result\n";
  EXPECT_EQ(session.finish(exit_fine), exit_failed);
  EXPECT_EQ(tool.err.text, "orlith: error: cannot write standard output: No space left on device\n");
  close(fd);
}

TEST(Session, QuietSilencesAllButErrors) {
  ToolSession tool;
  tool.session.settings.quiet = true;
  tool.session.note("n");
  tool.session.warning("w");
  EXPECT_EQ(tool.err.text, "");
  tool.session.error("e");
  EXPECT_EQ(tool.err.text, "orlith: error: e\n");
}

TEST(Session, ColoursTheWordOnlyAndKeepsIt) {
  ToolSession tool;
  tool.session.settings.color = ColorMode::always;
  tool.session.warning("w");
  EXPECT_EQ(tool.err.text, "orlith: \033[33mwarning: \033[0mw\n");
}

}  // namespace
