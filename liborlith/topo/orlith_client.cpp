// The client itself: its boot nodes and its topology, and the nodes found on that.
#include "liborlith/topo/orlith_client.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "liborlith/topo/orlith_client_private.h"

namespace {

constexpr int kDefaultTimeoutMs = 30000;
constexpr int kDefaultConnectTimeoutMs = 100;
constexpr size_t kNodeUrlSize = 64;

void free_texts(char **texts) {
  for (char **text = texts; text != nullptr && *text != nullptr; ++text) free(*text);
  free(texts);
}

bool has_scheme(const char *host) {
  return strncmp(host, "http://", 7) == 0 || strncmp(host, "https://", 8) == 0;
}

char *boot_url(const char *host) {
  char *url = nullptr;
  if (asprintf(&url, "%s%s", has_scheme(host) ? "" : "http://", host) < 0) return nullptr;
  return url;
}

char *node_url(const topo_config *tc, const host_config *hc) {
  char url[kNodeUrlSize];
  const uint16_t apiport =
      __atomic_load_n(&hc->net_apiport, __ATOMIC_RELAXED);  // topo_update_ip may change it
  snprintf(url, sizeof url, "%s%s:%d", tc->use_tls ? "https://" : "http://", hc->id_str, ntohs(apiport));
  return strdup(url);
}

// The active topology, kept from being forgotten meanwhile. Fetched first when there is none: then others wait.
class TopoInForce {
 public:
  explicit TopoInForce(orlith_client_t *c) : c_(c) {
    if (orlith_client_peek_topo(c) != nullptr) {
      pthread_rwlock_rdlock(&c->lock);
    } else {
      pthread_rwlock_wrlock(&c->lock);
      orlith_client_retopo(c);
    }
  }
  ~TopoInForce() { pthread_rwlock_unlock(&c_->lock); }
  TopoInForce(const TopoInForce &) = delete;
  TopoInForce &operator=(const TopoInForce &) = delete;

  topo_config *get() const { return c_->active_topo; }

 private:
  orlith_client_t *c_;
};

bool is_among(char *const *urls, int count, const char *url) {
  return std::any_of(urls, urls + count, [url](const char *known) { return strcmp(known, url) == 0; });
}

// Adds nodes that are not among the first `found`, from `start` around, until there are `wanted`.
int fill_up(const topo_config *tc, char **hosts, int found, int wanted, int start) {
  int count = found;
  const int limit = std::min<int>(wanted, tc->host_count);
  for (int step = 0; step < tc->host_count && count < limit; ++step) {
    char *const url = node_url(tc, &tc->hc[(start + step) % tc->host_count]);
    if (url == nullptr || is_among(hosts, found, url)) {
      free(url);
    } else {
      hosts[count++] = url;
    }
  }
  return count;
}

}  // namespace

orlith_client_t *orlith_client_alloc(int nhosts, char **hosts) {
  const auto count = static_cast<size_t>(std::max(nhosts, 0));
  auto *c = static_cast<orlith_client_t *>(calloc(1, sizeof(orlith_client_t)));
  auto **boot = static_cast<char **>(calloc(count + 1, sizeof(char *)));
  bool complete = c != nullptr && boot != nullptr;
  for (size_t i = 0; complete && i < count; ++i) complete = (boot[i] = boot_url(hosts[i])) != nullptr;
  if (!complete || pthread_rwlock_init(&c->lock, nullptr) != 0) {
    free_texts(boot);
    free(c);
    return nullptr;
  }
  c->boot = boot;
  c->ref_cnt = 1;
  c->timeout = kDefaultTimeoutMs;
  c->connecttimeout = kDefaultConnectTimeoutMs;
  return c;
}

int orlith_client_set_timeout(orlith_client_t *c, int timeout) {
  return __atomic_exchange_n(&c->timeout, timeout, __ATOMIC_RELAXED);
}

int orlith_client_set_connecttimeout(orlith_client_t *c, int connecttimeout) {
  return __atomic_exchange_n(&c->connecttimeout, connecttimeout, __ATOMIC_RELAXED);
}

void orlith_client_ref(orlith_client_t *c) {
  __atomic_add_fetch(&c->ref_cnt, 1, __ATOMIC_RELAXED);
}

// Leaves everything but the boot URLs on purpose: a topology that was handed out must stay readable.
void orlith_client_deref(orlith_client_t *c) {
  if (__atomic_sub_fetch(&c->ref_cnt, 1, __ATOMIC_ACQ_REL) != 0) return;
  free_texts(c->boot);
  c->boot = nullptr;
}

void orlith_client_free(orlith_client_t *c) {
  orlith_client_deref(c);
}

int orlith_client_force_retopo(orlith_client_t *c) {
  pthread_rwlock_wrlock(&c->lock);
  __atomic_store_n(&c->active_topo, nullptr, __ATOMIC_RELEASE);
  pthread_rwlock_unlock(&c->lock);
  return 0;
}

void orlith_client_retopo(orlith_client_t *c) {
  for (char **url = c->boot; url != nullptr && *url != nullptr && c->active_topo == nullptr; ++url) {
    free(c->active_topo_hash);
    c->active_topo_hash = orlith_client_get_active_hash(c, *url);
    if (c->active_topo_hash == nullptr) continue;
    topo_config *const tc = orlith_client_get_topo(*url, c->active_topo_hash);
    __atomic_store_n(&c->active_topo, tc, __ATOMIC_RELEASE);
  }
}

topo_config *orlith_client_get_active_topo(orlith_client_t *c) {
  topo_config *const known = orlith_client_peek_topo(c);
  return known != nullptr ? known : TopoInForce(c).get();
}

int orlith_client_node_count(orlith_client_t *c) {
  const TopoInForce tc(c);
  return tc.get() == nullptr ? -1 : tc.get()->host_count;
}

int orlith_client_get_all_nodes(orlith_client_t *c, char **hosts) {
  const TopoInForce tc(c);
  if (tc.get() == nullptr) return -1;
  return fill_up(tc.get(), hosts, 0, tc.get()->host_count, 0);
}

int orlith_client_find(orlith_client_t *c, char **hosts, int cnt,
                       const orlith_metric_locator_t *metric_locator) {
  host_config *owners[TOPO_MAX_COPIES];
  const TopoInForce tc(c);
  if (tc.get() == nullptr) return -1;
  if (cnt <= 0) return 0;  // a walk takes 0 for all copies
  const int found = topo_find_insertion_point_config_locator(tc.get(), metric_locator, owners,
                                                             std::min(cnt, TOPO_MAX_COPIES));
  int count = 0;
  for (int i = 0; i < found; ++i) {
    if (char *const url = node_url(tc.get(), owners[i]); url != nullptr) hosts[count++] = url;
  }
  return count;
}

int orlith_client_find_with_random_fill(orlith_client_t *c, char **hosts, int cnt,
                                        const orlith_metric_locator_t *metric_locator) {
  const int found = std::max(orlith_client_find(c, hosts, cnt, metric_locator), 0);
  if (cnt > 0 && found >= cnt) return found;
  pthread_rwlock_rdlock(&c->lock);
  const topo_config *const tc = c->active_topo;
  int result = -2;
  if (tc != nullptr) {
    result = tc->host_count > found ? fill_up(tc, hosts, found, cnt, rand() % tc->host_count) : found;
  }
  pthread_rwlock_unlock(&c->lock);
  // Forgotten between the two steps: the caller gets no nodes, so those found are not his to free.
  for (int i = 0; result < 0 && i < found; ++i) free(hosts[i]);
  return result;
}
