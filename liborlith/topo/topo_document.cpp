// Reading topology documents: from XML to checked nodes.
//
// topo_read_document may be given a document that a host parsed by itself, so attribute values are bounded
// here even though topo_parse_document lets nothing through that could make them large.
#include "liborlith/topo/topo.h"

#include <arpa/inet.h>
#include <libxml/xpath.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "liborlith/topo/topo_private.h"

namespace {

constexpr int kDefaultWriteCopies = 2;
constexpr size_t kMessageSize = 256;              // longer messages are cut
constexpr size_t kMaxAttributeBytes = 64 * 1024;  // no attribute of a sensible document comes near

template <auto free_function>
struct FreeWith {
  template <class T>
  void operator()(T *object) const {
    free_function(object);
  }
};
using XPathPtr = std::unique_ptr<xmlXPathContext, FreeWith<xmlXPathFreeContext>>;
using XPathResult = std::unique_ptr<xmlXPathObject, FreeWith<xmlXPathFreeObject>>;
using AddressList = std::unique_ptr<addrinfo, FreeWith<freeaddrinfo>>;

// ---- Faults ----

[[noreturn]] void fail_generic() {
  throw TopoFault("");
}

std::string format_message(const char *format, va_list args) {
  char message[kMessageSize];
  vsnprintf(message, sizeof message, format, args);
  return message;
}

[[noreturn]] RUXO_PRINTF(1, 2) void fail(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const std::string message = format_message(format, args);
  va_end(args);
  throw TopoFault(message);
}

[[noreturn]] RUXO_PRINTF(1, 2) void fail_logged(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const std::string message = format_message(format, args);
  va_end(args);
  ruxo_log(ruxo_error, "%s\n", message.c_str());
  throw TopoFault(message);
}

// ---- Attributes ----

const char *as_chars(const xmlChar *text) {
  return reinterpret_cast<const char *>(text);
}
const xmlChar *as_xml(const char *text) {
  return reinterpret_cast<const xmlChar *>(text);
}

// Entities made of other entities can stand for any amount of text.
bool stands_for_plain_text(const xmlEntity &entity) {
  if (entity.etype == XML_INTERNAL_PREDEFINED_ENTITY) return true;
  return entity.etype == XML_INTERNAL_GENERAL_ENTITY && entity.content != nullptr &&
         strpbrk(as_chars(entity.content), "&<") == nullptr;
}

// The text of one piece of an attribute value: characters, or an entity that stands for some.
std::string_view attribute_piece(const xmlNode *piece) {
  const xmlChar *text = piece->content;
  if (piece->type == XML_ENTITY_REF_NODE) {
    const xmlEntity *entity = xmlGetDocEntity(piece->doc, piece->name);
    if (entity == nullptr || !stands_for_plain_text(*entity)) fail_generic();
    text = entity->content;
  } else if (piece->type != XML_TEXT_NODE) {
    fail_generic();
  }
  return text == nullptr ? std::string_view() : as_chars(text);
}

std::string attribute_text(const xmlAttr *attribute) {
  std::string value;
  for (const xmlNode *piece = attribute->children; piece != nullptr; piece = piece->next) {
    const std::string_view text = attribute_piece(piece);
    if (text.size() > kMaxAttributeBytes - value.size()) fail_generic();
    value += text;
  }
  return value;
}

std::optional<std::string> attribute(xmlNode *node, const char *name) {
  const xmlAttr *found = xmlHasProp(node, as_xml(name));
  if (found == nullptr) return std::nullopt;
  if (found->type == XML_ATTRIBUTE_NODE) return attribute_text(found);
  // Otherwise it is the default value of a declaration in the document type.
  const xmlChar *value = reinterpret_cast<const xmlAttribute *>(found)->defaultValue;
  if (value == nullptr) return std::nullopt;
  return as_chars(value);
}

// A number of 1 to 65535, as its leading decimal digits. Nothing when the low 16 bits are zero or not the
// whole value.
std::optional<uint16_t> parse_nonzero_u16(const std::string &text) {
  const long value = strtol(text.c_str(), nullptr, 10);
  const uint16_t low_bits = static_cast<uint16_t>(value);
  if (low_bits == 0 || low_bits != value) return std::nullopt;
  return low_bits;
}

// ---- The root ----

void ignore_xml_error(void *, xmlErrorPtr) {}

XPathPtr xpath_context(xmlDoc *doc) {
  XPathPtr context(xmlXPathNewContext(doc));
  if (context == nullptr) throw std::bad_alloc();
  context->error = ignore_xml_error;  // the default prints
  return context;
}

// The nodes that match; an empty result fails.
XPathResult evaluate(xmlXPathContext *context, const char *path) {
  XPathResult result(xmlXPathEvalExpression(as_xml(path), context));
  if (result == nullptr || result->type != XPATH_NODESET || xmlXPathNodeSetIsEmpty(result->nodesetval))
    fail_generic();
  return result;
}

xmlNode *find_root(xmlXPathContext *context) {
  const XPathResult result = evaluate(context, "/nodes");
  if (result->nodesetval->nodeNr != 1) fail_generic();
  xmlNode *root = result->nodesetval->nodeTab[0];
  if (root->type != XML_ELEMENT_NODE) fail_generic();
  return root;
}

bool read_use_tls(xmlNode *root, const char *name_in_log) {
  const std::optional<std::string> value = attribute(root, "use_tls");
  if (!value || *value == "false") return false;
  if (*value == "true") return true;
  ruxo_log(ruxo_error, "topo \"%s\" has bad value for \"use_tls\"\n", name_in_log);
  fail_generic();
}

struct WriteCopies {
  int count;
  bool defaulted;
};

WriteCopies read_write_copies(xmlNode *root, const char *name_in_log) {
  std::optional<std::string> text = attribute(root, "write_copies");
  if (!text) {
    text = attribute(root, "n");
    if (text) {
      ruxo_log(ruxo_error, "topo \"%s\" using deprecated \"n\" instead of \"write_copies\"\n", name_in_log);
    }
  }
  const long value = text ? strtol(text->c_str(), nullptr, 10) : 0;
  if (value < 1) return {kDefaultWriteCopies, true};
  if (value > TOPO_MAX_COPIES) {
    fail_logged("invalid topology: write_copies %ld exceeds the max number of nodes %d", value,
                TOPO_MAX_COPIES);
  }
  return {static_cast<int>(value), false};
}

int settle_write_copies(WriteCopies copies, int node_count) {
  if (node_count == 1 && copies.defaulted) return 1;
  if (copies.count > node_count) {
    fail_logged("invalid topology: write_copies %d > node count %d", copies.count, node_count);
  }
  return copies.count;
}

// ---- One node ----

void read_id(xmlNode *node, std::string *id, host_config *host) {
  const std::optional<std::string> text = attribute(node, "id");
  if (!text) fail("bad id: %s\n", "(null)");
  if (ruxo_uuid_parse(text->c_str(), host->id) != 0) fail("bad id: %s\n", text->c_str());
  char lower[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(host->id, lower);
  if (strncmp(lower, text->c_str(), RUXO_UUID_STRING_SIZE - 1) != 0) {
    fail("bad id: %s (should be all lower-case letters in uuid)\n", text->c_str());
  }
  *id = *text;
}

uint16_t read_u16(const std::string &text, const char *name, const std::string &id) {
  const std::optional<uint16_t> value = parse_nonzero_u16(text);
  if (!value) fail("node '%s': %s must > 0 and <= 65535\n", id.c_str(), name);
  return *value;
}

bool look_up_address(const char *name, in_addr *out) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &found) != 0) return false;
  const AddressList list(found);
  if (list == nullptr || list->ai_addr == nullptr || list->ai_family != AF_INET) return false;
  sockaddr_in address;
  memcpy(&address, list->ai_addr, sizeof address);
  *out = address.sin_addr;
  return true;
}

