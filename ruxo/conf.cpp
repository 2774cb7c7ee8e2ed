#include "ruxo/conf.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <charconv>
#include <cmath>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <vector>

#include "ruxo/conf_private.h"
#include "ruxo/guard_private.h"
#include "ruxo/log.h"

using ConfPtr = std::shared_ptr<const ruxo::Conf>;

struct ruxo_conf_node {
  const ruxo_conf_list *list;
  xmlNode *node;
};

struct ruxo_conf_list {
  ConfPtr conf;
  std::vector<ruxo_conf_node> nodes;
};

namespace {

constexpr unsigned long kMaxXPathSteps = 10'000'000;

// ---- The current configuration ----

struct Current {
  std::mutex lock;
  ConfPtr conf;  // guarded by lock
};

// Never destroyed: threads may look things up until the very end of the process.
Current &current() {
  static Current &the_one = *new Current;
  return the_one;
}

__attribute__((constructor)) void let_forked_children_look_things_up() {
  pthread_atfork([] { current().lock.lock(); }, [] { current().lock.unlock(); },
                 [] { current().lock.unlock(); });
}

ConfPtr current_conf() {
  const std::lock_guard guard(current().lock);
  return current().conf;
}

// The old configuration ends outside the lock, or with the last list that holds it.
void make_current(ConfPtr conf) {
  const std::lock_guard guard(current().lock);
  current().conf.swap(conf);
}

template <class Read>
int load(char **err, Read read) noexcept {
  if (err != nullptr) *err = nullptr;
  static std::once_flag library_ready;
  try {
    std::call_once(library_ready, xmlInitParser);
    make_current(read());
    return 0;
  } catch (const ruxo::ConfFault &fault) {
    if (err != nullptr) *err = strdup(fault.what());
  } catch (...) {
    if (err != nullptr) *err = strdup("out of memory");
  }
  return -1;
}

// ---- Looking up ----

struct FreeContext {
  void operator()(xmlXPathContext *context) const { xmlXPathFreeContext(context); }
};
struct FreeObject {
  void operator()(xmlXPathObject *object) const { xmlXPathFreeObject(object); }
};
using ContextPtr = std::unique_ptr<xmlXPathContext, FreeContext>;
using ObjectPtr = std::unique_ptr<xmlXPathObject, FreeObject>;

// The expression is no XPath, or takes too long.
struct BadExpression {};

void ignore_xml_error(void *, xmlErrorPtr) {}
void print_nothing(void *, const char *, ...) {}

// The library prints some faults of expressions, past the context's handler. Its setting is the thread's own.
class Silence {
 public:
  Silence() : function_(xmlGenericError), context_(xmlGenericErrorContext) {
    xmlSetGenericErrorFunc(nullptr, print_nothing);
  }
  ~Silence() { xmlSetGenericErrorFunc(context_, function_); }
  Silence(const Silence &) = delete;
  Silence &operator=(const Silence &) = delete;

