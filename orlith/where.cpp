// `orlith where`: the owners of a metric in a running cluster.
#include "orlith/cluster.h"
#include "orlith/table.h"

namespace {

int run(const ClusterOptions &options, Session &session) {
  Placement placement;
  if (const int code = place_in_cluster(options, session, &placement); code != exit_fine) return code;
  Table table({{"copy", "copy", Align::right},
               {"id", "node"},
               {"address", "address"},
               {"api_port", "API port", Align::right},
               {"url", "URL"}});
  int copy = 0;
  for (const Owner &owner : placement.owners)
    table.add(++copy, owner.id, owner.address, owner.api_port, owner.url);
  print(session, std::move(table));
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<ClusterOptions>();
  add_cluster_options(app, options.get());
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command where_command = {
    .name = "where",
    .summary = "ask a running cluster which of its nodes own a metric",
    .description =
        "Asks the nodes given by --boot in turn which topology is active, until one has answered, and shows "
        "the "
        "owners on that, the first one first.",
    .examples =
        {{{"orlith where --boot 127.0.0.1:1 1b4e28ba-2fa1-11d2-883f-0016d3cca427 memory || test $? = 4",
           "all owners; exit code 4 when no node answers, as here"},
          {"orlith where --boot 127.0.0.1:1 --boot 127.0.0.1:2 1b4e28ba-2fa1-11d2-883f-0016d3cca427 "
           "memory --copies 1 --json || test $? = 4",
           "the first owner, as JSON, asking the second node when the first one is down"}}},
    .formats = format_json | format_jsonl,
    .configure = configure,
};
