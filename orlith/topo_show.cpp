// `orlith topo show`: the nodes of a topology and their parts of the ring.
#include <arpa/inet.h>
#include <fmt/format.h>

#include "orlith/progress.h"
#include "orlith/ring_arcs.h"
#include "orlith/ring_share.h"
#include "orlith/table.h"
#include "orlith/topology_file.h"

namespace {

struct Options {
  std::string file;
};

const char *side_name(topo_host_ringside_t side) {
  return side == TOPO_RINGSIDE_A ? "a" : side == TOPO_RINGSIDE_B ? "b" : "both";
}

Cell share_cell(double share) {
  return {fmt::format("{:.3f}%", share * 100), share};
}

Table node_table(const topo_config &topology, Session &session) {
  const topo_config *const topologies[] = {&topology};
  Progress progress(session, "measuring the ring", ring_arc_count(topologies), Progress::items, "arcs");
  const std::vector<RingShare> shares = ring_shares(topology, [&](uint64_t arcs) { progress.advance(arcs); });
  progress.finish();
  Table table({{"id", "node"},
               {"address", "address"},
               {"port", "port", Align::right},
               {"api_port", "API port", Align::right},
               {"side", "side"},
               {"weight", "weight", Align::right},
               {"first_share", "first owner", Align::right},
               {"data_share", "data", Align::right}});
  for (int i = 0; i < topology.host_count; ++i) {
    const host_config &node = topology.hc[i];
    const auto at = static_cast<size_t>(i);
    table.add(node.id_str, node.hostname, ntohs(node.net_port), ntohs(node.net_apiport),
              side_name(node.ringside), node.weight, share_cell(shares[at].first),
              share_cell(shares[at].data));
  }
  return table;
}

int run(const Options &options, Session &session) {
  int code = exit_fine;
  const Topology topology = load_topology(options.file, &code, session);
  if (topology == nullptr) return code;
  Table nodes = node_table(*topology, session);
  if (session.settings.json) {
    Json json = Json::object();
    json.set("signature", topology->hex_signature).set("write_copies", topology->w_count);
    json.set("use_tls", topology->use_tls).set("sided", topology->use_side).set("nodes", nodes.take_json());
    session.out << json.text() << "\n";
    return exit_fine;
  }
  session.out << fmt::format("signature  {}\ncopies     {}\ntls        {}\nsides      {}\n\n",
                             topology->hex_signature, topology->w_count, topology->use_tls ? "yes" : "no",
                             topology->use_side ? "yes" : "no");
  session.out << nodes.text(session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  add_topology_option(app, &options->file);
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command topo_show_command = {
    .name = "topo show",
    .summary = "show nodes, signature and ring shares",
    .description =
        "For each node: address, ports, side, weight, the part of the hash space whose first owner it is, "
        "and "
        "the part of all copies that it holds. Both are measured on the ring, not estimated.",
    .examples = {{{"orlith topo show cluster.xml", "the nodes as a table"},
                  {"orlith topo show --json cluster.xml", "shares as fractions of 1"}}},
    .formats = format_json,
    .configure = configure,
};
