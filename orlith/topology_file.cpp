#include "orlith/topology_file.h"

#include <fmt/format.h>
#include <libxml/tree.h>
#include <sys/stat.h>
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

std::string attribute_of(const xmlNode *element, const char *name) {
  xmlChar *value = xmlGetProp(element, reinterpret_cast<const xmlChar *>(name));
  std::string text = value == nullptr ? "" : reinterpret_cast<const char *>(value);
  xmlFree(value);
  return text;
}

bool has_attribute(const xmlNode *element, const char *name) {
  return xmlHasProp(element, reinterpret_cast<const xmlChar *>(name)) != nullptr;
}

int count_nodes(const xmlNode *root) {
  int count = 0;
  for (const xmlNode *child = root->children; child != nullptr; child = child->next)
    if (child->type == XML_ELEMENT_NODE && child->ns == nullptr &&
        xmlStrEqual(child->name, reinterpret_cast<const xmlChar *>("node")))
      ++count;
  return count;
}

// What is wrong with a document for which the compiler has only its general message.
std::string general_fault(const xmlNode *root) {
  const std::string name = reinterpret_cast<const char *>(root->name);
  if (name != "nodes") return fmt::format("the root element is {}, expected 'nodes'", in_quotes(name));
  if (root->ns != nullptr)
    return fmt::format("the root element 'nodes' is in the namespace {}, expected none",
                       in_quotes(reinterpret_cast<const char *>(root->ns->href)));
  const std::string tls = attribute_of(root, "use_tls");
  if (has_attribute(root, "use_tls") && tls != "true" && tls != "false")
    return fmt::format("use_tls: found {}, expected 'true' or 'false'", in_quotes(tls));
  const int count = count_nodes(root);
  if (count == 0) return "it has no element 'node'";
  if (count > TOPO_MAX_HOSTS)
    return fmt::format("it has {} nodes, at most {} are accepted", count, TOPO_MAX_HOSTS);
  return "it is no topology";
}

void warn_of_old_names(const xmlNode *root, std::string_view name, Session &session) {
  if (!has_attribute(root, "n") || has_attribute(root, "write_copies")) return;
  session.warning(
      fmt::format("{}: the attribute 'n' is deprecated, write 'write_copies' instead", escaped(name)));
}

// Null without a fault when the document was not even parsed.
Topology compile(const Document &document, std::string_view name, std::string *fault, Session &session) {
  if (document == nullptr) return nullptr;
  const QuietErrorLog quiet;
  char *error = nullptr;
  Topology topology(topo_compile(document.get(), nullptr, &error));
  const xmlNode *root = xmlDocGetRootElement(document.get());
  if (topology != nullptr) {
    warn_of_old_names(root, name, session);
    return topology;
  }
  const std::string message = taken(error);
  *fault = fmt::format("{}: {}", escaped(name),
                       message == "XML parse error" ? general_fault(root) : escaped(message));
  return nullptr;
}

// Why the file cannot be read, as an errno; 0 when it can. Looks without opening: a pipe is opened once only.
int reading_fault(const std::string &path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  return access(path.c_str(), R_OK) == 0 ? 0 : errno;
}

}  // namespace

void add_topology_option(CLI::App &app, std::string *file) {
  app.add_option("FILE", *file, "topology document (XML)")->type_name("FILE")->required();
}

Topology load_topology(const std::string &path, int *code, Session &session, std::string *fault_out) {
  std::string fault;
  Topology topology;
  if (const int error = reading_fault(path)) {
    *code = error == ENOENT || error == ENOTDIR ? exit_not_found : exit_failed;
    fault = fmt::format("{}: {}", escaped(path), strerror(error));
  } else {
    *code = exit_damaged;
    char *message = nullptr;
    const Document document(topo_parse_document_file(path.c_str(), &message));
    if (document == nullptr) fault = escaped(taken(message));  // begins with the path
    topology = compile(document, path, &fault, session);
  }
  if (topology == nullptr) session.error(fault);
  if (fault_out != nullptr) *fault_out = std::move(fault);
  return topology;
}

Topology compile_topology(std::string_view text, std::string_view name, Session &session) {
  char *message = nullptr;
  const Document document(topo_parse_document(text.data(), text.size(), &message));
  std::string fault;
  if (document == nullptr) fault = fmt::format("{}: {}", escaped(name), escaped(taken(message)));
  Topology topology = compile(document, name, &fault, session);
  if (topology == nullptr) session.error(fault);
  return topology;
}
