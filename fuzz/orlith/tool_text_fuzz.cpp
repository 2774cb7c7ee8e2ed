// Any bytes in messages, times and tag values: escaped text is printable, times read back, names are canonical.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orlith/sample.h"
#include "orlith/text.h"
#include "pobe/pobe.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void check_escapes(std::string_view bytes) {
  const std::string shown = escaped(bytes);
  for (const char byte : shown) require(static_cast<uint8_t>(byte) >= 0x20 && byte != 0x7F);
  require(valid_utf8(shown) == shown);
  require(valid_utf8(valid_utf8(bytes)) == valid_utf8(bytes));
}

void check_time(std::string_view bytes) {
  const auto time_s = parse_time(bytes);
  if (time_s) require(parse_time(iso_time(*time_s)) == time_s);
}

void check_name(std::string_view bytes) {
  const std::string name = tagged_name("m", {{"value", bytes}, {"a", "b"}});
  std::string canonical(4096, '\0');
  const ssize_t length = pobe_metric_canonicalize_ex(name.data(), name.size(), canonical.data(),
                                                     canonical.size(), true, true, false);
  require(length >= 0 && canonical.compare(0, static_cast<size_t>(length), name) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char *>(data), size);
  check_escapes(bytes);
  check_time(bytes);
  check_name(bytes);
  return 0;
}
