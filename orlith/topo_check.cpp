// `orlith topo check`: whether a topology document compiles.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/topology_file.h"

namespace {

struct Options {
  std::string file;
};

int report_fault(const Options &options, const std::string &message, int code, Session &session) {
  session.error(message);
  if (!session.settings.json) return code;
  Json json = Json::object();
  json.set("file", options.file).set("valid", false).set("error", message);
  session.out << json.text() << "\n";
  return code;
}

int run(const Options &options, Session &session) {
  int code = exit_fine;
  std::string message;
  const Topology topology = load_topology(options.file, &code, &message);
  if (topology == nullptr) return report_fault(options, message, code, session);
  if (session.settings.json) {
    Json json = Json::object();
    json.set("file", options.file).set("valid", true).set("nodes", topology->host_count);
    json.set("write_copies", topology->w_count).set("signature", topology->hex_signature);
    session.out << json.text() << "\n";
  } else {
    session.out << fmt::format("{}: valid, {} nodes, {} copies, signature {}\n", escaped(options.file),
                               topology->host_count, topology->w_count, topology->hex_signature);
  }
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "topology document (XML)")->type_name("FILE")->required();
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
