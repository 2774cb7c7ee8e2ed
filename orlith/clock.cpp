#include "orlith/clock.h"

#include <ctime>

#include "orlith/signals.h"

namespace {

constexpr uint64_t ns_per_s = 1'000'000'000;

uint64_t read_ns(clockid_t id) {
  timespec now{};
  clock_gettime(id, &now);
  return static_cast<uint64_t>(now.tv_sec) * ns_per_s + static_cast<uint64_t>(now.tv_nsec);
}

}  // namespace

uint64_t SystemClock::monotonic_ns() {
  return read_ns(CLOCK_MONOTONIC);
}

uint64_t SystemClock::realtime_ms() {
  return read_ns(CLOCK_REALTIME) / 1'000'000;
}

bool SystemClock::sleep_until_ns(uint64_t deadline_ns) {
  for (;;) {
    if (interrupted()) return false;
    const uint64_t now_ns = monotonic_ns();
    if (now_ns >= deadline_ns) return true;
    if (!wait_for_interrupt_ns(deadline_ns - now_ns)) continue;
    return false;
  }
}
