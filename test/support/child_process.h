// Runs a piece of a test in a forked child and hands back how it ended and what it wrote to standard error.
#ifndef TEST_SUPPORT_CHILD_PROCESS_H
#define TEST_SUPPORT_CHILD_PROCESS_H

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

struct ChildResult {
  int status = 0;  // as waitpid() gives it
  std::string stderr_text;

  bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killed_by(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

// A child whose work returns ends by exit(0), with all its handlers.
template <class Work>
ChildResult run_in_child(Work work) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
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
