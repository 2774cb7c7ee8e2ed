#include <algorithm>
#include <cctype>

#include "orlithd/handlers.h"

namespace {

bool is_signature(const std::string &text) {
  return text.size() == TOPO_HASH_HEX_SIZE - 1 && std::all_of(text.begin(), text.end(), [](unsigned char c) {
           return isdigit(c) || (c >= 'a' && c <= 'f');
         });
}

}  // namespace

void get_topology(Node &node, Exchange &exchange) {
  const std::optional<std::string> signature = exchange.path_behind("/topology/xml/");
  if (!signature || !is_signature(*signature))
    return exchange.error(400, "expected /topology/xml/ and a signature of 64 lower-case hex digits");
  if (*signature != node.topology.topology->hex_signature)
    return exchange.error(404, "no topology of that signature is known here");
  exchange.text(200, "application/xml", node.topology.document);
}
