// The schedule and the loop of `orlith collect`, apart from its command line.
#ifndef ORLITH_COLLECT_H
#define ORLITH_COLLECT_H

#include <cstdint>
#include <string>
#include <vector>

#include "orlith/latency_sources.h"
#include "orlith/session.h"

struct CollectOptions {
  uint64_t count = 1;                      // rounds; 0 for no end
  double interval_s = 1;                   // from the start of one round to the start of the next
  std::string check_uuid;                  // 36 characters
  std::string root;                        // "" for the machine itself
  std::vector<LatencySource> latencies{};  // measured at the end of each round
};

// Writes whole rounds of M lines, and of a histogram line a latency, to `out`, one flush a round. Round k begins k
// intervals after the first: lateness does not add up, and rounds that were missed altogether are left out. Measuring
// latencies takes a small part of an interval at most. Each problem is warned about once.
// exit_fine; exit_interrupted when an interrupt came; exit_failed when writing failed or no source could be read.
int collect(const CollectOptions &options, Session &session, Output &out);

#endif