void read_address(const std::string &text, const std::string &id, host_config *host) {
  if (inet_aton(text.c_str(), &host->net_address) == 0 &&
      !look_up_address(text.c_str(), &host->net_address)) {
    fail("node '%s': can't interpret address %s\n", id.c_str(), text.c_str());
  }
  host->hostname = strdup(text.c_str());
  if (host->hostname == nullptr) throw std::bad_alloc();
}

topo_host_ringside_t read_side(xmlNode *node, const std::string &id) {
  const std::optional<std::string> side = attribute(node, "side");
  if (!side || *side == "both") return TOPO_RINGSIDE_BOTH;
  if (*side == "a") return TOPO_RINGSIDE_A;
  if (*side == "b") return TOPO_RINGSIDE_B;
  fail("node '%s': side must be a,b, or both\n", id.c_str());
}

// Fills *host, whose hostname belongs to the document from the moment it is set. The order of the checks is
// fixed: the first fault is the one that is reported.
void read_node(xmlNode *node, host_config *host) {
  std::string id;
  read_id(node, &id, host);
  const std::optional<std::string> port = attribute(node, "port");
  const std::optional<std::string> address = attribute(node, "address");
  const std::optional<std::string> weight = attribute(node, "weight");
  const std::optional<std::string> apiport = attribute(node, "apiport");
  if (!port || !address || !weight || !apiport)
    fail("port, apiport, address and weight must be specified.\n");
  host->weight = read_u16(*weight, "weight", id);
  host->net_port = htons(read_u16(*port, "port", id));
  host->net_apiport = htons(read_u16(*apiport, "apiport", id));
  read_address(*address, id, host);
  host->ringside = read_side(node, id);
}

// ---- All nodes ----

void check_sides(const std::vector<host_config> &hosts, int write_copies) {
  const auto on_side = [&](topo_host_ringside_t side) {
    return std::count_if(hosts.begin(), hosts.end(),
                         [&](const host_config &host) { return host.ringside == side; });
  };
  const auto a = on_side(TOPO_RINGSIDE_A);
  const auto b = on_side(TOPO_RINGSIDE_B);
  if (a == 0 && b == 0) return;
  if (write_copies == 1) fail("write_copies < # sides");
  if (static_cast<size_t>(a + b) != hosts.size()) fail("mixed sided/unsided config");
  if ((write_copies + 1) / 2 > std::min(a, b)) fail("|side| < write_copies");
}

}  // namespace

void topo_read_document(xmlDocPtr doc, const char *hexhash, TopoDocument *out) {
  if (doc == nullptr) fail_generic();
  const char *name_in_log = hexhash == nullptr ? "(null)" : hexhash;
  const XPathPtr context = xpath_context(doc);
  xmlNode *root = find_root(context.get());
  out->use_tls = read_use_tls(root, name_in_log);
  const WriteCopies copies = read_write_copies(root, name_in_log);
  const XPathResult nodes = evaluate(context.get(), "/nodes/node");
  const int node_count = nodes->nodesetval->nodeNr;
  out->write_copies = settle_write_copies(copies, node_count);

  out->hosts.reserve(static_cast<size_t>(node_count));
  for (int i = 0; i < node_count; ++i) {
    read_node(nodes->nodesetval->nodeTab[i], &out->hosts.emplace_back());
  }
  check_sides(out->hosts, out->write_copies);
  if (out->hosts.size() > TOPO_MAX_HOSTS) fail_generic();
}
