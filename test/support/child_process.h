// Runs a piece of a test in a forked child and hands back how it ended and what it wrote to standard error.
#ifndef TEST_SUPPORT_CHILD_PROCESS_H
#define TEST_SUPPORT_CHILD_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>

struct ChildResult {
  int status = 0;  // as waitpid() gives it
  std::string stderr_text;

  bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killed_by(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

namespace child_process {

inline bool is_child = false;

inline bool built_for_thread_sanitizer() {
#if defined(__SANITIZE_THREAD__)
  return true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
  return true;
#endif
#endif
  return false;
}

inline std::ptrdiff_t thread_count() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

}  // namespace child_process

// Asked by the leak checker as a process ends. In a forked child it cannot see the stacks of the threads that
// were left behind, and takes what they held for leaks.
extern "C" __attribute__((weak, visibility("default"))) int __lsan_is_turned_off() {
  return child_process::is_child;
}

// At the start of a test that forks. The thread sanitizer does not support threads on both sides of a fork,
// so its builds skip such a test when earlier ones, in the same process, have left a thread behind (two are
// the main one and the sanitizer's own); each test in a process of its own, as ctest runs them, is not
// skipped.
#define FORKS_A_CHILD()                                                                 \
  if (child_process::built_for_thread_sanitizer() && child_process::thread_count() > 2) \
  GTEST_SKIP() << "the thread sanitizer does not support threads on both sides of a fork"

// The same for a test that has threads on both sides by design.
#define FORKS_WITH_THREADS()                       \
  if (child_process::built_for_thread_sanitizer()) \
  GTEST_SKIP() << "the thread sanitizer does not support threads on both sides of a fork"

// A child whose work returns ends by exit(0), with all its handlers.
template <class Work>
ChildResult run_in_child(Work work) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    child_process::is_child = true;
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    work();
    exit(0);
  }
  close(ends[1]);
  ChildResult result;
  char piece[4096];
  for (ssize_t n; (n = read(ends[0], piece, sizeof piece)) > 0;)
    result.stderr_text.append(piece, static_cast<size_t>(n));
  close(ends[0]);
  waitpid(child, &result.status, 0);
  return result;
}

#endif