 private:
  const xmlGenericErrorFunc function_;
  void *const context_;
};

// Node sets come sorted. A context is for one thread; the document is only read.
ObjectPtr evaluate(const ruxo::Conf &conf, const ruxo_conf_node *at, const char *xpath) {
  const ContextPtr context(xmlXPathNewContext(conf.doc.get()));
  if (context == nullptr) throw std::bad_alloc();
  context->error = ignore_xml_error;  // the default prints
  context->opLimit = kMaxXPathSteps;
  context->node = at == nullptr ? reinterpret_cast<xmlNode *>(conf.doc.get()) : at->node;
  const Silence silence;
  ObjectPtr result(xmlXPathEval(reinterpret_cast<const xmlChar *>(xpath), context.get()));
  if (result == nullptr && context->lastError.code == XML_ERR_NO_MEMORY) throw std::bad_alloc();
  if (result == nullptr) throw BadExpression();
  if (result->type == XPATH_NODESET) xmlXPathNodeSetSort(result->nodesetval);
  return result;
}

// For messages; a namespace node is none of the tree's.
std::string place_of(const ruxo::Conf &conf, const xmlNode *node) {
  if (node == nullptr || node->type == XML_NAMESPACE_DECL) return ruxo::conf_visible(conf.file) + ": ";
  return conf.place_of(node);
}

struct Value {
  ConfPtr conf;
  const xmlNode *node;  // null for the value of an expression like count(...)
  std::string text;
};

ConfPtr conf_for(const ruxo_conf_node *at) {
  return at == nullptr ? current_conf() : at->list->conf;
}

std::optional<Value> look_up(const ruxo_conf_node *at, const char *xpath) {
  ConfPtr conf = conf_for(at);
  if (conf == nullptr) return std::nullopt;
  const ObjectPtr found = evaluate(*conf, at, xpath);
  const xmlNode *node = nullptr;
  if (found->type == XPATH_NODESET) {
    if (xmlXPathNodeSetIsEmpty(found->nodesetval)) return std::nullopt;
    node = found->nodesetval->nodeTab[0];
    if (node->type == XML_NAMESPACE_DECL) node = nullptr;  // it ends with `found`
  }
  const std::unique_ptr<xmlChar, decltype(xmlFree)> text(xmlXPathCastToString(found.get()), xmlFree);
  if (text == nullptr) throw std::bad_alloc();
  return Value{std::move(conf), node, reinterpret_cast<const char *>(text.get())};
}

void log_bad_expression(const char *xpath) {
  ruxo_log(ruxo_error, "\"%s\" is no XPath expression, or takes too long\n",
           ruxo::conf_quoted(xpath).c_str());
}

void log_bad_value(const Value &value, const char *xpath, const char *expected) {
  ruxo_log(ruxo_error, "%s\"%s\" is \"%s\", expected %s\n", place_of(*value.conf, value.node).c_str(),
           ruxo::conf_quoted(xpath).c_str(), ruxo::conf_quoted(value.text).c_str(), expected);
}

// `take` answers whether the text is of the wanted form, and only then stores what it says.
template <class Take>
ruxo_conf_result_t get(const ruxo_conf_node *at, const char *xpath, const char *expected,
                       Take take) noexcept {
  return ruxo::guarded(RUXO_CONF_INVALID, [&] {
    try {
      const std::optional<Value> value = look_up(at, xpath);
      if (!value) return RUXO_CONF_ABSENT;
      if (take(std::string_view(value->text))) return RUXO_CONF_FOUND;
      log_bad_value(*value, xpath, expected);
    } catch (const BadExpression &) {
      log_bad_expression(xpath);
    }
    return RUXO_CONF_INVALID;
  });
}

std::string_view trimmed(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
}

// All of the text is the number.
template <class Number>
bool parse_number(std::string_view text, Number *value) {
  text = trimmed(text);
  if (text.size() > 1 && text[0] == '+' && text[1] != '-') text.remove_prefix(1);
  Number parsed{};
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), parsed);
  if (fault != std::errc() || end != text.data() + text.size()) return false;
  if constexpr (std::numeric_limits<Number>::has_infinity) {
    if (!std::isfinite(parsed)) return false;
  }
  *value = parsed;
  return true;
}

template <class Number>
ruxo_conf_result_t get_number(const ruxo_conf_node *at, const char *xpath, const char *expected,
                              Number *value) {
  return get(at, xpath, expected, [&](std::string_view text) { return parse_number(text, value); });
}

bool parse_boolean(std::string_view text, ruxo_boolean *value) {
  static constexpr struct {
    std::string_view word;
    bool value;
  } kWords[] = {{"true", true},   {"yes", true}, {"on", true},   {"1", true},
                {"false", false}, {"no", false}, {"off", false}, {"0", false}};
  for (const auto &known : kWords) {
    if (trimmed(text) != known.word) continue;
    *value = known.value;
    return true;
  }
  return false;
}

}  // namespace

int ruxo_conf_load(const char *path, char **err) {
  return load(err, [&] { return ruxo::conf_from_file(path); });
}

int ruxo_conf_load_text(const char *text, size_t len, const char *path, char **err) {
  return load(err, [&] { return ruxo::conf_from_text({text, len}, path); });
}

void ruxo_conf_unload(void) {
  make_current(nullptr);
}

ruxo_boolean ruxo_conf_config_filename(char *buff, size_t len) {
  const ConfPtr conf = current_conf();
  if (conf != nullptr && conf->file.size() < len) {
    memcpy(buff, conf->file.c_str(), conf->file.size() + 1);
    return ruxo_true;
  }
  if (len > 0) buff[0] = '\0';
  return ruxo_false;
}

