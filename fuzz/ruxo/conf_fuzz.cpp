// Configurations: the first line is an expression, the rest a document. Refused with a message, or every node of it
// can be looked at; and the expression finds the same one way and the other.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ruxo/conf.h"
#include "ruxo/log.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

void check_values(const ruxo_conf_node_t *node) {
  int32_t i32 = 0;
  int64_t i64 = 0;
  uint64_t u64 = 0;
  double number = 0;
  ruxo_boolean flag;
  ruxo_uuid_t uuid;
  const bool fits_32 = ruxo_conf_get_int32(node, ".", &i32) == RUXO_CONF_FOUND;
  const bool fits_64 = ruxo_conf_get_int64(node, ".", &i64) == RUXO_CONF_FOUND;
  const bool fits_u64 = ruxo_conf_get_uint64(node, ".", &u64) == RUXO_CONF_FOUND;
  const bool is_number = ruxo_conf_get_double(node, ".", &number) == RUXO_CONF_FOUND;
  check(!fits_32 || (fits_64 && i32 == i64));
  check(!(fits_64 && i64 > 0) || (fits_u64 && u64 == static_cast<uint64_t>(i64)));
  check(!(fits_64 || fits_u64) || is_number);
  check(ruxo_conf_get_boolean(node, ".", &flag) != RUXO_CONF_ABSENT);
  check(ruxo_conf_get_uuid(node, ".", uuid) != RUXO_CONF_ABSENT);
  char *const text = ruxo_conf_get_string(node, ".", nullptr);
  check(text != nullptr);
  const size_t len = strlen(text);
  std::string copy(len + 1, '\1');
  check(ruxo_conf_get_text(node, ".", copy.data(), len) == RUXO_CONF_INVALID);
  check(ruxo_conf_get_text(node, ".", copy.data(), len + 1) == RUXO_CONF_FOUND &&
        copy.c_str() == std::string(text));
  free(text);
}

void check_nodes() {
  ruxo_conf_list_t *const all = ruxo_conf_list_new(nullptr, "//*|//@*");
  check(all != nullptr);
  for (size_t i = 0; i < ruxo_conf_list_size(all) && i < 100; ++i) {
    const ruxo_conf_node_t *const node = ruxo_conf_list_at(all, i);
    check(*ruxo_conf_node_name(node) != '\0' && *ruxo_conf_node_file(node) == '/');
    check(ruxo_conf_node_line(node) >= 1);
    check_values(node);
  }
  ruxo_conf_list_free(all);
}

void check_expression(const char *xpath) {
  ruxo_conf_list_t *const list = ruxo_conf_list_new(nullptr, xpath);
  char *const text = ruxo_conf_get_string(nullptr, xpath, nullptr);
  if (list != nullptr) check(text != nullptr);
  int64_t number;
  if (text == nullptr) check(ruxo_conf_get_int64(nullptr, xpath, &number) != RUXO_CONF_FOUND);
  free(text);
  ruxo_conf_list_free(list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ruxo_error = nullptr;  // what is not of the wanted form is logged as well
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string xpath = input.substr(0, input.find('\n'));
  const std::string text = xpath.size() < input.size() ? input.substr(xpath.size() + 1) : "";
  char *err = nullptr;
  const int result = ruxo_conf_load_text(text.data(), text.size(), "/nowhere/fuzz.xml", &err);
  check((result == 0) == (err == nullptr));
  if (result == 0) {
    check_nodes();
    check_expression(xpath.c_str());
  } else {
    check(strchr(err, '\n') == nullptr && strchr(err, '\x1b') == nullptr);
  }
  free(err);
  ruxo_conf_unload();
  return 0;
}
