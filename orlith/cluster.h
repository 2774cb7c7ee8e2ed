// A running cluster as the commands reach it: through the cluster client, from a few of its nodes.
#ifndef ORLITH_CLUSTER_H
#define ORLITH_CLUSTER_H

#include <string>
#include <vector>

#include "liborlith/topo/orlith_client.h"
#include "orlith/cli.h"
#include "orlith/locator.h"

struct ClusterOptions {
  std::vector<std::string> boot;
  std::string check, name;
  int copies = 0;  // 0: all
  unsigned timeout_s = 30;
};

// The options and arguments of a command about a metric in a cluster: --boot, --copies, UUID, NAME.
void add_cluster_options(CLI::App &app, ClusterOptions *options);

struct Owner {
  std::string id;
  std::string address;
  unsigned api_port;
  std::string url;  // names the node by its id: for requests of the client
};

// The owners of a metric, the first one first.
struct Placement {
  orlith_client_t *client = nullptr;  // lives as long as the process
  std::vector<Owner> owners;
};

// Asks the cluster. exit_fine and a placement with owners; else another exit code, after a message.
int place_in_cluster(const ClusterOptions &options, Session &session, Placement *placement);

#endif
