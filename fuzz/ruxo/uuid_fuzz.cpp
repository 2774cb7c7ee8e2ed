// UUID text against the system's library, which takes the same texts.
#include <uuid/uuid.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ruxo/uuid.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  ruxo_uuid_t ours, untouched;
  memset(ours, 0x5a, sizeof ours);
  memset(untouched, 0x5a, sizeof untouched);
  const int result = ruxo_uuid_parse_n(text.data(), text.size(), ours);

  uuid_t theirs;
  const bool has_nul = memchr(text.data(), '\0', text.size()) != nullptr;
  const bool expected = !has_nul && uuid_parse(text.c_str(), theirs) == 0;
  check((result == 0) == expected);
  if (!has_nul) check(ruxo_uuid_parse(text.c_str(), untouched) == result);
  if (result != 0) {
    check(memcmp(ours, untouched, sizeof ours) == 0);
    return 0;
  }
  check(memcmp(ours, theirs, sizeof ours) == 0);
  char printed[RUXO_UUID_STRING_SIZE], expected_text[37];
  ruxo_uuid_unparse_lower(ours, printed);
  uuid_unparse_lower(theirs, expected_text);
  check(strcmp(printed, expected_text) == 0);
  return 0;
}
