#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <sstream>
#include <thread>

#include "ruxo/log.h"
#include "ruxo/zipkin.h"
#include "test/support/child_process.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"

namespace {

// The messages "<writer> <number>" of logfmt lines, as the numbers of each writer in the order written.
std::map<int, std::vector<int>> numbers_by_writer(const std::string &text) {
  std::map<int, std::vector<int>> result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    int writer = -1, number = -1;
    const size_t at = line.find("message=\"");
    if (at == std::string::npos || sscanf(line.c_str() + at, "message=\"%d %d\"", &writer, &number) != 2) {
      ADD_FAILURE() << "not a whole line: " << line;
      continue;
    }
    result[writer].push_back(number);
  }
  return result;
}

void expect_counting_from_zero(const std::vector<int> &numbers, size_t count) {
  ASSERT_EQ(numbers.size(), count);
  for (size_t i = 0; i < count; ++i) ASSERT_EQ(numbers[i], static_cast<int>(i));
}

void log_lines(ruxo_log_stream_t ls, int writer, int count) {
  for (int i = 0; i < count; ++i) ruxo_log(ls, "%d %d\n", writer, i);
}

// A number that a forked child and its parent share.
std::atomic<int> *shared_number() {
  void *const page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return page == MAP_FAILED ? nullptr : new (page) std::atomic<int>(0);
}

}  // namespace

TEST(LogQueue, GoingSynchronousLosesNothingThatIsQueued) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    log_lines(ruxo_error, 1, 500);
    ruxo_log_go_synch();
    abort();
  });
  EXPECT_TRUE(child.killed_by(SIGABRT));
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 500);
}

TEST(LogQueue, OnceSynchronousEachLineIsWrittenBeforeItsCallReturns) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    ruxo_log_go_synch();
    ruxo_log(ruxo_error, "1 0\n");
    abort();
  });
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 1);
}

TEST(LogQueue, GoingSynchronousTakesLinesOfAllThreads) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(log_lines, ruxo_error, t, 200);
    for (std::thread &thread : threads) thread.join();
    ruxo_log_go_synch();
    abort();
  });
  EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status;
  auto numbers = numbers_by_writer(child.stderr_text);
  for (int t = 0; t < 4; ++t) expect_counting_from_zero(numbers[t], 200);
}

TEST(LogQueue, SynchronousWritersOnManyThreadsLoseNothing) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(log_lines, ruxo_error, t, 200);
    ruxo_log_go_synch();
    for (std::thread &thread : threads) thread.join();
    abort();
  });
  EXPECT_TRUE(child.killed_by(SIGABRT)) << child.status;
  auto numbers = numbers_by_writer(child.stderr_text);
  for (int t = 0; t < 4; ++t) expect_counting_from_zero(numbers[t], 200);
}

TEST(LogQueue, GoingAsynchronousAgainKeepsTheOrder) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    for (int i = 0; i < 100; ++i) {
      i % 2 == 0 ? ruxo_log_go_synch() : ruxo_log_go_asynch();
      ruxo_log(ruxo_error, "1 %d\n", i);
    }
  });
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 100);
}

TEST(LogQueue, ReturningFromMainLosesNothing) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] { log_lines(ruxo_error, 1, 1000); });
  EXPECT_TRUE(child.exited_with(0));
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 1000);
}

TEST(LogQueue, ExitFromAnotherThreadLosesNothing) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    log_lines(ruxo_error, 1, 300);
    std::thread([] {
      log_lines(ruxo_error, 2, 300);
      exit(7);
    }).join();
  });
  EXPECT_TRUE(child.exited_with(7));
  auto numbers = numbers_by_writer(child.stderr_text);
  expect_counting_from_zero(numbers[1], 300);
  expect_counting_from_zero(numbers[2], 300);
}

TEST(LogQueue, ExitHandlersCanStillLog) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    atexit([] { ruxo_log(ruxo_error, "1 1\n"); });
    ruxo_log(ruxo_error, "1 0\n");
  });
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 2);
}

TEST(LogQueue, ALineWhoseCallReturnedBeforeExitIsWritten) {
  FORKS_A_CHILD();
  std::atomic<int> *const logged = shared_number();
  ASSERT_NE(logged, nullptr);
  const ChildResult child = run_in_child([&] {
    std::thread([&] {
      for (;;) {
        ruxo_log(ruxo_error, "1 %d\n", logged->load());
        logged->fetch_add(1);
      }
    }).detach();
    while (logged->load() < 200) std::this_thread::yield();
    exit(0);
  });
  // The thread may be in the middle of one line more when the process goes.
  const std::vector<int> numbers = numbers_by_writer(child.stderr_text)[1];
  EXPECT_GE(numbers.size(), static_cast<size_t>(logged->load()));
  expect_counting_from_zero(numbers, numbers.size());
  munmap(logged, 4096);
}

