// `orlith put`: a file into the spool of a metric's owners.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "orlith/cluster.h"
#include "orlith/table.h"

namespace {

struct Options {
  ClusterOptions cluster;
  std::string file;
  std::string path;  // empty: the file's own name
};

// Everything but RFC 3986's unreserved characters and '/' escaped.
std::string percent_encoded(std::string_view path) {
  std::string result;
  for (const char c : path) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       strchr("-._~/", c) != nullptr;
    if (plain) {
      result += c;
    } else {
      result += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
  }
  return result;
}

// A descriptor; -1 after a message, with the exit code.
int open_input(const std::string &file, Session &session, int *code) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat info {};
  if (fd >= 0 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) return fd;
  *code = fd < 0 && errno == ENOENT ? exit_not_found : exit_failed;
  session.error(fmt::format("{}: {}", escaped(file), fd < 0 ? strerror(errno) : "not a regular file"));
  if (fd >= 0) close(fd);
  return -1;
}

int put_everywhere(const Placement &placement, const std::string &api, int fd, Session &session) {
  int code = exit_fine;
  Table table(
      {{"id", "node"}, {"address", "address"}, {"api_port", "API port", Align::right}, {"stored", "stored"}});
  for (const Owner &owner : placement.owners) {
    const int result = orlith_client_api_put(placement.client, owner.url.c_str(), api.c_str(), fd, nullptr,
                                             nullptr, nullptr);
    if (result != 0) {
      session.error(fmt::format("node {} has not stored the file", escaped(owner.id)));
      code = exit_network;
    }
    table.add(owner.id, owner.address, owner.api_port, Cell(result == 0 ? "yes" : "no", Json(result == 0)));
  }
  print(session, std::move(table));
  return code;
}

int run(const Options &options, Session &session) {
  int code = exit_fine;
  const int fd = open_input(options.file, session, &code);
  if (fd < 0) return code;
  const std::string name =
      options.path.empty() ? options.file.substr(options.file.rfind('/') + 1) : options.path;
  Placement placement;
  code = place_in_cluster(options.cluster, session, &placement);
  if (code == exit_fine) code = put_everywhere(placement, "/upload/" + percent_encoded(name), fd, session);
  close(fd);
  return code;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  add_cluster_options(app, &options->cluster);
  app.add_option("FILE", options->file, "the file")->type_name("FILE")->required();
  app.add_option("--path", options->path, "where it goes below a node's spool (default: the file's name)")
      ->type_name("NAME");
  app.add_option("--timeout", options->cluster.timeout_s, "how long an upload may take (default: 30)")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, 86400));
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command put_command = {
    .name = "put",
    .summary = "put a file into the spool of the nodes that own a metric",
    .description =
        "Finds the owners as `orlith where` does and sends the file to each of them. Every owner is tried; "
        "the exit "
        "code is 4 when one of them has not stored it.",
    .examples =
        {{{"orlith put --boot 127.0.0.1:1 1b4e28ba-2fa1-11d2-883f-0016d3cca427 memory lines.txt || test $? = "
           "4",
           "to all owners; exit code 4 when no node answers, as here"},
          {"orlith put --boot 127.0.0.1:1 1b4e28ba-2fa1-11d2-883f-0016d3cca427 memory lines.txt --copies 1 "
           "--path import/lines-1.txt || test $? = 4",
           "to the first owner, under another name"}}},
    .formats = format_json | format_jsonl,
    .configure = configure,
};
