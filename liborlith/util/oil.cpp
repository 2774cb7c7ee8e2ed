// Interval lists: life, growth and look-ups. oil_put.cpp adds activity, oil_merge.cpp merges, oil_text.cpp
// prints.
#include "liborlith/util/oil.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/util/oil_private.h"

ruxo_log_stream_t oil_debug_ls = nullptr;
ruxo_log_stream_t oil_error_ls = nullptr;

static_assert(sizeof(oil_interval_t) == 8 && offsetof(oil_interval_t, last) == 4);
static_assert(sizeof(oil_list_t) == 24 && offsetof(oil_list_t, capacity) == 4 &&
              offsetof(oil_list_t, entries) == 8 && offsetof(oil_list_t, lock) == 16);

namespace liborlith {
namespace {

oil_interval_t *allocate_intervals(uint32_t count) noexcept {
  return static_cast<oil_interval_t *>(malloc(count * sizeof(oil_interval_t)));
}

// Most lists hold one interval for ever, some two; what outgrows that grows in steps of two cache lines.
uint32_t grown_capacity(uint32_t capacity) noexcept {
  if (capacity == 1) return 2;
  if (capacity == 2) return 8;
  if (capacity <= 8) return 16;
  return capacity + 16;
}

// Interval by interval: a seeker may be stretching the source's intervals meanwhile.
void copy_intervals(oil_interval_t *to, const oil_list_t *from, uint32_t count) noexcept {
  for (uint32_t i = 0; i < count; ++i) to[i] = interval_at(from, i);
}

}  // namespace

void oil_expand_locked(oil_list_t *oil, int64_t pos) noexcept {
  const uint32_t size = oil->size;
  const uint32_t hole = pos < 0 || pos > size ? size : static_cast<uint32_t>(pos);
  oil_interval_t *from = oil->entries;
  oil_interval_t *to = from;
  if (size >= oil->capacity) {
    oil->capacity = grown_capacity(oil->capacity);
    to = allocate_intervals(oil->capacity);
    if (hole > 0) memcpy(to, from, hole * sizeof(*to));
  }
  if (hole < size) memmove(to + hole + 1, from + hole, (size - hole) * sizeof(*to));
  if (to != from) {
    free(from);
    oil->entries = to;
  }
  store(oil->size, size + 1);
}

void oil_fill_last_locked(oil_list_t *oil, uint32_t first, uint32_t last) noexcept {
  oil_interval_t *slot = oil_last_locked(oil);
  if (slot == nullptr) {
    liborlith_fatal(oil_error_ls,
                    "[FATAL] Couldn't get oil_last_locked in oil_append_after_locked - oil->size = %d\n",
                    static_cast<int>(oil->size));
  }
  *slot = {first, last};
}

void oil_append_after_locked(oil_list_t *oil, uint32_t first, uint32_t last) noexcept {
  oil_expand_locked(oil, -1);
  oil_fill_last_locked(oil, first, last);
}

bool oil_find_locked(const oil_list_t *oil, uint32_t t, int *idx) noexcept {
  const auto answer = [idx](bool found, int64_t index) {
    *idx = static_cast<int>(index);
    return found;
  };
  const int64_t size = load(oil->size);
  if (size == 0) return answer(false, 0);
  // The ends come first: most questions are about the present, which the last interval answers.
  const oil_interval_t front = interval_at(oil, 0);
  if (t < front.first) return answer(false, -1);
  if (t <= front.last) return answer(true, 0);
  const oil_interval_t back = interval_at(oil, static_cast<uint32_t>(size - 1));
  if (t > back.last) return answer(false, size);
  if (t >= back.first) return answer(true, size - 1);
  int64_t low = 1;
  int64_t high = size - 2;
  while (low <= high) {
    const int64_t mid = (low + high) / 2;
    const oil_interval_t interval = interval_at(oil, static_cast<uint32_t>(mid));
    if (t < interval.first) {
      high = mid - 1;
    } else if (t > interval.last) {
      low = mid + 1;
    } else {
      return answer(true, mid);
    }
  }
  return answer(false, low - 1);
}

}  // namespace liborlith

using namespace liborlith;

void oil_lib_init(void) {
  static int once = 0;
  if (!first_call(once)) return;
  open_streams(oil_debug_ls, "debug/oil", oil_error_ls, "error/oil");
}

oil_list_t *oil_alloc(void) {
  return oil_alloc_cap(1);
}

