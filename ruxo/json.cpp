#include "ruxo/json.h"

#include <json-c/json.h>
#include <string.h>

#include <charconv>
#include <cmath>
#include <memory>
#include <string>
#include <string_view>

#include "ruxo/guard_private.h"
#include "ruxo/json_grammar_private.h"
#include "ruxo/utf8_private.h"

namespace {

// The value that the whole text "null" is parsed to: a null pointer would mean a fault there.
char null_document_storage;
ruxo_json_object *null_document() {
  return reinterpret_cast<ruxo_json_object *>(&null_document_storage);
}

json_object *inner(const ruxo_json_object *o) {
  if (o == null_document()) return nullptr;
  return reinterpret_cast<json_object *>(const_cast<ruxo_json_object *>(o));
}

ruxo_json_object *outer(json_object *o) {
  return reinterpret_cast<ruxo_json_object *>(o);
}

// A number too large for a double reads as infinity, which is no JSON value.
bool all_finite(json_object *o);

bool members_finite(json_object *o) {
  for (auto *entry = json_object_get_object(o)->head; entry != nullptr; entry = entry->next) {
    if (!all_finite(static_cast<json_object *>(const_cast<void *>(entry->v)))) return false;
  }
  return true;
}

bool all_finite(json_object *o) {
  switch (json_object_get_type(o)) {
    case json_type_double:
      return std::isfinite(json_object_get_double(o));
    case json_type_object:
      return members_finite(o);
    case json_type_array:
      for (size_t i = 0; i < json_object_array_length(o); ++i) {
        if (!all_finite(json_object_array_get_idx(o, i))) return false;
      }
      return true;
    default:
      return true;
  }
}

struct TokenerFree {
  void operator()(json_tokener *tokener) const { json_tokener_free(tokener); }
};

ruxo_json_object *parse(std::string_view text) {
  // The library, even asked to be strict, takes "1." and raw control bytes, clamps integers and cuts member
  // names at a NUL: so it only gets text that is known to be right.
  if (text.size() > RUXO_JSON_MAX_BYTES || !ruxo::json_is_well_formed(text)) return nullptr;
  const std::unique_ptr<json_tokener, TokenerFree> tokener(json_tokener_new_ex(RUXO_JSON_MAX_DEPTH + 2));
  if (tokener == nullptr) return nullptr;
  json_tokener_set_flags(tokener.get(), JSON_TOKENER_STRICT | JSON_TOKENER_VALIDATE_UTF8);
  json_object *value = json_tokener_parse_ex(tokener.get(), text.data(), static_cast<int>(text.size()));
  // A number at the very end is complete only once the end is seen.
  if (json_tokener_get_error(tokener.get()) == json_tokener_continue) {
    value = json_tokener_parse_ex(tokener.get(), "", 1);
  }
  if (json_tokener_get_error(tokener.get()) != json_tokener_success) return nullptr;
  if (!all_finite(value)) {
    json_object_put(value);
    return nullptr;
  }
  return value == nullptr ? null_document() : outer(value);
}

// Shortest digits that read back the same double, with a mark that it is one.
int print_double(json_object *o, struct printbuf *out, int, int) {
  char text[40];
  const auto [end, fault] = std::to_chars(text, text + sizeof text, json_object_get_double(o));
  if (fault != std::errc()) return -1;
  std::string digits(text, end);
  if (digits.find_first_of(".e") == std::string::npos) digits += ".0";
  return printbuf_memappend(out, digits.data(), static_cast<int>(digits.size()));
}

}  // namespace

ruxo_json_object *ruxo_json_parse(const char *text) {
  return ruxo_json_parse_n(text, strlen(text));
}

ruxo_json_object *ruxo_json_parse_n(const char *text, size_t len) {
  return ruxo::guarded<ruxo_json_object *>(nullptr, [&] { return parse({text, len}); });
}

