// What the tool's tests share: a session whose streams, clock and terminal belong to the test.
#ifndef TEST_ORLITH_TOOL_FIXTURE_H
#define TEST_ORLITH_TOOL_FIXTURE_H

#include <string>
#include <vector>

#include "orlith/cli.h"

// Time moves only when a test moves it, or when somebody sleeps.
class ManualClock final : public Clock {
 public:
  uint64_t monotonic_ns() override { return now_ns; }
  uint64_t realtime_ms() override { return start_ms + now_ns / 1'000'000; }
  bool sleep_until_ns(uint64_t deadline_ns) override {
    sleeps.push_back(deadline_ns);
    if (deadline_ns > now_ns) now_ns = deadline_ns;
    return sleeps.size() != interrupt_at_sleep;
  }
  void advance_ms(uint64_t ms) { now_ns += ms * 1'000'000; }

  uint64_t now_ns = 5'000'000'000;
  uint64_t start_ms = 1'700'000'000'000;
  std::vector<uint64_t> sleeps;
  size_t interrupt_at_sleep = 0;  // 1 for the first sleep; 0 for never
};

struct ToolSession {
  StringOutput out, err;
  ManualClock clock;
  Session session{.out = out, .err = err, .clock = clock, .terminal = {}, .settings = {}};

  // Parses and runs as main() does.
  int run(CommandTable commands, const std::vector<std::string> &arguments) {
    return CommandLine(commands).run(arguments, session);
  }
  int run(const std::vector<std::string> &arguments) { return run(all_commands(), arguments); }
};

#endif
