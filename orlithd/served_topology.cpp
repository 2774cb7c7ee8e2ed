#include "orlithd/served_topology.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <libxml/tree.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "orlith/exit_code.h"
#include "orlith/text.h"

namespace {

// 0, or an errno; EFBIG for what no topology can be.
int read_document(const std::string &file, std::string *text) {
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = 0;
  char piece[65536];
  ssize_t len;
  while ((len = read(fd, piece, sizeof piece)) > 0 && error == 0) {
    text->append(piece, static_cast<size_t>(len));
    if (text->size() > TOPO_DOCUMENT_MAX_BYTES) error = EFBIG;
  }
  if (len < 0) error = errno;
  close(fd);
  return error;
}

topo_config *compile(const std::string &document, std::string *fault) {
  char *err = nullptr;
  topo_config *topology = nullptr;
  if (xmlDoc *parsed = topo_parse_document(document.data(), document.size(), &err)) {
    topology = topo_compile(parsed, nullptr, &err);
    xmlFreeDoc(parsed);
  }
  if (topology == nullptr) *fault = err == nullptr ? "it is no topology" : err;
  free(err);
  while (fault->ends_with('\n')) fault->pop_back();
  return topology;
}

}  // namespace

int ServedTopology::load(const std::string &file, const std::string &me, std::string *fault) {
  ruxo_uuid_t id;
  if (ruxo_uuid_parse(me.c_str(), id) != 0) {
    *fault = fmt::format("--me is {}, expected the 36 characters of a UUID", in_quotes(me));
    return exit_usage;
  }
  if (const int error = read_document(file, &document)) {
    *fault = fmt::format("{}: {}", escaped(file), strerror(error));
    return error == ENOENT ? exit_not_found : exit_failed;
  }
  topology = compile(document, fault);
  if (topology == nullptr) {
    *fault = escaped(file + ": " + *fault);
    return exit_damaged;
  }
  self = topo_contains(topology, id);
  if (self == nullptr) {
    topo_free(topology);
    topology = nullptr;
    *fault = fmt::format("{}: no node has the id {}", escaped(file), in_quotes(me));
    return exit_not_found;
  }
  topo_retain(topology);
  topo_initialize(topology, nullptr, id);
  return 0;
}
