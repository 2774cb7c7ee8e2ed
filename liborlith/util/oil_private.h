// What the sources of the interval list share, and what its tests reach behind the public functions.
//
// `_locked` functions are called with the lock that their comment names, and never take one.
#ifndef LIBORLITH_UTIL_OIL_PRIVATE_H
#define LIBORLITH_UTIL_OIL_PRIVATE_H

#include "liborlith/util/oil.h"
#include "liborlith/util/oil_lock_private.h"

namespace liborlith {

// A seeker stretches intervals while readers look on, and oil_clone looks at a size without any lock, so
// these fields are read and stored as single relaxed atomic words: each reader sees the old or the new one.
inline uint32_t load(const uint32_t &field) noexcept {
  return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
inline void store(uint32_t &field, uint32_t value) noexcept {
  __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

// Times are compared in 64 bits wherever something is added to them, so that an interval that ends near 2^32
// is not taken for one that ends near 0.
using wide_t = uint64_t;

// A copy of interval i (shared lock).
inline oil_interval_t interval_at(const oil_list_t *oil, uint32_t i) noexcept {
  return {load(oil->entries[i].first), load(oil->entries[i].last)};
}

// The last interval, null when there is none (shared lock).
inline oil_interval_t *oil_last_locked(oil_list_t *oil) noexcept {
  const uint32_t size = load(oil->size);
  return size == 0 ? nullptr : &oil->entries[size - 1];
}

// oil_find on a list that is not null (shared lock); idx is not null.
bool oil_find_locked(const oil_list_t *oil, uint32_t t, int *idx) noexcept;

// Makes room for one interval at index `pos`, -1 or the size meaning the end (write lock). The caller fills
// it.
void oil_expand_locked(oil_list_t *oil, int64_t pos) noexcept;

// Appends an interval (write lock).
void oil_append_after_locked(oil_list_t *oil, uint32_t first, uint32_t last) noexcept;

// The second half of an append: fills the slot that growing has opened. Fatal when there is none (write
// lock).
void oil_fill_last_locked(oil_list_t *oil, uint32_t first, uint32_t last) noexcept;

// The write lock of a put: taken as an upgrade of the seek lock at the first need, or held from the start.
class WriteUpgrade {
 public:
  enum class Held { seek, write };
  WriteUpgrade(uint64_t *lock, Held held) noexcept : lock_(lock), excludes_readers_(held == Held::write) {}
  ~WriteUpgrade() {
    if (upgraded_) pl_drop_upgrade(lock_);
  }
  WriteUpgrade(const WriteUpgrade &) = delete;
  WriteUpgrade &operator=(const WriteUpgrade &) = delete;

  void need() noexcept {
    if (excludes_readers_) return;
    pl_take_upgrade(lock_);
    excludes_readers_ = upgraded_ = true;
  }

 private:
  uint64_t *lock_;
  bool excludes_readers_;
  bool upgraded_ = false;
};

// oil_put with the seek or the write lock held, as `write` says. 1 if the list changed, else 0.
int oil_put_locked(oil_list_t *oil, uint32_t first, uint32_t last, WriteUpgrade &write) noexcept;

}  // namespace liborlith

// Opens a slot at `pos` under the write lock. The slot's contents are undefined, and readers see them from
// the moment this returns: for tests only.
extern "C" void PRV_oil_expand(oil_list_t *oil, int pos);

#endif
