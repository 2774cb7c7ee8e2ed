// What a node answers about its state, any bytes in pieces of any size: the buffer never overflows, and a signature
// that is found is a text that the answer spells.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "liborlith/topo/orlith_client_private.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

}  // namespace

// The first byte tells the size of the pieces.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const size_t piece_size = size_t{data[0]} * 8 + 1;
  std::string body(reinterpret_cast<const char *>(data + 1), size - 1);
  const auto response = std::make_unique<OrlithClientResponse>();
  size_t taken = 0;
  while (taken < body.size()) {
    const size_t len = std::min(piece_size, body.size() - taken);
    const size_t got = orlith_client_take_response(body.data() + taken, 1, len, response.get());
    require(got == len || got == 0);
    if (got == 0) break;
    taken += got;
  }
  require(response->len == taken && taken < sizeof response->text && response->text[taken] == '\0');
  require(memcmp(response->text, body.data(), taken) == 0);
  require(taken == body.size() || taken + piece_size >= sizeof response->text);

  bool parsed = false;
  const OrlithClientText current = orlith_client_parse_state(response->text, response->len, &parsed);
  require(parsed == (current != nullptr));
  if (parsed) {
    const std::string text(response->text, response->len);
    require(text.find("current") != std::string::npos || text.find("\\u") != std::string::npos);
    require(strlen(current.get()) <= response->len);
  }
  return 0;
}
