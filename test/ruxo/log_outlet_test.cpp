#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>
#include <thread>

#include "ruxo/json.h"
#include "ruxo/log.h"
#include "test/support/child_process.h"
#include "test/support/temp_dir.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

ruxo_log_stream_t stream_to(ruxo_log_outlet_t outlet) {
  const ruxo_log_stream_t ls = ruxo_log_stream_new("test/outlet");
  ruxo_log_stream_remove_outlets(ls);
  ruxo_log_stream_add_outlet(ls, outlet);
  return ls;
}

// The messages of logfmt lines, as written between the quotes; "?" and the line for one that is not whole.
std::vector<std::string> messages(const std::string &text) {
  regex_t whole;
  regcomp(&whole,
          "^time=[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}Z level=[a-z]+ stream=[^ ]+ "
          "source=[^ ]+:[0-9]+ task=[0-9]+ message=\"([^\"]*)\"$",
          REG_EXTENDED);
  std::vector<std::string> result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    regmatch_t match[2];
    const bool is_whole = regexec(&whole, line.c_str(), 2, match, 0) == 0;
    result.push_back(is_whole ? line.substr(static_cast<size_t>(match[1].rm_so),
                                            static_cast<size_t>(match[1].rm_eo - match[1].rm_so))
                              : "?" + line);
  }
  regfree(&whole);
  return result;
}

}  // namespace

TEST(LogOutlet, AFileIsAppendedTo) {
  const TempDir dir;
  dir.write("log", "old\n");
  const ruxo_log_stream_t ls = stream_to(ruxo_log_outlet_file(dir.file("log").c_str(), false));
  ruxo_log(ls, "new\n");
  ruxo_log_flush();
  EXPECT_THAT(messages(dir.read("log")), ElementsAre("?old", "new"));
}

TEST(LogOutlet, AFileCanBeJson) {
  const TempDir dir;
  const ruxo_log_stream_t ls = stream_to(ruxo_log_outlet_file(dir.file("log").c_str(), true));
  ruxo_log(ls, "text\n");
  ruxo_log_flush();
  ruxo_json_object *const line = ruxo_json_parse(dir.read("log").c_str());
  ASSERT_NE(line, nullptr) << dir.read("log");
  EXPECT_STREQ(ruxo_json_string(ruxo_json_object_get(line, "message", nullptr), nullptr), "text");
  ruxo_json_free(line);
}

TEST(LogOutlet, StandardErrorCanBeJson) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] { ruxo_log(stream_to(ruxo_log_outlet_stderr(true)), "text\n"); });
  ruxo_json_object *const line = ruxo_json_parse(child.stderr_text.c_str());
  EXPECT_NE(line, nullptr) << child.stderr_text;
  ruxo_json_free(line);
}

TEST(LogOutlet, AFileThatCannotBeOpenedGivesNullAndErrno) {
  const TempDir dir;
  errno = 0;
  EXPECT_EQ(ruxo_log_outlet_file(dir.file("missing/log").c_str(), false), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST(LogOutlet, ReopeningFollowsARotation) {
  const TempDir dir;
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_file(dir.file("log").c_str(), false);
  const ruxo_log_stream_t ls = stream_to(outlet);
  ruxo_log(ls, "one\n");
  ruxo_log_flush();
  ASSERT_EQ(rename(dir.file("log").c_str(), dir.file("log.1").c_str()), 0);
  ruxo_log(ls, "two\n");
  EXPECT_TRUE(ruxo_log_outlet_reopen(outlet));
  ruxo_log(ls, "three\n");
  ruxo_log_flush();
  EXPECT_THAT(messages(dir.read("log.1")), ElementsAre("one", "two"));
  EXPECT_THAT(messages(dir.read("log")), ElementsAre("three"));
}

TEST(LogOutlet, AFailedReopeningKeepsTheOldFile) {
  const TempDir dir;
  ASSERT_EQ(mkdir(dir.file("sub").c_str(), 0755), 0);
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_file(dir.file("sub/log").c_str(), false);
  ASSERT_EQ(rename(dir.file("sub").c_str(), dir.file("moved").c_str()), 0);
  errno = 0;
  EXPECT_FALSE(ruxo_log_outlet_reopen(outlet));
  EXPECT_EQ(errno, ENOENT);
  ruxo_log(stream_to(outlet), "kept\n");
  ruxo_log_flush();
  EXPECT_THAT(messages(dir.read("moved/log")), ElementsAre("kept"));
}

TEST(LogOutlet, MemoryKeepsMessagesUntilCleared) {
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_memory();
  const ruxo_log_stream_t ls = stream_to(outlet);
  ruxo_log(ls, "one\n");
  const char *const first = ruxo_log_outlet_memory_line(outlet, 0);
  for (int i = 0; i < 1000; ++i) ruxo_log(ls, "more\n");
  EXPECT_EQ(ruxo_log_outlet_memory_count(outlet), 1001u);
  EXPECT_STREQ(first, "one\n");
  EXPECT_EQ(ruxo_log_outlet_memory_line(outlet, 1001), nullptr);
  ruxo_log_outlet_memory_clear(outlet);
  EXPECT_EQ(ruxo_log_outlet_memory_count(outlet), 0u);
  EXPECT_EQ(ruxo_log_outlet_memory_line(outlet, 0), nullptr);
}

TEST(LogOutlet, OtherOutletsHoldNoMessages) {
  const ruxo_log_outlet_t outlet = ruxo_log_outlet_file("/dev/null", false);
  ruxo_log(stream_to(outlet), "text\n");
  EXPECT_EQ(ruxo_log_outlet_memory_count(outlet), 0u);
  EXPECT_EQ(ruxo_log_outlet_memory_line(outlet, 0), nullptr);
  ruxo_log_outlet_memory_clear(outlet);
}

TEST(LogOutlet, AFullDiskIsReportedOnceOnStandardError) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    const ruxo_log_stream_t ls = stream_to(ruxo_log_outlet_file("/dev/full", false));
    ruxo_log_go_synch();
    ruxo_log(ls, "one\n");
    ruxo_log(ls, "two\n");
  });
  EXPECT_TRUE(child.exited_with(0));
  EXPECT_EQ(child.stderr_text, "log lines are being lost: cannot write /dev/full: No space left on device\n");
}

