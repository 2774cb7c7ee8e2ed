#include <fmt/format.h>

#include <cstring>
#include <vector>

#include "orlithd/handlers.h"

namespace {

// What must hold for the node to be ready: each cause has its name, so that an alarm can tell it.
struct Check {
  const char *name;
  std::string fault;  // empty: it holds
};

std::string about_room(const Node &node) {
  int error = 0;
  const uint64_t free_bytes = node.data.free_bytes(&error);
  if (error != 0) return strerror(error);
  if (free_bytes >= node.min_free_bytes) return "";
  return fmt::format("{} bytes are free, expected {}", free_bytes, node.min_free_bytes);
}

std::vector<Check> checks(const Node &node) {
  return {{"running", node.stopping ? "the node is stopping" : ""},
          {"topology", topo_active() == nullptr ? "no topology is active" : ""},
          {"room", about_room(node)}};
}

}  // namespace

// That it answers is the answer.
void get_livez(Node &, Exchange &exchange) {
  exchange.text(200, "text/plain", "alive\n");
}

void get_readyz(Node &node, Exchange &exchange) {
  const std::string_view query = exchange.query();
  const bool verbose = query == "verbose" || query.starts_with("verbose&") || query.starts_with("verbose=");
  bool ready = true;
  std::string text;
  for (const Check &check : checks(node)) {
    if (!check.fault.empty()) ready = false;
    if (verbose || !check.fault.empty())
      text += fmt::format("{}: {}\n", check.name, check.fault.empty() ? "ok" : check.fault);
  }
  exchange.text(ready ? 200 : 503, "text/plain", text + (ready ? "ready\n" : "not ready\n"));
}
