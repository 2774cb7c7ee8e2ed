#include "orlith/cluster.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cstdlib>

#include "orlith/check_uuid.h"

namespace {

// Clients are kept to the very end: one that is given back frees neither itself nor its topology, and these would be
// lost.
orlith_client_t *new_client(const ClusterOptions &options) {
  static auto *const clients = new std::vector<orlith_client_t *>;
  std::vector<char *> boot;
  for (const std::string &url : options.boot) boot.push_back(const_cast<char *>(url.c_str()));
  orlith_client_t *const client = orlith_client_alloc(static_cast<int>(boot.size()), boot.data());
  if (client == nullptr) throw std::bad_alloc();
  clients->push_back(client);
  constexpr int kConnectTimeout_ms = 1000;
  orlith_client_set_connecttimeout(client, kConnectTimeout_ms);
  orlith_client_set_timeout(client, static_cast<int>(options.timeout_s * 1000));
  return client;
}

Owner owner_of(const topo_config &topology, std::string url) {
  for (int i = 0; i < topology.host_count; ++i) {
    const host_config &node = topology.hc[i];
    if (url == node.url_prefix) return {node.id_str, node.hostname, ntohs(node.net_apiport), std::move(url)};
  }
  return {"", "", 0, std::move(url)};
}

}  // namespace

void add_cluster_options(CLI::App &app, ClusterOptions *options) {
  app.add_option("-b,--boot", options->boot, "a node to ask first, as ADDR:PORT or URL (may be repeated)")
      ->type_name("URL")
      ->required()
      ->allow_extra_args(false);
  app.add_option("UUID", options->check, "the metric's check")->type_name("UUID")->required();
  app.add_option("NAME", options->name, "the metric's name, stream tags included")
      ->type_name("NAME")
      ->required();
  app.add_option("-c,--copies", options->copies, "only so many owners (default: all copies)")
      ->type_name("COUNT")
      ->check(CLI::Range(1, TOPO_MAX_COPIES));
}

int place_in_cluster(const ClusterOptions &options, Session &session, Placement *placement) {
  const std::string uuid = normalized_uuid(options.check);
  if (uuid.empty()) {
    session.error(fmt::format("UUID: found {}, expected a UUID", in_quotes(options.check)));
    return exit_usage;
  }
  std::string fault;
  const Locator locator = make_locator(uuid, options.name, &fault);
  if (locator == nullptr) {
    session.error(fmt::format("the name {} is refused: {}", in_quotes(options.name), fault));
    return exit_damaged;
  }
  placement->client = new_client(options);
  const topo_config *const topology = orlith_client_get_active_topo(placement->client);
  if (topology == nullptr) {
    session.error("no node given by --boot has answered with its topology");
    return exit_network;
  }
  char *urls[TOPO_MAX_COPIES];
  const int wanted = options.copies == 0 ? topology->w_count : options.copies;
  const int count = orlith_client_find(placement->client, urls, wanted, locator.get());
  for (int i = 0; i < count; ++i) {
    placement->owners.push_back(owner_of(*topology, urls[i]));
    free(urls[i]);
  }
  if (count > 0) return exit_fine;
  session.error("the metric has no owner");
  return exit_not_found;
}
