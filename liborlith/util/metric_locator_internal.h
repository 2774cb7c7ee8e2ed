// The structure behind a metric locator, its last values, and the two locks that guard its activity intervals
// and its last values.
#ifndef LIBORLITH_UTIL_METRIC_LOCATOR_INTERNAL_H
#define LIBORLITH_UTIL_METRIC_LOCATOR_INTERNAL_H

// Only the one lock: ck_spinlock.h as a whole does not compile as C++.
#include <spinlock/fas.h>

#include <cstddef>
#include <cstdint>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/oil.h"
#include "liborlith/util/oil_lock_private.h"  // pl_relax

// Last values: allocated zero-filled (calloc) on first use, owned by the locator, freed by its final deref.
// A holder's fields change under last_update_lock only. Times never decrease, and are read without the lock by
// updates that may be stale: they and the pointers to the holders are stored and read as atomic words.

struct last_two_numeric_t {
  uint64_t whence_ms[2];  // [0] the older value, [1] the newer one
  orlith_metric_locator_numeric_value_t value[2];
  uint8_t type[2];
};

struct last_text_t {
  uint64_t whence_ms;
  char *value;  // NUL-terminated, from ruxo_memory_safe_strdup; may be null
};

struct last_hist_t {
  uint64_t whence_ms;
  char *serialized_value;  // base64 text, from ruxo_memory_safe_strdup; may be null
};

// Threads: `immutable` and what it points to may be read without locks. ref_cnt changes only atomically.
// activity_oil is guarded by activity_oil_lock, the last values by last_update_lock. The other fields are set
// before sharing.
struct orlith_metric_locator {
  oil_list_t *activity_oil;    // null until the first activity; five-minute periods
  last_two_numeric_t *last_n;  // each null until the first update of its kind
  last_text_t *last_t;
  last_hist_t *last_h;
  int32_t account_id;
  uint32_t ref_cnt;
  ck_spinlock_fas_t last_update_lock;
  int32_t activity_oil_lock;
  orlith_metric_locator_metric_type_e type;
  metrics_db_egress_function_e egress_function;
  bool canonical_copy;
  orlith_metric_locator_immutable_data_t *immutable;
};

// Hosts and the image of a locator in memory depend on these places.
static_assert(sizeof(orlith_metric_locator) == 64 && offsetof(orlith_metric_locator, immutable) == 56);
static_assert(sizeof(orlith_metric_locator_immutable_data) == 72);
static_assert(sizeof(orlith_metric_locator_numeric_value_t) == 8 && sizeof(last_two_numeric_t) == 40);

// The activity lock: a 32-bit word that is the sum of 4 per shared holder and 0x50004 per exclusive holder. A
// writer announces itself by its addition and then waits for the readers to leave; a reader that sees a
// writer's bits takes its addition back. Not recursive, not fair; held for a few instructions.
namespace activity_lock {

constexpr uint32_t kShared = 4;
constexpr uint32_t kExclusive = 0x50004;
constexpr uint32_t kWriterBits = 0xFFFC0000;     // from 0x40000 up: a writer holds or is taking the lock
constexpr uint32_t kAnnouncedBits = 0xFFFF0000;  // from 0x10000 up: writers exclude each other

inline uint32_t load(const int32_t *word) noexcept {
  return static_cast<uint32_t>(__atomic_load_n(word, __ATOMIC_ACQUIRE));
}
inline uint32_t add(int32_t *word, uint32_t amount) noexcept {
  return static_cast<uint32_t>(__atomic_fetch_add(word, static_cast<int32_t>(amount), __ATOMIC_ACQ_REL));
}
inline void subtract(int32_t *word, uint32_t amount) noexcept {
  __atomic_fetch_sub(word, static_cast<int32_t>(amount), __ATOMIC_ACQ_REL);
}
inline void wait_until_clear(const int32_t *word, uint32_t mask) noexcept {
  for (unsigned rounds = 0; (load(word) & mask) != 0;) liborlith::pl_relax(rounds);
}

inline void lock_shared(int32_t *word) noexcept {
  for (;;) {
    wait_until_clear(word, kWriterBits);
    if (add(word, kShared) < 0x40000) return;
    subtract(word, kShared);
  }
}
inline void unlock_shared(int32_t *word) noexcept {
  subtract(word, kShared);
}

inline void lock_exclusive(int32_t *word) noexcept {
  uint32_t before = 0;
  while ((before = add(word, kExclusive)) >= 0x10000) {
    subtract(word, kExclusive);
    wait_until_clear(word, kAnnouncedBits);
  }
  if (before == 0) return;
  for (unsigned rounds = 0; load(word) != kExclusive;) liborlith::pl_relax(rounds);
}
inline void unlock_exclusive(int32_t *word) noexcept {
  subtract(word, kExclusive);
}

class SharedGuard {
 public:
  explicit SharedGuard(int32_t *word) noexcept : word_(word) { lock_shared(word_); }
  ~SharedGuard() { unlock_shared(word_); }
  SharedGuard(const SharedGuard &) = delete;
  SharedGuard &operator=(const SharedGuard &) = delete;

 private:
  int32_t *word_;
};

class ExclusiveGuard {
 public:
  explicit ExclusiveGuard(int32_t *word) noexcept : word_(word) { lock_exclusive(word_); }
  ~ExclusiveGuard() { unlock_exclusive(word_); }
  ExclusiveGuard(const ExclusiveGuard &) = delete;
  ExclusiveGuard &operator=(const ExclusiveGuard &) = delete;

 private:
  int32_t *word_;
};

}  // namespace activity_lock

// The last-value lock: a fetch-and-store spin lock, 1 while held. The word and the protocol are those of the type's
// own functions, whose assembly the thread sanitizer cannot see. Held for a few stores, never while allocating.
namespace last_update_lock {

inline bool try_lock(ck_spinlock_fas_t *lock) noexcept {
  return __atomic_exchange_n(&lock->value, 1U, __ATOMIC_ACQUIRE) != 1;
}
inline void wait_until_free(const ck_spinlock_fas_t *lock) noexcept {
  for (unsigned rounds = 0; __atomic_load_n(&lock->value, __ATOMIC_RELAXED) == 1;)
    liborlith::pl_relax(rounds);
}
inline void lock(ck_spinlock_fas_t *lock) noexcept {
  while (__builtin_expect(!try_lock(lock), 0)) wait_until_free(lock);
}
inline void unlock(ck_spinlock_fas_t *lock) noexcept {
  __atomic_store_n(&lock->value, 0U, __ATOMIC_RELEASE);
}

class Guard {
 public:
  explicit Guard(ck_spinlock_fas_t *lock) noexcept : lock_(lock) { last_update_lock::lock(lock_); }
  ~Guard() { unlock(lock_); }
  Guard(const Guard &) = delete;
  Guard &operator=(const Guard &) = delete;

 private:
  ck_spinlock_fas_t *lock_;
};

}  // namespace last_update_lock

#endif
