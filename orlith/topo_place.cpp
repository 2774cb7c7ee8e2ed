// `orlith topo place`: the owners of one metric.
#include <arpa/inet.h>
#include <fmt/format.h>

#include "orlith/check_uuid.h"
#include "orlith/cli.h"
#include "orlith/locator.h"
#include "orlith/table.h"
#include "orlith/topology_file.h"

namespace {

struct Options {
  std::string file, check, name;
  int copies = 0;  // 0: all
};

Table owner_table(const topo_config &topology, const orlith_metric_locator_t *locator, int copies) {
  host_config *owners[TOPO_MAX_COPIES];
  const int count = topo_find_insertion_point_config_locator(&topology, locator, owners, copies);
  Table table({{"copy", "copy", Align::right},
               {"id", "node"},
               {"address", "address"},
               {"port", "port", Align::right},
               {"api_port", "API port", Align::right},
               {"url", "URL"}});
  for (int i = 0; i < count; ++i)
    table.add(i + 1, owners[i]->id_str, owners[i]->hostname, ntohs(owners[i]->net_port),
              ntohs(owners[i]->net_apiport), owners[i]->url_prefix);
  return table;
}

void print_placement(const Options &options, const std::string &uuid, const topo_config &topology,
                     const orlith_metric_locator_t *locator, Session &session) {
  char hash[TOPO_HASH_HEX_SIZE];
  topo_hash_to_hex(orlith_metric_locator_get_hash(locator), hash);
  const std::string_view name(orlith_metric_locator_get_name_with_tags(locator),
                              orlith_metric_locator_get_name_len_with_tags(locator));
  Table owners = owner_table(topology, locator, options.copies);
  if (session.settings.json) {
    Json json = Json::object();
    json.set("check_uuid", uuid).set("metric_name", name).set("hash", hash);
    json.set("signature", topology.hex_signature).set("owners", owners.take_json());
    session.out << json.text() << "\n";
    return;
  }
  session.out << fmt::format("check   {}\nmetric  {}\nhash    {}\n\n", uuid, escaped(name), hash)
              << owners.text(session);
}

int run(const Options &options, Session &session) {
  const std::string uuid = normalized_uuid(options.check);
  if (uuid.empty()) {
    session.error(fmt::format("UUID: found {}, expected a UUID", in_quotes(options.check)));
    return exit_usage;
  }
  int code = exit_fine;
  const Topology topology = load_topology(options.file, &code, session);
  if (topology == nullptr) return code;
  std::string fault;
  const Locator locator = make_locator(uuid, options.name, &fault);
  if (locator == nullptr) {
    session.error(fmt::format("the name {} is refused: {}", in_quotes(options.name), fault));
    return exit_damaged;
  }
  print_placement(options, uuid, *topology, locator.get(), session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  add_topology_option(app, &options->file);
  app.add_option("UUID", options->check, "the metric's check")->type_name("UUID")->required();
  app.add_option("NAME", options->name, "the metric's name, stream tags included")
      ->type_name("NAME")
      ->required();
  app.add_option("-c,--copies", options->copies, "only so many owners (default: all copies)")
      ->type_name("COUNT")
      ->check(CLI::Range(1, TOPO_MAX_COPIES));
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command topo_place_command = {
    .name = "topo place",
    .summary = "tell which nodes own a metric",
    .description =
        "Shows the canonical name, the hash that decides, and the owners in order, the first one first. The "
        "name may be given in any spelling; quote it for the shell.",
    .examples =
        {{{"orlith topo place cluster.xml 1b4e28ba-2fa1-11d2-883f-0016d3cca427 'cpu|ST[core:1,mode:user]'",
           "all owners"},
          {"orlith topo place cluster.xml 1b4e28ba-2fa1-11d2-883f-0016d3cca427 memory --copies 1 --json",
           "the first owner, as JSON"}}},
    .formats = format_json,
    .configure = configure,
};
