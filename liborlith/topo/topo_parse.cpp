// From bytes to XML, under limits.
//
// Documents come from operators and from peers. The parser therefore takes no document type (entities are
// what makes a small document expand into a huge one), fetches nothing and prints nothing.
#include <fcntl.h>
#include <libxml/parser.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "liborlith/topo/topo.h"
#include "liborlith/topo/topo_private.h"

namespace {

struct FreeDoc {
  void operator()(xmlDoc *doc) const { xmlFreeDoc(doc); }
};
struct FreeParser {
  void operator()(xmlParserCtxt *parser) const { xmlFreeParserCtxt(parser); }
};
using DocPtr = std::unique_ptr<xmlDoc, FreeDoc>;
using ParserPtr = std::unique_ptr<xmlParserCtxt, FreeParser>;

// What the parser's callbacks find out; its context's _private points here.
struct ParseFindings {
  bool has_document_type = false;
  char first_error[512] = "";  // with its line; a fixed size, because exceptions must not cross the parser
};

ParseFindings *findings_of(void *parser) {
  return static_cast<ParseFindings *>(static_cast<xmlParserCtxt *>(parser)->_private);
}

void refuse_document_type(void *parser, const xmlChar *, const xmlChar *, const xmlChar *) {
  findings_of(parser)->has_document_type = true;
  xmlStopParser(static_cast<xmlParserCtxt *>(parser));
}

// Later errors are mostly consequences of the first.
void keep_first_error(void *parser, xmlErrorPtr error) {
  ParseFindings *found = findings_of(parser);
  if (found->first_error[0] != '\0' || error->level < XML_ERR_ERROR || error->message == nullptr) return;
  const int length = static_cast<int>(strcspn(error->message, "\n"));
  snprintf(found->first_error, sizeof found->first_error, "line %d: %.*s", error->line, length,
           error->message);
}

DocPtr parse_document(std::string_view bytes) {
  if (bytes.empty()) throw TopoFault("the document is empty");
  if (bytes.size() > TOPO_DOCUMENT_MAX_BYTES) {
    throw TopoFault("the document is larger than " + std::to_string(TOPO_DOCUMENT_MAX_BYTES) + " bytes");
  }
  const size_t nul = bytes.find('\0');
  if (nul != std::string_view::npos) throw TopoFault("NUL byte at offset " + std::to_string(nul));

  const ParserPtr parser(xmlNewParserCtxt());
  if (parser == nullptr) throw std::bad_alloc();
  ParseFindings found;
  parser->_private = &found;
  parser->sax->internalSubset = refuse_document_type;
  parser->sax->serror = keep_first_error;
  DocPtr doc(xmlCtxtReadMemory(parser.get(), bytes.data(), static_cast<int>(bytes.size()), nullptr, nullptr,
                               XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (found.has_document_type) throw TopoFault("a document type declaration is not allowed");
  if (doc == nullptr)
    throw TopoFault(found.first_error[0] == '\0' ? "not an XML document" : found.first_error);
  return doc;
}

struct OpenFile {
  explicit OpenFile(const char *path) : fd(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~OpenFile() {
    if (fd >= 0) close(fd);
  }
  OpenFile(const OpenFile &) = delete;
  OpenFile &operator=(const OpenFile &) = delete;

  const int fd;
};

std::string read_file(const char *path) {
  const OpenFile file(path);
  if (file.fd < 0) throw TopoFault(strerror(errno));
  std::string bytes;
  char buffer[16 * 1024];
  // One buffer past the limit is enough for the parser's check to see that the file is too large.
  while (bytes.size() <= TOPO_DOCUMENT_MAX_BYTES) {
    const ssize_t got = read(file.fd, buffer, sizeof buffer);
    if (got == 0) break;
    if (got > 0) {
      bytes.append(buffer, static_cast<size_t>(got));
    } else if (errno != EINTR) {
      throw TopoFault(strerror(errno));
    }
  }
  return bytes;
}

// Runs `parse`; a fault becomes null and a message, which begins with the path unless that is null.
template <class Parse>
xmlDoc *document_or_message(const char *path, char **err, Parse parse) noexcept {
  if (err != nullptr) *err = nullptr;
  const char *message = "out of memory";
  std::string fault_message;
  try {
    try {
      return parse().release();
    } catch (const TopoFault &fault) {
      if (path != nullptr) fault_message = std::string(path) + ": ";
      fault_message += fault.what();
      message = fault_message.c_str();
    }
  } catch (const std::bad_alloc &) {
    // Also when there is no memory for the message of a fault.
  }
  if (err != nullptr) *err = strdup(message);
  return nullptr;
}

}  // namespace

xmlDocPtr topo_parse_document(const char *bytes, size_t len, char **err) {
  return document_or_message(nullptr, err, [&] { return parse_document({bytes, len}); });
}

xmlDocPtr topo_parse_document_file(const char *path, char **err) {
  return document_or_message(path, err, [&] { return parse_document(read_file(path)); });
}
