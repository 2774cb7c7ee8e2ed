// `orlith topo check`: whether a topology document compiles.
#include <fmt/format.h>

#include "orlith/topology_file.h"

namespace {

struct Options {
  std::string file;
};

Json report(const Options &options, const topo_config *topology, const std::string &fault) {
  Json json = Json::object();
  json.set("file", options.file).set("valid", topology != nullptr);
  if (topology == nullptr) {
    json.set("error", fault);
  } else {
    json.set("nodes", topology->host_count).set("write_copies", topology->w_count);
    json.set("signature", topology->hex_signature);
  }
  return json;
}

int run(const Options &options, Session &session) {
  int code = exit_fine;
  std::string fault;
  const Topology topology = load_topology(options.file, &code, session, &fault);
  if (session.settings.json) {
    session.out << report(options, topology.get(), fault).text() << "\n";
  } else if (topology != nullptr) {
    session.out << fmt::format("{}: valid, {} {}, {} {}, signature {}\n", escaped(options.file),
                               topology->host_count, topology->host_count == 1 ? "node" : "nodes",
                               topology->w_count, topology->w_count == 1 ? "copy" : "copies",
                               topology->hex_signature);
  }
  return topology == nullptr ? code : exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  add_topology_option(app, &options->file);
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command topo_check_command = {
    .name = "topo check",
    .summary = "tell whether a topology document is valid",
    .description =
        "Compiles the document as a node does. Says what the first fault is, with the line where the XML is "
        "not well-formed, or the signature when there is none. Names in the document are looked up.\n\n"
        "Exit code 2 when the document is refused, 3 when the file is not there.",
    .examples = {{{"orlith topo check cluster.xml", "valid or not, with the signature"},
                  {"orlith topo check --json cluster.xml", "the same for a script"}}},
    .formats = format_json,
    .configure = configure,
};
