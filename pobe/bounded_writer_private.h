// Appends to a caller's buffer without ever leaving it, and counts what a large enough one would hold.
// Internal.
#ifndef POBE_BOUNDED_WRITER_PRIVATE_H
#define POBE_BOUNDED_WRITER_PRIVATE_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace pobe {

class BoundedWriter {
 public:
  BoundedWriter(char *out, size_t capacity) noexcept : out_(out), capacity_(capacity) {}

  void append(std::string_view bytes) noexcept {
    if (size_ < capacity_ && !bytes.empty())
      std::memcpy(out_ + size_, bytes.data(), std::min(bytes.size(), capacity_ - size_));
    size_ += bytes.size();
  }

  // Of everything appended, whether it fitted or not.
  size_t size() const noexcept { return size_; }

 private:
  char *out_;
  size_t capacity_;
  size_t size_ = 0;
};

}  // namespace pobe

#endif
