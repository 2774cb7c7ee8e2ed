// Interval lists as text.
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "liborlith/util/oil_private.h"

using namespace liborlith;

namespace {

// Appends to a caller's buffer what fits, and counts what does not.
class BoundedText {
 public:
  BoundedText(char *buf, size_t len) noexcept : buf_(buf), len_(len) {
    if (len_ > 0) buf_[0] = '\0';
  }

  void append(std::string_view piece) noexcept {
    if (needed_ + 1 < len_) {
      const size_t room = len_ - 1 - needed_;
      const size_t fitting = piece.size() < room ? piece.size() : room;
      memcpy(buf_ + needed_, piece.data(), fitting);
      buf_[needed_ + fitting] = '\0';
    }
    needed_ += piece.size();
  }
  size_t needed() const noexcept { return needed_; }

 private:
  char *buf_;
  size_t len_;
  size_t needed_ = 0;
};

// One interval as "(first,last)".
class IntervalText {
 public:
  explicit IntervalText(oil_interval_t interval) noexcept {
    length_ = snprintf(text_, sizeof(text_), "(%" PRIu32 ",%" PRIu32 ")", interval.first, interval.last);
  }
  std::string_view view() const noexcept { return {text_, static_cast<size_t>(length_)}; }

 private:
  char text_[sizeof("(4294967295,4294967295)")];
  int length_;
};

// The line's head, as both oil_debug and oil_dump write it.
#define OIL_HEAD_FORMAT "OIL [%p] size[%" PRIu32 "] cap[%" PRIu32 "] entries[%p]["
#define OIL_HEAD_VALUES(oil) \
  static_cast<const void *>(oil), (oil)->size, (oil)->capacity, static_cast<const void *>((oil)->entries)

}  // namespace

size_t oil_print(oil_list_t *oil, char *buf, size_t len) {
  BoundedText text(buf, len);
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  text.append("[");
  for (uint32_t i = 0; i < oil->size; ++i) {
    if (i > 0) text.append(",");
    text.append(IntervalText(interval_at(oil, i)).view());
  }
  text.append("]");
  return text.needed();
}

void oil_debug(oil_list_t *oil) {
  if (oil == nullptr) return;
  const SharedHold hold(&oil->lock);
  // One stream lock for the whole line, so that lines of several threads do not mix.
  flockfile(stderr);
  fprintf(stderr, OIL_HEAD_FORMAT, OIL_HEAD_VALUES(oil));
  for (uint32_t i = 0; i < oil->size; ++i) {
    const IntervalText text(interval_at(oil, i));
    fprintf(stderr, "%s%.*s", i > 0 ? "," : "", static_cast<int>(text.view().size()), text.view().data());
  }
  fputs("]\n", stderr);
  funlockfile(stderr);
}

void oil_dump(oil_list_t *oil) {
  if (oil == nullptr || !ruxo_log_stream_is_live(oil_debug_ls)) return;
  const SharedHold hold(&oil->lock);
  ruxo_log(oil_debug_ls, OIL_HEAD_FORMAT, OIL_HEAD_VALUES(oil));
  for (uint32_t i = 0; i < oil->size; ++i) {
    const oil_interval_t interval = interval_at(oil, i);
    if (i > 0) ruxo_log(oil_debug_ls, ",");
    ruxo_log(oil_debug_ls, "(%" PRIu32 ",%" PRIu32 ")", interval.first, interval.last);
  }
  ruxo_log(oil_debug_ls, "]\n");
}
