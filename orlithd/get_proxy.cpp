// A rollup file from wherever it is: from here when this node has it, else from the nodes that own the metric. All
// of those are asked at once, each by a job with a proxy buffer, so that one that is down costs no time; the first of
// them, in the order of placement, that has the file is relayed from its buffer's descriptor.
//
//   handler: connection off its loop -> a job for each owner -> join -> on the loop again: connection back, answer
//
// The jobs' completions, and with the last of them the join's, run on the connection's loop thread; so only `status`
// and `buffer` of a fetch are touched elsewhere, by its own job.
#include <memory>
#include <vector>

#include "liborlith/util/go_asynch.h"
#include "liborlith/util/join.h"
#include "liborlith/util/metric_locator.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "orlithd/handlers.h"
#include "orlithd/nnt_request.h"

namespace {

struct DestroyBuffer {
  void operator()(vask_proxy_buffer_t *buffer) const { vask_proxy_buffer_destroy(buffer); }
};

struct Fetch {
  std::string url;
  int timeout_ms;
  const topo_config *topology;
  liborlith_join_t *join = nullptr;
  long status = 0;  // of the owner's answer; 0 when there was none
  std::unique_ptr<vask_proxy_buffer_t, DestroyBuffer> buffer;
};

struct Relay {
  Exchange exchange;
  std::vector<Fetch> fetches;
  eventer_t connection = nullptr;
};

int fetch_job(eventer_t, int mask, void *closure, struct timeval *) {
  Fetch *const fetch = static_cast<Fetch *>(closure);
  if ((mask & EVENTER_ASYNCH_WORK) == 0) {  // done, or cancelled and so without an answer
    liborlith_join_one(fetch->join);
    return 0;
  }
  fetch->buffer.reset(vask_proxy_buffer_new());
  if (fetch->buffer == nullptr) return 0;
  if (vask_proxy_buffer_perform_curl_topo(fetch->buffer.get(), nullptr, fetch->url.c_str(), fetch->timeout_ms,
                                          nullptr, nullptr, nullptr, fetch->topology) == 0)
    fetch->status = vask_proxy_buffer_get_httpcode(fetch->buffer.get());
  return 0;
}

void answer(Relay &relay) {
  bool all_without = true;
  for (const Fetch &fetch : relay.fetches) {
    if (fetch.status == 200)
      return relay.exchange.file(fetch.buffer->fd, vask_proxy_buffer_get_len(fetch.buffer.get()));
    if (fetch.status != 404) all_without = false;
  }
  relay.exchange.error(all_without ? 404 : 502,
                       all_without ? "no owner has such a rollup file" : "an owner could not be asked");
}

void all_answered(void *closure) {
  const std::unique_ptr<Relay> relay(static_cast<Relay *>(closure));
  if (eventer_add(relay->connection) != 0)
    ruxo_log(ruxo_error, "a connection could not be put back on its loop\n");
  answer(*relay);
}

// Whether this node had the file, and so has answered.
bool answered_from_here(const Node &node, const NntRequest &request, Exchange &exchange) {
  struct stat info {};
  const OwnedFd file = node.data.open_file(request.file(), &info);
  if (!file.valid()) return false;
  exchange.file(file.get(), static_cast<size_t>(info.st_size));
  return true;
}

// A fetch from each owner but this node; false for a name that is no metric's.
bool fetches_of(const Node &node, const NntRequest &request, std::vector<Fetch> *fetches) {
  mem_reader_t name{};
  name.input_buffer = reinterpret_cast<const uint8_t *>(request.name.data());
  name.input_buffer_size = request.name.size();
  const std::unique_ptr<orlith_metric_locator_t, decltype(&orlith_metric_locator_deref)> locator(
      orlith_metric_locator_create(request.check, &name, METRIC_TYPE_NUMERIC), orlith_metric_locator_deref);
  if (locator == nullptr) return false;
  topo_config *const topology = topo_active();
  host_config *owners[TOPO_MAX_COPIES];
  const int count = topo_find_insertion_point_config_locator(topology, locator.get(), owners, 0);
  for (int i = 0; i < count; ++i) {
    if (owners[i] == node.topology.self) continue;
    Fetch fetch{};
    fetch.url = std::string(topo_host_config_url_prefix(owners[i])) + "/nnt/" + request.period + "/" +
                request.check_text + "/" + request.encoded;
    fetch.timeout_ms = node.peer_timeout_ms;
    fetch.topology = topology;
    fetches->push_back(std::move(fetch));
  }
  return true;
}

}  // namespace

void get_proxy(Node &node, Exchange &exchange) {
  const std::optional<NntRequest> request = nnt_request(exchange, "/proxy/nnt/");
  if (!request) return exchange.error(400, kNntExpected);
  auto relay = std::make_unique<Relay>(Relay{exchange, {}, nullptr});
  if (!fetches_of(node, *request, &relay->fetches)) return exchange.error(400, "the name is no metric's");
  if (answered_from_here(node, *request, exchange)) return;
  if (relay->fetches.empty()) return exchange.error(404, "no owner has such a rollup file");
  ruxo_http_connection_t *const connection = ruxo_http_session_connection(exchange.context());
  relay->connection = ruxo_http_connection_event_float(connection);
  if (relay->connection == nullptr) return exchange.error(500, "the connection is not on its loop");
  eventer_remove_fd(eventer_get_fd(relay->connection));
  Relay *const shared = relay.release();  // the join's now
  liborlith_join_t *const join = liborlith_join_create(nullptr, all_answered, shared);
  liborlith_join_wait_more(join, static_cast<uint32_t>(shared->fetches.size()));
  for (Fetch &fetch : shared->fetches) {
    fetch.join = join;
    orlith_http_go_asynch(node.peers, fetch_job, &fetch, connection);
  }
  liborlith_join_commit(join);
}
