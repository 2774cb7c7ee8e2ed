// A node id that any thread may read while another replaces it: a reader gets the old or the new one, whole.
//
// The id is two 64-bit words under a count that is odd while they change. A reader that sees an odd count, or
// another one after the words than before, reads again. The words are stored with release and loaded with acquire
// order, so a reader that saw a new word also sees that the count has moved on.
#ifndef LIBORLITH_TOPO_SHARED_ID_PRIVATE_H
#define LIBORLITH_TOPO_SHARED_ID_PRIVATE_H

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "ruxo/uuid.h"

class TopoSharedId {
 public:
  void store(const uint8_t *id) noexcept {
    std::array<uint64_t, 2> words;
    memcpy(words.data(), id, RUXO_UUID_SIZE);
    const std::lock_guard one_writer(writers_);
    const uint32_t count = count_.load(std::memory_order_relaxed);
    count_.store(count + 1, std::memory_order_relaxed);
    for (size_t i = 0; i < words.size(); ++i) words_[i].store(words[i], std::memory_order_release);
    count_.store(count + 2, std::memory_order_release);
  }

  void load(uint8_t *out) const noexcept {
    std::array<uint64_t, 2> words;
    for (;;) {
      const uint32_t count = count_.load(std::memory_order_acquire);
      for (size_t i = 0; i < words.size(); ++i) words[i] = words_[i].load(std::memory_order_acquire);
      if (count % 2 == 0 && count_.load(std::memory_order_relaxed) == count) break;
    }
    memcpy(out, words.data(), RUXO_UUID_SIZE);
  }

 private:
  std::mutex writers_;
  std::atomic<uint32_t> count_{0};
  std::array<std::atomic<uint64_t>, 2> words_{};
};
static_assert(sizeof(std::array<uint64_t, 2>) == RUXO_UUID_SIZE);

#endif
