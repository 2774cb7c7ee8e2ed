// `orlith topo save`: puts a compiled topology into the folder where nodes look for it.
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "orlith/atomic_file.h"
#include "orlith/topology_file.h"
#include "ruxo/conf.h"

namespace {

struct Options {
  std::string file, config;
  bool create = false;
};

struct Free {
  void operator()(char *text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

// 0, or the exit code after a message.
int load_configuration(const std::string &path, Session &session) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) {
    const int error = errno;
    session.error(fmt::format("{}: {}", escaped(path), strerror(error)));
    return error == ENOENT || error == ENOTDIR ? exit_not_found : exit_failed;
  }
  char *message = nullptr;
  if (ruxo_conf_load(path.c_str(), &message) == 0) return exit_fine;
  const Text owned(message);
  session.error(escaped(message == nullptr ? "out of memory" : message));
  return exit_damaged;
}

// Where topo_save() looks for the file of this name, whether or not it is there.
std::string configured_path(std::string_view name) {
  const Text configured(
      ruxo_conf_get_string(nullptr, "/orlith/topology/@path|/orlith/include/topology/@path", ""));
  const std::string folder = configured == nullptr ? "" : configured.get();
  if (folder.starts_with('/')) return fmt::format("{}/{}", folder, name);
  std::array<char, 4096> config{};
  ruxo_conf_config_filename(config.data(), config.size());
  const std::string beside = config.data();
  return fmt::format("{}/{}{}{}", beside.substr(0, beside.rfind('/')), folder, folder.empty() ? "" : "/",
                     name);
}

// The document as topo_save() writes it. It is made in memory: what writes it takes a full disk for the end of the
// process.
bool document_of(topo_config *topology, std::string *document) {
  int fd = memfd_create("topology", MFD_CLOEXEC);
  if (fd < 0) return false;
  *document = fmt::format("<nodes write_copies=\"{}\">\n", topology->w_count);
  const bool written = topo_apply(topology, &fd, topo_write_entry) == topology->host_count;
  std::array<char, 4096> part;
  off_t at = 0;
  ssize_t got = 0;
  while (written && (got = pread(fd, part.data(), part.size(), at)) > 0) {
    document->append(part.data(), static_cast<size_t>(got));
    at += got;
  }
  close(fd);
  document->append("</nodes>\n");
  return written && got == 0;
}

// 0, or an errno.
int create(const std::string &path, const std::string &document) {
  AtomicFile file(path);
  if (const int error = file.open()) return error;
  FdOutput out(file.fd());
  out << document;
  if (!out.flush()) return out.error();
  return file.commit(AtomicFile::Existing::keep);
}

int create_missing(topo_config *topology, const std::string &path, const Options &options, Session &session) {
  if (!options.create) {
    session.error(
        fmt::format("{}: there is no such file to save over; make it with --create", escaped(path)));
    return exit_not_found;
  }
  std::string document;
  const int error = document_of(topology, &document) ? create(path, document) : EIO;
  if (error == 0 || error == EEXIST) return exit_fine;  // another process was faster
  session.error(fmt::format("{}: cannot be made: {}", escaped(path), strerror(error)));
  return error == ENOENT || error == ENOTDIR ? exit_not_found : exit_failed;
}

int run(const Options &options, Session &session) {
  int code = exit_failed;
  const Topology topology = load_topology(options.file, &code, session);
  if (topology == nullptr) return code;
  code = load_configuration(options.config, session);
  if (code != exit_fine) return code;
  const std::string path = configured_path(topology->hex_signature);
  const bool is_there = Text(topo_find_topo_file(topology->hex_signature)) != nullptr;
  if (!is_there) code = create_missing(topology.get(), path, options, session);
  if (code != exit_fine) return code;
  if (topo_save(topology.get()) != 0) {
    session.error(fmt::format("{}: cannot be rewritten; it is as it was", escaped(path)));
    return exit_failed;
  }
  if (session.settings.json) {
    Json json = Json::object();
    json.set("file", path).set("signature", topology->hex_signature).set("created", !is_there);
    session.out << json.text() << "\n";
  } else {
    session.out << fmt::format("{}: {}, {} {}\n", escaped(path), is_there ? "saved" : "made",
                               topology->host_count, topology->host_count == 1 ? "node" : "nodes");
  }
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  add_topology_option(app, &options->file);
  app.add_option("-c,--config", options->config, "the node's configuration, which names the folder")
      ->type_name("FILE")
      ->required();
  app.add_flag("--create", options->create, "make the file when it is not there");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command topo_save_command = {
    .name = "topo save",
    .summary = "put a topology where a node's configuration has them",
    .description =
        "Compiles the document and rewrites the file of its signature in the folder that the configuration "
        "names, "
        "by default its own. The file is replaced as a whole; host names become addresses, and use_tls is "
        "not "
        "written.\n\n"
        "Only a file that is there is rewritten: exit code 3 when it is not, unless --create makes it.",
    .examples = {{{"orlith topo save --create --config orlith.conf cluster.xml",
                   "saved, and made before if need be"},
                  {"orlith topo save --json --config orlith.conf cluster.xml || test $? = 3",
                   "for a script; saved only over a file that is there"}}},
    .formats = format_json,
    .configure = configure,
};
