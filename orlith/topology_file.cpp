#include "orlith/topology_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "orlith/exit_code.h"
#include "ruxo/log.h"

namespace {

struct FreeDocument {
  void operator()(xmlDoc *document) const { xmlFreeDoc(document); }
};
using Document = std::unique_ptr<xmlDoc, FreeDocument>;

// The library's message, which it hands over; some of its texts end in a newline.
std::string taken(char *message) {
  std::string text = message == nullptr ? "unknown error" : message;
  free(message);
  while (text.ends_with('\n')) text.pop_back();
  return text;
}

// The compiler also logs some of its messages; told once is enough.
class QuietErrorLog {
 public:
  QuietErrorLog() : stream_(ruxo_error) { ruxo_error = nullptr; }
  ~QuietErrorLog() { ruxo_error = stream_; }
  QuietErrorLog(const QuietErrorLog &) = delete;
  QuietErrorLog &operator=(const QuietErrorLog &) = delete;

 private:
  ruxo_log_stream_t stream_;
};

// Fills the message on failure; `name` stands before it.
Topology compile(const Document &document, std::string_view name, std::string *message) {
  const QuietErrorLog quiet;
  char *error = nullptr;
  Topology topology(topo_compile(document.get(), nullptr, &error));
  if (topology == nullptr) *message = fmt::format("{}: {}", escaped(name), escaped(taken(error)));
  return topology;
}

Topology told(Topology topology, const std::string &message, Session &session) {
  if (topology == nullptr) session.error(message);
  return topology;
}

}  // namespace

Topology load_topology(const std::string &path, int *code, std::string *message) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *code = errno == ENOENT || errno == ENOTDIR ? exit_not_found : exit_failed;
    *message = fmt::format("{}: {}", escaped(path), strerror(errno));
    return nullptr;
  }
  close(fd);
  *code = exit_damaged;
  char *error = nullptr;
  const Document document(topo_parse_document_file(path.c_str(), &error));
  if (document != nullptr) return compile(document, path, message);
  *message = escaped(taken(error));  // begins with the path
  return nullptr;
}

Topology load_topology(const std::string &path, int *code, Session &session) {
  std::string message;
  Topology topology = load_topology(path, code, &message);
  return told(std::move(topology), message, session);
}

Topology compile_topology(std::string_view document, std::string_view name, Session &session) {
  char *error = nullptr;
  const Document parsed(topo_parse_document(document.data(), document.size(), &error));
  std::string message;
  Topology topology;
  if (parsed != nullptr) {
    topology = compile(parsed, name, &message);
  } else {
    message = fmt::format("{}: {}", escaped(name), escaped(taken(error)));
  }
  return told(std::move(topology), message, session);
}
