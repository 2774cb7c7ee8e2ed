// JSON: never a crash, and what is accepted prints to a text that is accepted and prints the same. On short
// ASCII texts without the things that only this reader refuses, it agrees with the model on what is JSON.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ruxo/json.h"
#include "test/support/json_model.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

// Digits in a row that may make a number too large, \u escapes that may be no pair or a NUL in a name.
bool model_can_judge(std::string_view text) {
  if (text.size() > 64 || text.find("\\u") != std::string_view::npos) return false;
  size_t digits = 0;
  for (const char c : text) {
    if (c == '\0' || static_cast<unsigned char>(c) > 0x7f) return false;
    digits += c >= '0' && c <= '9';
    if (c == 'e' || c == 'E') digits += 16;
  }
  return digits < 19;
}

void walk(const ruxo_json_object *o, int depth) {
  check(depth <= RUXO_JSON_MAX_DEPTH);
  size_t len = 0;
  if (const char *const text = ruxo_json_string(o, &len)) check(text[len] == '\0');
  check(!ruxo_json_is_int64(o) || ruxo_json_type(o) == RUXO_JSON_INT);
  for (size_t i = 0; i < ruxo_json_array_length(o); ++i) walk(ruxo_json_array_get(o, i), depth + 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  ruxo_json_object *const o = ruxo_json_parse_n(text.data(), text.size());
  if (model_can_judge(text)) check((o != nullptr) == json_model::is_ascii_json(text));
  if (o == nullptr) return 0;
  walk(o, 0);
  const std::string printed = ruxo_json_text(o);
  ruxo_json_object *const again = ruxo_json_parse(printed.c_str());
  check(again != nullptr && printed == ruxo_json_text(again));
  ruxo_json_free(again);
  ruxo_json_free(o);
  return 0;
}