TEST(LogQueue, MoreLinesThanTheQueueHoldsAreAllWritten) {
  const TempDir dir;
  const ruxo_log_stream_t ls = ruxo_log_stream_new("test/many");
  ruxo_log_stream_add_outlet(ls, ruxo_log_outlet_file(dir.file("log").c_str(), false));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(log_lines, ls, t, 6000);
  for (std::thread &thread : threads) thread.join();
  ruxo_log_flush();
  auto numbers = numbers_by_writer(dir.read("log"));
  for (int t = 0; t < 4; ++t) expect_counting_from_zero(numbers[t], 6000);
}

TEST(LogQueue, MoreBytesThanTheQueueHoldsAreAllKept) {
  const LogCapture capture(&ruxo_error);
  const std::string text(1 << 20, 'x');
  for (int i = 0; i < 20; ++i) ruxo_log(ruxo_error, "%s", text.c_str());
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(lines.size(), 20u);
  for (const std::string &line : lines) EXPECT_TRUE(line == text);
}

TEST(LogQueue, AForkedChildWithoutAWriterThreadCanLogAndGoSynchronous) {
  FORKS_WITH_THREADS();
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  ruxo_log(ls, "starts the writer in the parent\n");
  const ChildResult child = run_in_child([] {
    log_lines(ruxo_error, 1, 50);
    ruxo_log_go_synch();
    ruxo_log(ruxo_error, "1 50\n");
    abort();
  });
  EXPECT_TRUE(child.killed_by(SIGABRT));
  expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 51);
}

TEST(LogQueue, AForkedChildStartsAWriterOfItsOwn) {
  FORKS_WITH_THREADS();
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  ruxo_log(ls, "starts the writer in the parent\n");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    ruxo_log(ruxo_error, "1 0\n");
    for (;;) pause();  // so that only the writer thread can have written the line
  }
  close(ends[1]);
  std::string text;
  for (char c = 0; c != '\n' && read(ends[0], &c, 1) == 1;) text += c;
  expect_counting_from_zero(numbers_by_writer(text)[1], 1);
  close(ends[0]);
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(LogQueue, ForkingDuplicatesNoLine) {
  FORKS_WITH_THREADS();
  const TempDir dir;
  const ruxo_log_stream_t ls = ruxo_log_stream_new("test/fork");
  ruxo_log_stream_add_outlet(ls, ruxo_log_outlet_file(dir.file("log").c_str(), false));
  for (int i = 0; i < 20; ++i) {
    ruxo_log(ls, "1 %d\n", i);
    EXPECT_TRUE(run_in_child([] {}).exited_with(0));
  }
  ruxo_log_flush();
  expect_counting_from_zero(numbers_by_writer(dir.read("log"))[1], 20);
}

TEST(LogQueue, ForkingWhileOtherThreadsLogLeavesChildrenAbleToLog) {
  FORKS_WITH_THREADS();
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      ruxo_zipkin_span *const span = ruxo_zipkin_span_new("busy");
      ruxo_zipkin_span_attach_logs(span, true);
      while (!stop) {
        ruxo_zipkin_set_active_span(span);
        ruxo_log(ls, "busy\n");
        ruxo_zipkin_set_active_span(nullptr);
        ruxo_log_stream_new("test/busy");
      }
      ruxo_zipkin_span_free(span);
    });
  }
  for (int i = 0; i < 20; ++i) {
    const ChildResult child = run_in_child([] {
      ruxo_log(ruxo_error, "1 0\n");
      ruxo_log_stream_new("test/busy");
      ruxo_log_go_synch();
      abort();
    });
    ASSERT_TRUE(child.killed_by(SIGABRT));
    expect_counting_from_zero(numbers_by_writer(child.stderr_text)[1], 1);
  }
  stop = true;
  for (std::thread &thread : threads) thread.join();
}

TEST(LogQueue, TheWriterTakesNoSignalsOfTheHost) {
  FORKS_A_CHILD();
  const ChildResult child = run_in_child([] {
    static std::atomic<pid_t> handled_on{0};
    signal(SIGUSR1, [](int) { handled_on = gettid(); });
    ruxo_log(ruxo_error, "1 0\n");
    for (int i = 0; i < 50; ++i) {
      handled_on = 0;
      kill(getpid(), SIGUSR1);
      while (handled_on == 0) std::this_thread::yield();
      if (handled_on != getpid()) _exit(1);
    }
  });
  EXPECT_TRUE(child.exited_with(0));
}
