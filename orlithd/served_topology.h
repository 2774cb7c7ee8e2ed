// The topology that the node starts with: compiled, active, and as the text that it serves.
#ifndef ORLITHD_SERVED_TOPOLOGY_H
#define ORLITHD_SERVED_TOPOLOGY_H

#include <string>

#include "liborlith/topo/topo.h"

struct ServedTopology {
  std::string document;
  topo_config *topology = nullptr;  // active, so it lives as long as the process
  host_config *self = nullptr;

  // Reads and compiles the document, makes it the process's active topology, and this process its node `me`. Returns
  // 0; an exit code and what is wrong. May wait for a name server. Once in a process.
  int load(const std::string &file, const std::string &me, std::string *fault);
};

#endif
