// What the handlers of a node share. All but `stopping` is set before the first request and stays.
#ifndef ORLITHD_NODE_H
#define ORLITHD_NODE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "orlithd/data_folder.h"
#include "orlithd/served_topology.h"
#include "ruxo/eventer.h"

struct Node {
  DataFolder data;
  ServedTopology topology;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  uint64_t max_upload_bytes = 0;
  uint64_t min_free_bytes = 0;     // below it the node is not ready
  int peer_timeout_ms = 0;         // for a peer's whole answer
  eventer_jobq_t *jobs = nullptr;  // what waits for a disk
  eventer_jobq_t *peers =
      nullptr;  // what waits for a peer, which may be down: uploads must not wait for that
  std::atomic<bool> stopping{false};
};

#endif
