// Topologies as the commands read them: from a file, with the error told.
#ifndef ORLITH_TOPOLOGY_FILE_H
#define ORLITH_TOPOLOGY_FILE_H

#include <memory>
#include <string>
#include <string_view>

#include "liborlith/topo/topo.h"
#include "orlith/cli.h"

struct FreeTopology {
  void operator()(topo_config *topology) const { topo_free(topology); }
};
using Topology = std::unique_ptr<topo_config, FreeTopology>;

// The argument that names the document of a command.
void add_topology_option(CLI::App &app, std::string *file);

// The compiled topology of a file. Null after an error message, with *code the exit code: not found, failed (the
// file cannot be read) or refused; then `fault`, unless null, receives the message, which is escaped and begins with
// the path.
Topology load_topology(const std::string &path, int *code, Session &session, std::string *fault = nullptr);

// The same for a document in memory; `name` stands before the message.
Topology compile_topology(std::string_view text, std::string_view name, Session &session);

#endif
