// Which topology is active and which is next, and who this node is.
//
// Threads: one control thread changes what is here. Placement callers on any thread read the two topology
// pointers and the ids without locks; a topology is never freed while it may be active, so they always see a whole
// one, and an id is read as a whole (topo_shared_id_private.h). What they see may be a moment old.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "liborlith/topo/topo.h"
#include "liborlith/topo/topo_private.h"
#include "liborlith/topo/topo_shared_id_private.h"

ruxo_log_stream_t topo_debug = nullptr;

namespace {

std::atomic<topo_config *> current_active{nullptr};
std::atomic<topo_config *> next_active{nullptr};
std::atomic<host_config *> current_self_node{nullptr};
TopoSharedId my_id;
std::atomic<bool> i_am_ephemeral{false};
TopoSharedId ephemeral_id;

// A process under a temporary id must not be a node of a topology it is to use: two processes would then
// answer for the same node.
void exit_if_ephemeral() {
  if (!i_am_ephemeral) return;
  ruxo_log(ruxo_error, "Dangerous ephemeral node id conflict.\n");
  ruxo_log_flush();
  exit(-1);
}

void activate_me(topo_config *conf, const unsigned char *me, topo_host_state_t state) {
  host_activate(conf, topo_contains(conf, me), state);
}

// The same for a topology that this process goes on to use.
void claim_me(topo_config *conf, const unsigned char *me, topo_host_state_t state) {
  if (topo_contains(conf, me) == nullptr) return;
  exit_if_ephemeral();
  activate_me(conf, me, state);
}

// The node with this id by its point 0, which every node has.
host_config *find_on_ring(topo_config *conf, const unsigned char *id, const uint8_t *unsided_location) {
  if (conf == nullptr) return nullptr;
  uint8_t location[TOPO_HASH_SIZE];
  memcpy(location, unsided_location, sizeof location);
  if (conf->use_side) {
    const host_config *host = topo_contains(conf, id);
    if (host == nullptr) return nullptr;
    topo_move_to_side(location, host->ringside);
  }
  const auto *slot = static_cast<const host_config_slot *>(ruxo_skiplist_find(conf->ring, location, nullptr));
  return slot == nullptr ? nullptr : slot->node;
}

}  // namespace

host_config *topo_self_node() {
  return current_self_node.load(std::memory_order_acquire);
}

void topo_set_debug(ruxo_log_stream_t ndebug) {
  topo_debug = ndebug;
}

topo_config *topo_active(void) {
  return current_active.load(std::memory_order_acquire);
}

topo_config *topo_next_active(void) {
  return next_active.load(std::memory_order_acquire);
}

topo_config *topo_target(void) {
  topo_config *next = topo_next_active();
  return next != nullptr ? next : topo_active();
}

void topo_set_i_am_ephemeral(unsigned char *id) {
  ephemeral_id.store(id);
  i_am_ephemeral = true;
}

ruxo_boolean topo_i_am_ephemeral(void) {
  return i_am_ephemeral;
}

void topo_me(unsigned char *out) {
  if (i_am_ephemeral) return ephemeral_id.load(out);
  const host_config *self = topo_self_node();
  if (self == nullptr) return my_id.load(out);
  memcpy(out, self->id, RUXO_UUID_SIZE);
}

int topo_set_node(unsigned char *id) {
  char probe[RUXO_UUID_STRING_SIZE + 1] = {};  // the id text and two zero bytes: the key of point 0
  ruxo_uuid_unparse_lower(id, probe);
  uint8_t location[TOPO_HASH_SIZE];
  topo_hash(probe, sizeof probe, location);
  host_config *self = find_on_ring(topo_next_active(), id, location);
  if (self == nullptr) self = find_on_ring(topo_active(), id, location);
  my_id.store(id);
  // None when not found: then `id` is all that is known.
  current_self_node.store(self, std::memory_order_release);
  if (self == nullptr) return -1;
  if (i_am_ephemeral) ruxo_log(ruxo_error, "Dangerous ephemeral node id conflict: %s\n", probe);
  return 0;
}

int topo_initialize(topo_config *conf, topo_config *next, unsigned char *me) {
  current_active.store(conf, std::memory_order_release);
  activate_me(conf, me, TOPO_ACTIVE_TRANSITIONED);
  next_active.store(next, std::memory_order_release);
  claim_me(next, me, conf == nullptr ? TOPO_ACTIVE_NEW : TOPO_ACTIVE_TRANSITIONING);
  return 0;
}

int topo_activate_next(topo_config *conf) {
  topo_config *none = nullptr;
  if (!next_active.compare_exchange_strong(none, conf, std::memory_order_acq_rel)) return -1;
  ruxo_uuid_t me;
  topo_me(me);
  claim_me(conf, me, TOPO_ACTIVE_TRANSITIONING);
  return 0;
}

int topo_transition(void) {
  topo_config *next = topo_next_active();
  if (next == nullptr) return -1;
  // In this order topo_target() never misses both.
  current_active.store(next, std::memory_order_release);
  next_active.store(nullptr, std::memory_order_release);
  ruxo_uuid_t me;
  topo_me(me);
  claim_me(next, me, TOPO_ACTIVE_TRANSITIONED);
  ruxo_log(ruxo_error, "TOPO(0): %s\n", topo_signature(topo_active(), nullptr));
  ruxo_log(ruxo_error, "TOPO(1): %s\n", topo_signature(topo_next_active(), nullptr));
  return 0;
}

int topo_apply(topo_config *tc, void *thunk, int (*f)(topo_config *, host_config *, void *)) {
  int sum = 0;
  for (int i = 0; i < topo_size(tc); ++i) sum += f(tc, &tc->hc[i], thunk);
  return sum;
}

int ring_apply(topo_config *tc, void *thunk,
               int (*f)(topo_config *, host_config *, unsigned short idx, uint8_t *location, double percent,
                        void *thunk)) {
  if (tc == nullptr || tc->ring == nullptr) return 0;
  int sum = 0;
  for (ruxo_skiplist_node node = ruxo_skiplist_first(tc->ring); node != nullptr;
       node = ruxo_skiplist_next(tc->ring, node)) {
    auto *slot = static_cast<host_config_slot *>(ruxo_skiplist_data(node));
    sum += f(tc, slot->node, slot->idx, slot->location, topo_ring_percent(slot->location), thunk);
  }
  return sum;
}
