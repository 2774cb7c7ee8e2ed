// The lock word of an interval list: a progressive lock, which lets one thread look for the place to write
// while others still read, and excludes them only when the array changes shape.
//
// The 64-bit word is a sum:
//   0x000000004 per shared holder (the count lives above the two low bits, in the low 32 bits),
//   0x100000000 per seek holder (one: it excludes seekers and writers, and lets readers in),
//   0x400000000 per write holder.
// A holder of seek also counts as shared, and a direct writer as all three. Whoever finds the word taken has
// already added its own part, so it takes that back before it waits: the word may briefly show more seekers
// than one, and enough of them at once (four) look like a writer to a reader, which then waits a moment too.
// Nothing is lost: every such addition is undone, and nobody decides on a sum that includes its own.
//
// Orders: taking acquires, releasing releases. All changes are read-modify-writes, so a taker synchronises
// with every release before it, also through the failed attempts of others.
#ifndef LIBORLITH_UTIL_OIL_LOCK_PRIVATE_H
#define LIBORLITH_UTIL_OIL_LOCK_PRIVATE_H

#include <ck_pr.h>
#include <sched.h>

#include <cstdint>

namespace liborlith {

constexpr uint64_t pl_shared = 0x4;
constexpr uint64_t pl_seek = 0x100000004;
constexpr uint64_t pl_upgrade = 0x400000000;
constexpr uint64_t pl_write = 0x500000004;
static_assert(pl_write == pl_seek + pl_upgrade);

constexpr uint64_t pl_shared_count_bits = 0x00000000FFFFFFFC;
constexpr uint64_t pl_write_bits = 0xFFFFFFFC00000000;
constexpr uint64_t pl_seek_or_write_bits = 0xFFFFFFFF00000000;

// Called once in each round of a wait. Yields now and then, since the holder may need this very processor.
inline void pl_relax(unsigned &rounds) noexcept {
  if (++rounds % 256 == 0) {
    sched_yield();
  } else {
    ck_pr_stall();
  }
}

// Spins until the bits in `mask` are clear in the word.
inline void pl_wait_unlock_long(const uint64_t *lock, uint64_t mask) noexcept {
  for (unsigned rounds = 0; (__atomic_load_n(lock, __ATOMIC_RELAXED) & mask) != 0;) pl_relax(rounds);
}

// Adds `part`, unless one of `excluding` was set before; the word is then as it was.
inline bool pl_try_add(uint64_t *lock, uint64_t part, uint64_t excluding, uint64_t *before) noexcept {
  *before = __atomic_fetch_add(lock, part, __ATOMIC_ACQUIRE);
  if (__builtin_expect((*before & excluding) == 0, 1)) return true;
  __atomic_fetch_sub(lock, part, __ATOMIC_RELAXED);
  return false;
}

inline void pl_take_shared(uint64_t *lock) noexcept {
  uint64_t before;
  do {
    pl_wait_unlock_long(lock, pl_write_bits);
  } while (!pl_try_add(lock, pl_shared, pl_write_bits, &before));
}

inline void pl_drop_shared(uint64_t *lock) noexcept {
  __atomic_fetch_sub(lock, pl_shared, __ATOMIC_RELEASE);
}

inline void pl_take_seek(uint64_t *lock) noexcept {
  uint64_t before;
  while (!pl_try_add(lock, pl_seek, pl_seek_or_write_bits, &before)) {
    pl_wait_unlock_long(lock, pl_seek_or_write_bits);
  }
}

inline void pl_drop_seek(uint64_t *lock) noexcept {
  __atomic_fetch_sub(lock, pl_seek, __ATOMIC_RELEASE);
}

// Holding seek: waits until the upgrader's own shared count is the only one left.
inline void pl_take_upgrade(uint64_t *lock) noexcept {
  __atomic_fetch_add(lock, pl_upgrade, __ATOMIC_ACQUIRE);
  for (unsigned rounds = 0; (__atomic_load_n(lock, __ATOMIC_ACQUIRE) & pl_shared_count_bits) != pl_shared;) {
    pl_relax(rounds);
  }
}

inline void pl_drop_upgrade(uint64_t *lock) noexcept {
  __atomic_fetch_sub(lock, pl_upgrade, __ATOMIC_RELEASE);
}

inline void pl_take_write(uint64_t *lock) noexcept {
  uint64_t before;
  while (!pl_try_add(lock, pl_write, pl_seek_or_write_bits, &before)) {
    pl_wait_unlock_long(lock, pl_seek_or_write_bits);
  }
  if (before == 0) return;
  for (unsigned rounds = 0; __atomic_load_n(lock, __ATOMIC_ACQUIRE) != pl_write;) pl_relax(rounds);
}

inline void pl_drop_write(uint64_t *lock) noexcept {
  __atomic_fetch_sub(lock, pl_write, __ATOMIC_RELEASE);
}

// Holds the shared lock of a list while in scope; a null word is allowed.
class SharedHold {
 public:
  explicit SharedHold(uint64_t *lock) noexcept : lock_(lock) {
    if (lock_ != nullptr) pl_take_shared(lock_);
  }
  ~SharedHold() {
    if (lock_ != nullptr) pl_drop_shared(lock_);
  }
  SharedHold(const SharedHold &) = delete;
  SharedHold &operator=(const SharedHold &) = delete;

 private:
  uint64_t *lock_;
};

}  // namespace liborlith

#endif
