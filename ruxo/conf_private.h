// A configuration as it is kept, and how one is read.
#ifndef RUXO_CONF_PRIVATE_H
#define RUXO_CONF_PRIVATE_H

#include <libxml/tree.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace ruxo {

struct FreeXmlDoc {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
using XmlDocPtr = std::unique_ptr<xmlDoc, FreeXmlDoc>;

// Immutable once read, so any number of threads look things up in it.
struct Conf {
  XmlDocPtr doc;
  std::string file;  // absolute
  // Absolute names of included files, by the `include` element that their content hangs below.
  std::unordered_map<const xmlNode *, std::string> included;

  const std::string &file_of(const xmlNode *node) const;
  static long line_of(const xmlNode *node);
  // "FILE: line N: "
  std::string place_of(const xmlNode *node) const;
};

// What is wrong with a configuration, file and line included.
struct ConfFault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throw ConfFault or std::bad_alloc.
std::shared_ptr<const Conf> conf_from_file(const char *path);
std::shared_ptr<const Conf> conf_from_text(std::string_view text, const char *path);

// Outside text for a message: control bytes and what is no UTF-8 made visible; and, quoted, cut where it is long.
std::string conf_visible(std::string_view text);
std::string conf_quoted(std::string_view text);

}  // namespace ruxo

#endif
