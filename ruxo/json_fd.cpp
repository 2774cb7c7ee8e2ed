// JSON from a descriptor: read whole, under a limit, then parsed.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "ruxo/guard_private.h"
#include "ruxo/json.h"

namespace {

constexpr size_t kPieceBytes = 64 * 1024;

// False when a read fails or there is more than `limit` bytes.
bool read_whole(int fd, size_t limit, std::string *text) {
  size_t filled = 0;
  for (;;) {
    // One byte beyond the limit is asked for, to see whether it is there.
    text->resize(std::min(limit + 1, filled + kPieceBytes));
    const ssize_t got = read(fd, text->data() + filled, text->size() - filled);
    if (got == 0) break;
    if (got < 0 && errno != EINTR) return false;
    if (got > 0) filled += static_cast<size_t>(got);
    if (filled > limit) return false;
  }
  text->resize(filled);
  return true;
}

}  // namespace

ruxo_json_object *ruxo_json_from_fd(int fd, size_t max_bytes) {
  return ruxo::guarded<ruxo_json_object *>(nullptr, [&]() -> ruxo_json_object * {
    std::string text;
    if (!read_whole(fd, std::min(max_bytes, RUXO_JSON_MAX_BYTES), &text)) return nullptr;
    return ruxo_json_parse_n(text.data(), text.size());
  });
}