TEST(LogOutlet, TheLineAfterATornOneStartsOnItsOwn) {
  FORKS_A_CHILD();
  const TempDir dir;
  const ChildResult child = run_in_child([&] {
    const ruxo_log_stream_t ls = stream_to(ruxo_log_outlet_file(dir.file("log").c_str(), false));
    ruxo_log_go_synch();
    // The file may grow to 20 bytes only, so that the first line is cut off.
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit limit;
    getrlimit(RLIMIT_FSIZE, &limit);
    const struct rlimit small = {20, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    ruxo_log(ls, "torn\n");
    ruxo_log(ls, "lost\n");
    setrlimit(RLIMIT_FSIZE, &limit);
    ruxo_log(ls, "whole\n");
    ruxo_log(ls, "whole again\n");
  });
  EXPECT_THAT(child.stderr_text,
              testing::HasSubstr("cannot write " + dir.file("log") + ": File too large\n"));
  const std::vector<std::string> lines = messages(dir.read("log"));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_THAT(lines[0], testing::MatchesRegex("\\?time=.{15}"));
  EXPECT_EQ(lines[1], "whole");
  EXPECT_EQ(lines[2], "whole again");
}

TEST(LogOutlet, ANonBlockingPipeLosesNothing) {
  FORKS_A_CHILD();
  constexpr int kLines = 3000;  // far more than a pipe holds
  const ChildResult child = run_in_child([] {
    fcntl(STDERR_FILENO, F_SETFL, fcntl(STDERR_FILENO, F_GETFL) | O_NONBLOCK);
    for (int i = 0; i < kLines; ++i) ruxo_log(ruxo_error, "%d\n", i);
  });
  const std::vector<std::string> lines = messages(child.stderr_text);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kLines));
  for (int i = 0; i < kLines; ++i) ASSERT_EQ(lines[static_cast<size_t>(i)], std::to_string(i));
}

TEST(LogOutlet, ABrokenPipeDoesNotKillTheProcess) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    signal(SIGPIPE, SIG_DFL);
    ruxo_log_go_synch();
    ruxo_log(ruxo_error, "nobody reads this\n");
    sigset_t pending;
    sigpending(&pending);
    if (sigismember(&pending, SIGPIPE)) _exit(2);
  });
  EXPECT_TRUE(child.exited_with(0));
}

TEST(LogOutlet, ASignalThatWasPendingBeforeStaysPending) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    int ends[2];
    if (pipe(ends) != 0) _exit(1);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    sigset_t broken_pipe;
    sigemptyset(&broken_pipe);
    sigaddset(&broken_pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken_pipe, nullptr);
    raise(SIGPIPE);
    ruxo_log_go_synch();
    ruxo_log(ruxo_error, "nobody reads this\n");
    sigset_t pending;
    sigpending(&pending);
    if (!sigismember(&pending, SIGPIPE)) _exit(2);
  });
  EXPECT_TRUE(child.exited_with(0));
}

TEST(LogOutlet, LinesLongerThanAWriteAreWhole) {
  const TempDir dir;
  const ruxo_log_stream_t ls = stream_to(ruxo_log_outlet_file(dir.file("log").c_str(), false));
  const std::string text(300000, 'x');
  ruxo_log(ls, "%s\n", text.c_str());
  ruxo_log(ls, "short\n");
  ruxo_log_flush();
  const std::string written = dir.read("log");
  EXPECT_NE(written.find("message=\"" + text + "\"\n"), std::string::npos);
  EXPECT_TRUE(written.ends_with("message=\"short\"\n"));
}
