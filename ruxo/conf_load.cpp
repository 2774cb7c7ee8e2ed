// Reading a configuration: files, their XML under limits, and what they include.
//
// Included content is copied below its `include` element before its own includes are looked at, so that there is
// only ever one tree, in which nodes keep their place in memory.
#include <fcntl.h>
#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <vector>

#include "ruxo/conf.h"
#include "ruxo/conf_private.h"
#include "ruxo/utf8_private.h"

namespace ruxo {

namespace {

constexpr size_t kMaxQuotedBytes = 100;

struct FreeParser {
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
};
using ParserPtr = std::unique_ptr<xmlParserCtxt, FreeParser>;

const xmlChar *as_xml(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}
const char *as_chars(const xmlChar *text) {
  return reinterpret_cast<const char *>(text);
}

std::string too_large() {
  return "the configuration is larger than " + std::to_string(RUXO_CONF_MAX_BYTES) + " bytes";
}

// ---- Files ----

class Descriptor {
 public:
  explicit Descriptor(const char *path) : fd_(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {
    if (fd_ < 0) throw ConfFault(strerror(errno));
  }
  ~Descriptor() { close(fd_); }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Which file it is, by whatever name.
struct FileId {
  dev_t device;
  ino_t number;
};

struct File {
  FileId id;
  std::string bytes;
};

// At most `limit` bytes; faults do not name the file yet.
File read_file(const std::string &path, size_t limit) {
  const Descriptor descriptor(path.c_str());
  struct stat status;
  if (fstat(descriptor.get(), &status) != 0) throw ConfFault(strerror(errno));
  // Devices never end, and pipes wait for somebody.
  if (!S_ISREG(status.st_mode)) throw ConfFault("not a regular file");
  File file{{status.st_dev, status.st_ino}, {}};
  char buffer[16 * 1024];
  for (;;) {
    const ssize_t got = read(descriptor.get(), buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw ConfFault(strerror(errno));
    if (got == 0) return file;
    file.bytes.append(buffer, static_cast<size_t>(got));
    if (file.bytes.size() > limit) throw ConfFault(too_large());
  }
}

std::string absolute_path(const char *path) {
  if (*path == '\0') throw ConfFault("the configuration file has no name");
  std::error_code fault;
  std::string result = std::filesystem::absolute(path, fault).string();
  if (fault) throw ConfFault(conf_visible(path) + ": " + fault.message());
  return result;
}

// ---- XML ----

// What the parser's callbacks find out; its context's _private points here.
struct ParseFindings {
  bool has_document_type = false;
  int line = 0;
  char first_error[512] = "";  // a fixed size, because exceptions must not cross the parser
};

ParseFindings *findings_of(void *parser) {
  return static_cast<ParseFindings *>(static_cast<xmlParserCtxt *>(parser)->_private);
}

void refuse_document_type(void *parser, const xmlChar *, const xmlChar *, const xmlChar *) {
  findings_of(parser)->has_document_type = true;
  findings_of(parser)->line = xmlSAX2GetLineNumber(parser);
  xmlStopParser(static_cast<xmlParserCtxt *>(parser));
}

// Later errors are mostly consequences of the first.
void keep_first_error(void *parser, xmlErrorPtr error) {
  ParseFindings *const found = findings_of(parser);
  if (found->first_error[0] != '\0' || error->level < XML_ERR_ERROR || error->message == nullptr) return;
  found->line = error->line;
  const int length = static_cast<int>(strcspn(error->message, "\n"));
  snprintf(found->first_error, sizeof found->first_error, "%.*s", length, error->message);
}

std::string line_text(long line) {
  return "line " + std::to_string(line) + ": ";
}

// Faults do not name the file yet.
XmlDocPtr parse(const std::string &bytes) {
  if (bytes.empty()) throw ConfFault("the file is empty");
  if (bytes.size() > RUXO_CONF_MAX_BYTES) throw ConfFault(too_large());
  // A legal document has none, except in encodings of two bytes, which are not worth their parser.
  const size_t nul = bytes.find('\0');
  if (nul != std::string::npos) throw ConfFault("NUL byte at offset " + std::to_string(nul));

  const ParserPtr parser(xmlNewParserCtxt());
  if (parser == nullptr) throw std::bad_alloc();
  ParseFindings found;
  parser->_private = &found;
  parser->sax->internalSubset = refuse_document_type;
  parser->sax->serror = keep_first_error;
  XmlDocPtr doc(xmlCtxtReadMemory(
      parser.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA | XML_PARSE_BIG_LINES));
  if (found.has_document_type) {
    throw ConfFault(line_text(found.line) + "a document type declaration is not allowed");
  }
  if (doc == nullptr && parser->errNo == XML_ERR_NO_MEMORY) throw std::bad_alloc();
  if (doc == nullptr && found.line == 0) throw ConfFault("not an XML document");
  if (doc == nullptr) throw ConfFault(line_text(found.line) + conf_visible(found.first_error));
  return doc;
}

// ---- Includes ----

// Elements below `top`, in the order of the document.
std::vector<xmlNode *> include_elements(xmlNode *top) {
  std::vector<xmlNode *> result;
  for (xmlNode *node = top->children; node != nullptr;) {
    const bool is_element = node->type == XML_ELEMENT_NODE;
    if (is_element && node->ns == nullptr && xmlStrEqual(node->name, as_xml("include")))
      result.push_back(node);
    if (is_element && node->children != nullptr) {
      node = node->children;
      continue;
    }
    while (node != top && node->next == nullptr) node = node->parent;
    node = node == top ? nullptr : node->next;
  }
  return result;
}

bool has_content(const xmlNode *element) {
  for (xmlNode *child = element->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE || (child->type == XML_TEXT_NODE && xmlIsBlankNode(child) == 0))
      return true;
  }
  return false;
}

std::optional<std::string> attribute(xmlNode *element, const char *name) {
  const std::unique_ptr<xmlChar, decltype(xmlFree)> value(xmlGetNoNsProp(element, as_xml(name)), xmlFree);
  if (value == nullptr) return std::nullopt;
  return as_chars(value.get());
}

class Loader {
 public:
  explicit Loader(std::string main_file) { conf_->file = std::move(main_file); }

  std::shared_ptr<const Conf> from_file() {
    try {
      const File file = read_file(conf_->file, bytes_left_);
      return from(file.bytes, &file.id);
    } catch (const ConfFault &fault) {
      throw in_main_file(fault);
    }
  }

  std::shared_ptr<const Conf> from_text(std::string_view text) {
    try {
      if (text.size() > bytes_left_) throw ConfFault(too_large());
      return from(std::string(text), nullptr);
    } catch (const ConfFault &fault) {
      throw in_main_file(fault);
    }
  }

 private:
  // Files that are being read, each included by the next.
  struct Chain {
    const FileId *id;  // null for a text
    const Chain *includer;
    int depth;
  };

  // Faults in included files are named where they are found.
  ConfFault in_main_file(const ConfFault &fault) const {
    return is_named_ ? fault : ConfFault(conf_visible(conf_->file) + ": " + fault.what());
  }

  std::shared_ptr<const Conf> from(const std::string &bytes, const FileId *id) {
    bytes_left_ -= bytes.size();
    conf_->doc = parse(bytes);
    is_named_ = true;
    expand(xmlDocGetRootElement(conf_->doc.get()), {id, nullptr, 0});
    return std::move(conf_);
  }

  void expand(xmlNode *below, const Chain &chain) {
    for (xmlNode *const element : include_elements(below)) include(element, chain);
  }

  [[noreturn]] void fail_at(const xmlNode *element, const std::string &what) const {
    throw ConfFault(conf_->place_of(element) + what);
  }

  // A name without a "/" in front is looked for beside the file that includes it.
  std::string included_path(xmlNode *element) const {
    const std::optional<std::string> name = attribute(element, "file");
    if (!name || name->empty()) fail_at(element, "an include needs the attribute \"file\"");
    if (has_content(element)) fail_at(element, "an include has no content of its own");
    if (name->front() == '/') return *name;
    const std::string &includer = conf_->file_of(element);
    return includer.substr(0, includer.rfind('/') + 1) + *name;
  }

  void include(xmlNode *element, const Chain &chain) {
    const std::string path = included_path(element);
    if (chain.depth == RUXO_CONF_MAX_INCLUDE_DEPTH) {
      fail_at(element, "includes are nested deeper than " + std::to_string(RUXO_CONF_MAX_INCLUDE_DEPTH));
    }
    if (includes_left_-- == 0) {
      fail_at(element, "there are more than " + std::to_string(RUXO_CONF_MAX_INCLUDES) + " includes");
    }
    const File file = open_included(element, path);
    bytes_left_ -= file.bytes.size();
    const Chain next = {&file.id, &chain, chain.depth + 1};
    for (const Chain *link = &chain; link != nullptr; link = link->includer) {
      if (link->id == nullptr || link->id->device != file.id.device || link->id->number != file.id.number)
        continue;
      fail_at(element, "\"" + conf_visible(path) + "\" includes itself");
    }
    append(element, *parse_included(path, file.bytes));
    conf_->included.emplace(element, path);
    expand(element, next);
  }

  File open_included(xmlNode *element, const std::string &path) const {
    try {
      return read_file(path, bytes_left_);
    } catch (const ConfFault &fault) {
      fail_at(element, "cannot include \"" + conf_visible(path) + "\": " + fault.what());
    }
  }

  static XmlDocPtr parse_included(const std::string &path, const std::string &bytes) {
    try {
      return parse(bytes);
    } catch (const ConfFault &fault) {
      throw ConfFault(conf_visible(path) + ": " + fault.what());
    }
  }

  // Hangs the content of `included` below the element: its root, or, when that has the name of the main file's root
  // (so that the file is a whole configuration), what the root holds.
  void append(xmlNode *element, xmlDoc &included) const {
    xmlNode *const root = xmlDocGetRootElement(&included);
    if (!xmlStrEqual(root->name, xmlDocGetRootElement(conf_->doc.get())->name))
      return append_copy(element, root);
    for (xmlNode *child = root->children; child != nullptr; child = child->next) append_copy(element, child);
  }

  void append_copy(xmlNode *element, xmlNode *node) const {
    xmlNode *const copy = xmlDocCopyNode(node, conf_->doc.get(), 1);
    if (copy == nullptr) throw std::bad_alloc();
    if (xmlAddChild(element, copy) != nullptr) return;
    xmlFreeNode(copy);
    throw std::bad_alloc();
  }

  std::shared_ptr<Conf> conf_ = std::make_shared<Conf>();
  bool is_named_ = false;
  size_t bytes_left_ = RUXO_CONF_MAX_BYTES;
  int includes_left_ = RUXO_CONF_MAX_INCLUDES;
};

}  // namespace

const std::string &Conf::file_of(const xmlNode *node) const {
  for (const xmlNode *above = node->parent; above != nullptr; above = above->parent) {
    const auto found = included.find(above);
    if (found != included.end()) return found->second;
  }
  return file;
}

long Conf::line_of(const xmlNode *node) {
  return xmlGetLineNo(node->type == XML_ATTRIBUTE_NODE ? node->parent : node);
}

std::string Conf::place_of(const xmlNode *node) const {
  return conf_visible(file_of(node)) + ": " + line_text(line_of(node));
}

std::string conf_visible(std::string_view text) {
  std::string result;
  for (const char c : utf8_repaired(text)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      result += c;
      continue;
    }
    char escaped[8];
    snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    result += escaped;
  }
  return result;
}

std::string conf_quoted(std::string_view text) {
  const bool fits = text.size() <= kMaxQuotedBytes;
  return conf_visible(text.substr(0, kMaxQuotedBytes)) + (fits ? "" : "...");
}

std::shared_ptr<const Conf> conf_from_file(const char *path) {
  return Loader(absolute_path(path)).from_file();
}

std::shared_ptr<const Conf> conf_from_text(std::string_view text, const char *path) {
  return Loader(absolute_path(path)).from_text(text);
}

}  // namespace ruxo
