#include "orlith/locator.h"

#include <fmt/format.h>

#include "pobe/pobe.h"
#include "ruxo/uuid.h"

namespace {

std::string name_fault(std::string_view name) {
  const ssize_t length = pobe_metric_canonicalize_ex(name.data(), name.size(), nullptr, 0, true, true, false);
  if (length < 0) return pobe_error_text(length);
  if (length > ORLITH_METRIC_LOCATOR_MAX_NAME)
    return fmt::format("its canonical form has {} bytes, expected at most {}", length,
                       ORLITH_METRIC_LOCATOR_MAX_NAME);
  return "its tags are refused (the categories __name, __type, __activity and __check_uuid are reserved)";
}

}  // namespace

Locator make_locator(const std::string &check_uuid, std::string_view name, std::string *fault) {
  ruxo_uuid_t bytes;
  ruxo_uuid_parse(check_uuid.c_str(), bytes);
  mem_reader_t reader{};
  reader.input_buffer = reinterpret_cast<const uint8_t *>(name.data());
  reader.input_buffer_size = name.size();
  Locator locator(orlith_metric_locator_create(bytes, &reader, METRIC_TYPE_NUMERIC));
  if (locator == nullptr) *fault = name_fault(name);
  return locator;
}