oil_list_t *oil_alloc_cap(uint32_t cap) {
  auto *oil = static_cast<oil_list_t *>(malloc(sizeof(oil_list_t)));
  *oil = {0, cap, allocate_intervals(cap), 0};
  return oil;
}

void oil_free(oil_list_t *oil) {
  if (oil == nullptr) return;
  pl_take_shared(&oil->lock);
  free(oil->entries);
  free(oil);
}

oil_list_t *oil_clone(oil_list_t *oil) {
  if (oil == nullptr) return oil_alloc();
  // Allocated before the lock is taken: only a list that grows meanwhile costs an allocation under it.
  oil_list_t *copy = oil_alloc_cap(load(oil->size));
  const SharedHold hold(&oil->lock);
  const uint32_t size = load(oil->size);
  if (size != copy->capacity) {
    free(copy->entries);
    copy->entries = allocate_intervals(size);
    copy->capacity = size;
  }
  copy_intervals(copy->entries, oil, size);
  copy->size = size;
  return copy;
}

uint32_t oil_size(oil_list_t *oil) {
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  return oil->size;
}

uint32_t oil_capacity(oil_list_t *oil) {
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  return oil->capacity;
}

int oil_epoch_apoc(oil_list_t *oil, uint32_t *epoch, uint32_t *apocalypse) {
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  if (oil->size == 0) return 0;
  if (epoch != nullptr) *epoch = load(oil->entries[0].first);
  if (apocalypse != nullptr) *apocalypse = load(oil->entries[oil->size - 1].last);
  return 1;
}

int oil_find(oil_list_t *oil, uint32_t t, int *idx) {
  int unwanted;
  int *index = idx != nullptr ? idx : &unwanted;
  *index = 0;
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  return oil_find_locked(oil, t, index) ? 1 : 0;
}

int oil_range_contains(oil_list_t *oil, uint32_t a, uint32_t b, int *idx) {
  int unwanted;
  int *index = idx != nullptr ? idx : &unwanted;
  *index = 0;
  if (oil == nullptr) return 0;
  const SharedHold hold(&oil->lock);
  const bool found = oil_find_locked(oil, a, index);
  if (a > b || oil->size == 0) return 0;
  if (found) return 1;
  // Not in one itself, `a` shares a time with the next interval if that begins by `b`.
  const int64_t next = int64_t{*index} + 1;
  if (next >= int64_t{oil->size} || load(oil->entries[next].first) > b) return 0;
  *index = static_cast<int>(next);
  return 1;
}

int oil_exact_match(oil_list_t *a, oil_list_t *b) {
  // Also because a second shared lock on the same list could wait for a writer that waits for the first.
  if (a == b) return 1;
  const SharedHold hold_a(a != nullptr ? &a->lock : nullptr);
  const SharedHold hold_b(b != nullptr ? &b->lock : nullptr);
  const uint32_t size_a = a != nullptr ? a->size : 0;
  const uint32_t size_b = b != nullptr ? b->size : 0;
  if (size_a != size_b) return 0;
  for (uint32_t i = 0; i < size_a; ++i) {
    const oil_interval_t in_a = interval_at(a, i);
    const oil_interval_t in_b = interval_at(b, i);
    if (in_a.first != in_b.first || in_a.last != in_b.last) return 0;
  }
  return 1;
}

int oil_valid(oil_list_t *oil) {
  if (oil == nullptr) return 1;
  const SharedHold hold(&oil->lock);
  if (oil->size > oil->capacity) return 0;
  oil_interval_t previous = {0, 0};
  for (uint32_t i = 0; i < oil->size; ++i) {
    const oil_interval_t interval = interval_at(oil, i);
    if (interval.last < interval.first) return 0;
    if (interval.last < previous.last || interval.first < previous.first) return 0;
    previous = interval;
  }
  return 1;
}

void oil_iter(oil_list_t *oil, oil_iter_f fn, void *closure) {
  if (oil == nullptr) return;
  const SharedHold hold(&oil->lock);
  const uint32_t size = oil->size;
  for (uint32_t i = 0; i < size; ++i) {
    const oil_interval_t interval = interval_at(oil, i);
    fn(closure, i, size, interval.first, interval.last);
  }
}

void PRV_oil_expand(oil_list_t *oil, int pos) {
  pl_take_write(&oil->lock);
  oil_expand_locked(oil, pos);
  pl_drop_write(&oil->lock);
}
