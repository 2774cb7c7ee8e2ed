// Latencies that a collection measures itself: the kernel's files hold totals, this tells how single operations
// fared. Each round does a few cheap operations of each kind and makes one histogram of how long they took.
#ifndef ORLITH_LATENCY_SOURCES_H
#define ORLITH_LATENCY_SOURCES_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "orlith/clock.h"
#include "orlith/histogram_value.h"

struct LatencySource {
  std::string name;  // the metric's, canonical
  unsigned most;     // operations a round
  // Does the operation once and gives what it took in *latency_ns. False when it cannot be done, with errno.
  std::function<bool(uint64_t *latency_ns)> measure;
};

// What this machine is measured by: how late a thread wakes from a short sleep, and what it takes to read and to
// write a page of a temporary file, which stays in memory. A temporary file that cannot be made is a problem.
std::vector<LatencySource> host_latencies(std::vector<std::string> &problems);

// Measures until `most` operations are done or `budget_ns` have passed, whichever is first; an operation that has begun
// is ended. In seconds. Stops at a failure, which is appended to the problems: what was measured until then counts.
Histogram measure_latency(const LatencySource &source, Clock &clock, uint64_t budget_ns,
                          std::vector<std::string> &problems);

#endif
