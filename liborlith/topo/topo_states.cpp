// How far each node of a topology is with a rebalance, and whether reads are open.
//
// Threads: states change under one lock, on any thread. A node's state, the counts and reads_allowed are plain fields
// of public structures that others read at any time without it; each is stored as one atomic word, so a reader sees
// the old value or the new one, and the counts of one topology may be of different moments.
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

#include "liborlith/topo/topo.h"

namespace {

std::mutex states_lock;

template <class Field>
void store(Field &field, Field value) {
  std::atomic_ref(field).store(value, std::memory_order_release);
}

int *counter_of(topo_config *conf, topo_host_state_t state) {
  switch (state) {
    case TOPO_ACTIVE_UNKNOWN:
      return &conf->hosts_unknown;
    case TOPO_ACTIVE_NEW:
      return &conf->hosts_new;
    case TOPO_ACTIVE_TRANSITIONING:
      return &conf->hosts_transitioning;
    case TOPO_ACTIVE_TRANSITIONED:
      return &conf->hosts_transitioned;
  }
  return nullptr;
}

void count_host(topo_config *conf, topo_host_state_t state, int change) {
  int *counter = counter_of(conf, state);
  if (counter != nullptr) store(*counter, *counter + change);
}

// Compilation leaves all counts at zero, although every node starts out unknown. The first change of a state turns
// them into true counts; otherwise reads would open (or stay shut) on a count below zero.
void begin_counting(topo_config *conf) {
  const int counted =
      conf->hosts_unknown + conf->hosts_new + conf->hosts_transitioning + conf->hosts_transitioned;
  if (counted != 0) return;
  for (int i = 0; i < conf->host_count; ++i) count_host(conf, conf->hc[i].active, 1);
}

bool may_read(topo_config *conf) {
  return std::atomic_ref(conf->reads_allowed).load(std::memory_order_acquire) != 0;
}

}  // namespace

const char *topo_host_state_name(topo_host_state_t s) {
  switch (s) {
    case TOPO_ACTIVE_UNKNOWN:
      return "unknown";
    case TOPO_ACTIVE_NEW:
      return "new";
    case TOPO_ACTIVE_TRANSITIONING:
      return "transitioning";
    case TOPO_ACTIVE_TRANSITIONED:
      return "transitioned";
  }
  return "error";
}

void host_activate(topo_config *conf, host_config *hc, topo_host_state_t state) {
  if (conf == nullptr || hc == nullptr) return;
  const std::lock_guard hold(states_lock);
  if (hc->active == state) return;
  begin_counting(conf);
  count_host(conf, hc->active, -1);
  count_host(conf, state, 1);
  store(hc->active, state);
  if (conf->hosts_unknown == 0 && conf->hosts_transitioning == 0) store(conf->reads_allowed, 1);
}

int topo_wait_on_readwrite_barrier(topo_config *conf) {
  if (conf == nullptr) return -1;
  while (!may_read(conf)) sleep(1);
  return 0;
}

topo_config *topo_copy_topology(const topo_config *from) {
  if (from == nullptr) return nullptr;
  auto *copy = static_cast<topo_config *>(malloc(sizeof(topo_config)));
  if (copy == nullptr) return nullptr;
  const std::lock_guard hold(states_lock);  // so that the counts are of one moment
  *copy = *from;
  return copy;
}