ruxo_conf_list_t *ruxo_conf_list_new(const ruxo_conf_node_t *at, const char *xpath) {
  return ruxo::guarded<ruxo_conf_list_t *>(nullptr, [&]() -> ruxo_conf_list_t * {
    try {
      auto list = std::make_unique<ruxo_conf_list>();
      list->conf = conf_for(at);
      if (list->conf == nullptr) return nullptr;
      const ObjectPtr found = evaluate(*list->conf, at, xpath);
      if (found->type != XPATH_NODESET) throw BadExpression();
      for (int i = 0; i < xmlXPathNodeSetGetLength(found->nodesetval); ++i) {
        xmlNode *const node = found->nodesetval->nodeTab[i];
        if (node->type == XML_ELEMENT_NODE || node->type == XML_ATTRIBUTE_NODE)
          list->nodes.push_back({list.get(), node});
      }
      return list->nodes.empty() ? nullptr : list.release();
    } catch (const BadExpression &) {
      log_bad_expression(xpath);
      return nullptr;
    }
  });
}

size_t ruxo_conf_list_size(const ruxo_conf_list_t *list) {
  return list == nullptr ? 0 : list->nodes.size();
}

const ruxo_conf_node_t *ruxo_conf_list_at(const ruxo_conf_list_t *list, size_t index) {
  return index < ruxo_conf_list_size(list) ? &list->nodes[index] : nullptr;
}

void ruxo_conf_list_free(ruxo_conf_list_t *list) {
  delete list;
}

const char *ruxo_conf_node_name(const ruxo_conf_node_t *node) {
  return reinterpret_cast<const char *>(node->node->name);
}

const char *ruxo_conf_node_file(const ruxo_conf_node_t *node) {
  return node->list->conf->file_of(node->node).c_str();
}

long ruxo_conf_node_line(const ruxo_conf_node_t *node) {
  return ruxo::Conf::line_of(node->node);
}

ruxo_conf_result_t ruxo_conf_get_int32(const ruxo_conf_node_t *at, const char *xpath, int32_t *value) {
  return get_number(at, xpath, "a whole number from -2147483648 to 2147483647", value);
}

ruxo_conf_result_t ruxo_conf_get_int64(const ruxo_conf_node_t *at, const char *xpath, int64_t *value) {
  return get_number(at, xpath, "a whole number of 64 bits", value);
}

ruxo_conf_result_t ruxo_conf_get_uint64(const ruxo_conf_node_t *at, const char *xpath, uint64_t *value) {
  return get_number(at, xpath, "a whole number of 64 bits that is not negative", value);
}

ruxo_conf_result_t ruxo_conf_get_double(const ruxo_conf_node_t *at, const char *xpath, double *value) {
  return get_number(at, xpath, "a finite number", value);
}

ruxo_conf_result_t ruxo_conf_get_boolean(const ruxo_conf_node_t *at, const char *xpath, ruxo_boolean *value) {
  return get(at, xpath, "true, yes, on, 1, false, no, off or 0",
             [&](std::string_view text) { return parse_boolean(text, value); });
}

ruxo_conf_result_t ruxo_conf_get_uuid(const ruxo_conf_node_t *at, const char *xpath, ruxo_uuid_t value) {
  return get(at, xpath, "a UUID of 36 characters", [&](std::string_view text) {
    text = trimmed(text);
    return ruxo_uuid_parse_n(text.data(), text.size(), value) == 0;
  });
}

ruxo_conf_result_t ruxo_conf_get_text(const ruxo_conf_node_t *at, const char *xpath, char *buff,
                                      size_t size) {
  return get(at, xpath, "a shorter text", [&](std::string_view text) {
    if (text.size() >= size) return false;
    memcpy(buff, text.data(), text.size());
    buff[text.size()] = '\0';
    return true;
  });
}

char *ruxo_conf_get_string(const ruxo_conf_node_t *at, const char *xpath, const char *fallback) {
  char *copy = nullptr;
  const auto result = get(at, xpath, "enough memory", [&](std::string_view text) {
    copy = strndup(text.data(), text.size());
    return copy != nullptr;
  });
  if (result == RUXO_CONF_FOUND || fallback == nullptr) return copy;
  return strdup(fallback);
}
