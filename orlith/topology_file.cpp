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

Topology compile(const Document &document, std::string_view name, Session &session) {
  const QuietErrorLog quiet;
  char *message = nullptr;
  Topology topology(topo_compile(document.get(), nullptr, &message));
  if (topology == nullptr) session.error(fmt::format("{}: {}", escaped(name), escaped(taken(message))));
  return topology;
}

}  // namespace

Topology load_topology(const std::string &path, int *code, Session &session) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *code = errno == ENOENT ? exit_not_found : exit_failed;
    session.error(fmt::format("{}: {}", escaped(path), strerror(errno)));
    return nullptr;
  }
  close(fd);
  *code = exit_damaged;
  char *message = nullptr;
  const Document document(topo_parse_document_file(path.c_str(), &message));
  if (document != nullptr) return compile(document, path, session);
  session.error(escaped(taken(message)));  // begins with the path
  return nullptr;
}

Topology compile_topology(std::string_view document, std::string_view name, Session &session) {
  char *message = nullptr;
  const Document parsed(topo_parse_document(document.data(), document.size(), &message));
  if (parsed != nullptr) return compile(parsed, name, session);
  session.error(fmt::format("{}: {}", escaped(name), escaped(taken(message))));
  return nullptr;
}
