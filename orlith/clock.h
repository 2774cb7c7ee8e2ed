// Time as the commands see it. Tests put their own clock in, so no test ever waits.
#ifndef ORLITH_CLOCK_H
#define ORLITH_CLOCK_H

#include <cstdint>

class Clock {
 public:
  virtual ~Clock() = default;
  virtual uint64_t monotonic_ns() = 0;  // never goes back, counts from anywhere
  virtual uint64_t realtime_ms() = 0;   // since the Unix epoch
  // Waits until monotonic_ns() reaches the deadline. False when an interrupt (see signals.h) ended the wait.
  virtual bool sleep_until_ns(uint64_t deadline_ns) = 0;
};

// The machine's own clocks.
class SystemClock final : public Clock {
 public:
  uint64_t monotonic_ns() override;
  uint64_t realtime_ms() override;
  bool sleep_until_ns(uint64_t deadline_ns) override;
};

#endif
