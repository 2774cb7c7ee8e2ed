// Short ways to make metric locators in tests.
#ifndef TEST_SUPPORT_LOCATORS_H
#define TEST_SUPPORT_LOCATORS_H

#include <memory>
#include <string>
#include <string_view>

#include "liborlith/util/metric_locator.h"
#include "ruxo/uuid.h"

inline constexpr char kTestUuid[] = "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66";

struct Uuid {
  ruxo_uuid_t bytes{};
  explicit Uuid(const char *text = kTestUuid) { ruxo_uuid_parse(text, bytes); }
};

inline mem_reader_t reader_of(std::string_view text) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, text.data(), text.size());
  return reader;
}

struct LocatorDeref {
  void operator()(orlith_metric_locator_t *loc) const { orlith_metric_locator_deref(loc); }
};
using LocatorPtr = std::unique_ptr<orlith_metric_locator_t, LocatorDeref>;

inline LocatorPtr make_locator(std::string_view name,
                               orlith_metric_locator_metric_type_e type = METRIC_TYPE_NUMERIC,
                               const char *uuid = kTestUuid) {
  const mem_reader_t reader = reader_of(name);
  return LocatorPtr(orlith_metric_locator_create(Uuid(uuid).bytes, &reader, type));
}

inline std::string name_of(const orlith_metric_locator_t *loc) {
  return {orlith_metric_locator_get_name_with_tags(loc), orlith_metric_locator_get_name_len_with_tags(loc)};
}

inline std::string hex_of(const uint8_t *bytes, size_t len) {
  std::string hex;
  for (size_t i = 0; i < len; ++i) {
    hex += "0123456789abcdef"[bytes[i] >> 4];
    hex += "0123456789abcdef"[bytes[i] & 15];
  }
  return hex;
}

#endif
