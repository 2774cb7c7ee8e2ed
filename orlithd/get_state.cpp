#include "orlith/version.h"
#include "orlithd/handlers.h"
#include "ruxo/json.h"

namespace {

// Without memory a member is missing, which a client takes for what it is: no answer.
void add(ruxo_json_object *object, const char *key, ruxo_json_object *value) {
  if (!ruxo_json_object_set(object, key, value)) ruxo_json_free(value);
}

}  // namespace

void get_state(Node &node, Exchange &exchange) {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - node.start);
  ruxo_json_object *const state = ruxo_json_new_object();
  add(state, "me", ruxo_json_new_string(node.topology.self->id_str));
  add(state, "current", ruxo_json_new_string(topo_signature(topo_active(), nullptr)));
  add(state, "next", ruxo_json_new_string(topo_signature(topo_next_active(), nullptr)));
  add(state, "uptime_s", ruxo_json_new_int(uptime.count()));
  add(state, "version", ruxo_json_new_string(orlith_version()));
  const char *const text = ruxo_json_text(state);
  if (text == nullptr) {
    exchange.error(503, "out of memory");
  } else {
    exchange.text(200, "application/json", text);
  }
  ruxo_json_free(state);
}