const char *ruxo_json_text(ruxo_json_object *o) {
  if (inner(o) == nullptr) return "null";
  return json_object_to_json_string_ext(inner(o), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

void ruxo_json_free(ruxo_json_object *o) {
  json_object_put(inner(o));
}

ruxo_json_object *ruxo_json_new_object(void) {
  return outer(json_object_new_object());
}
ruxo_json_object *ruxo_json_new_array(void) {
  return outer(json_object_new_array());
}

ruxo_json_object *ruxo_json_new_string(const char *text) {
  return ruxo_json_new_string_len(text, strlen(text));
}

ruxo_json_object *ruxo_json_new_string_len(const char *text, size_t len) {
  return ruxo::guarded<ruxo_json_object *>(nullptr, [&]() -> ruxo_json_object * {
    if (len > RUXO_JSON_MAX_BYTES) return nullptr;
    if (ruxo::utf8_is_valid({text, len}))
      return outer(json_object_new_string_len(text, static_cast<int>(len)));
    const std::string repaired = ruxo::utf8_repaired({text, len});
    return outer(json_object_new_string_len(repaired.data(), static_cast<int>(repaired.size())));
  });
}

ruxo_json_object *ruxo_json_new_int(int64_t value) {
  return outer(json_object_new_int64(value));
}
ruxo_json_object *ruxo_json_new_uint(uint64_t value) {
  return outer(json_object_new_uint64(value));
}

ruxo_json_object *ruxo_json_new_double(double value) {
  if (!std::isfinite(value)) return nullptr;
  json_object *const o = json_object_new_double(value);
  if (o != nullptr) json_object_set_serializer(o, print_double, nullptr, nullptr);
  return outer(o);
}

ruxo_json_object *ruxo_json_new_boolean(ruxo_boolean value) {
  return outer(json_object_new_boolean(value));
}

ruxo_boolean ruxo_json_object_set(ruxo_json_object *o, const char *key, ruxo_json_object *value) {
  return ruxo_json_type(o) == RUXO_JSON_OBJECT && ruxo::utf8_is_valid(key) &&
         json_object_object_add(inner(o), key, inner(value)) == 0;
}

ruxo_boolean ruxo_json_array_add(ruxo_json_object *array, ruxo_json_object *value) {
  return ruxo_json_type(array) == RUXO_JSON_ARRAY && json_object_array_add(inner(array), inner(value)) == 0;
}

ruxo_json_type_t ruxo_json_type(const ruxo_json_object *o) {
  switch (json_object_get_type(inner(o))) {
    case json_type_boolean:
      return RUXO_JSON_BOOLEAN;
    case json_type_double:
      return RUXO_JSON_DOUBLE;
    case json_type_int:
      return RUXO_JSON_INT;
    case json_type_object:
      return RUXO_JSON_OBJECT;
    case json_type_array:
      return RUXO_JSON_ARRAY;
    case json_type_string:
      return RUXO_JSON_STRING;
    case json_type_null:
      break;
  }
  return RUXO_JSON_NULL;
}

ruxo_json_object *ruxo_json_object_get(const ruxo_json_object *o, const char *key, ruxo_boolean *present) {
  json_object *value = nullptr;
  const bool found =
      ruxo_json_type(o) == RUXO_JSON_OBJECT && json_object_object_get_ex(inner(o), key, &value) != 0;
  if (present != nullptr) *present = found;
  return outer(value);
}

size_t ruxo_json_array_length(const ruxo_json_object *array) {
  return ruxo_json_type(array) == RUXO_JSON_ARRAY ? json_object_array_length(inner(array)) : 0;
}

ruxo_json_object *ruxo_json_array_get(const ruxo_json_object *array, size_t index) {
  return index < ruxo_json_array_length(array) ? outer(json_object_array_get_idx(inner(array), index))
                                               : nullptr;
}

// The library clamps what does not fit the type asked for: a negative value reads as 0 when unsigned, a large
// one as INT64_MAX when signed. Between the two readings, the value is known.
ruxo_boolean ruxo_json_is_int64(const ruxo_json_object *o) {
  return ruxo_json_type(o) == RUXO_JSON_INT &&
         (json_object_get_int64(inner(o)) < 0 || json_object_get_uint64(inner(o)) <= INT64_MAX);
}

ruxo_boolean ruxo_json_is_uint64(const ruxo_json_object *o) {
  return ruxo_json_type(o) == RUXO_JSON_INT && json_object_get_int64(inner(o)) >= 0;
}

int64_t ruxo_json_int(const ruxo_json_object *o) {
  return ruxo_json_is_int64(o) ? json_object_get_int64(inner(o)) : 0;
}

uint64_t ruxo_json_uint(const ruxo_json_object *o) {
  return ruxo_json_is_uint64(o) ? json_object_get_uint64(inner(o)) : 0;
}

double ruxo_json_double(const ruxo_json_object *o) {
  const ruxo_json_type_t type = ruxo_json_type(o);
  return type == RUXO_JSON_INT || type == RUXO_JSON_DOUBLE ? json_object_get_double(inner(o)) : 0.0;
}

ruxo_boolean ruxo_json_boolean(const ruxo_json_object *o) {
  return ruxo_json_type(o) == RUXO_JSON_BOOLEAN && json_object_get_boolean(inner(o));
}

const char *ruxo_json_string(const ruxo_json_object *o, size_t *len) {
  const bool is_string = ruxo_json_type(o) == RUXO_JSON_STRING;
  if (len != nullptr) *len = is_string ? static_cast<size_t>(json_object_get_string_len(inner(o))) : 0;
  return is_string ? json_object_get_string(inner(o)) : nullptr;
}
