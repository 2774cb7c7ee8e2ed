// Adding activity to an interval list.
//
// A put is one of three things, from the most to the least common:
//   - it continues the last interval (or begins a new one after it);
//   - it lies wholly in one gap, or before everything: an insertion;
//   - it covers gaps between intervals that exist: a walk that closes them by moving starts down. The array
//     keeps its length; neighbours that now touch stay two entries, which spares the readers a moved array.
#include <algorithm>

#include "liborlith/util/oil_private.h"

namespace liborlith {
namespace {

// An addition of the tolerance to a `last` at most this high stays below 2^32.
constexpr uint32_t highest_extendable_last = 0xFFFFFF9E;

struct Range {
  uint32_t first;
  uint32_t last;
};

// Places `range` after interval i, which may be -1 (write lock). Always changes the list: returns 1.
int oil_insert_at_locked(oil_list_t *oil, Range range, int64_t i) noexcept {
  oil_interval_t *previous = i >= 0 ? &oil->entries[i] : nullptr;
  oil_interval_t *next = i + 1 < int64_t{oil->size} ? &oil->entries[i + 1] : nullptr;
  const auto [first, last] = range;

  // A range that comes near the next interval reaches up to it.
  const uint32_t end =
      next != nullptr && next->first <= wide_t{last} + OIL_TOLERANCE ? next->first - 1 : last;
  // Above the bound an interval is not stretched but followed by another: lists that were written so exist.
  if (previous != nullptr && previous->last <= highest_extendable_last &&
      previous->last + OIL_TOLERANCE > first) {
    store(previous->last, end);
    return 1;
  }
  if (next != nullptr && (wide_t{first} + OIL_TOLERANCE > next->first ||
                          (wide_t{end} + 1 >= next->first && next->last >= end))) {
    store(next->first, first);
    return 1;
  }
  // A walk that ends at an interval above the bound hands over a range that may have begun before that
  // interval. Stored as it came, the new interval would begin before its neighbour, and the order that oil_valid
  // promises and oil_find searches by would be lost. Order wins over keeping the range's own start: the walk has
  // closed everything from there up to the neighbour, so beginning with it leaves out no time (tests:
  // OilPut.NearTheEndOfTime*).
  const uint32_t begin = previous != nullptr ? std::max(first, previous->first) : first;
  oil_expand_locked(oil, i + 1);
  oil->entries[i + 1] = {begin, end};
  return 1;
}

// Where a walk stands: the current interval, and the first time that is not known to be covered yet. The
// latter is wide, since nothing at all is left uncovered after an interval that ends at 2^32 - 1.
struct Walk {
  int64_t current;
  wide_t uncovered;
};

bool begins_by(const oil_list_t *oil, int64_t i, wide_t time) noexcept {
  return i < int64_t{oil->size} && load(oil->entries[i].first) <= time;
}

// Steps onto interval i, which is now covered up to its end; onto the one after it when that follows without
// a gap.
Walk stand_on(const oil_list_t *oil, int64_t i) noexcept {
  const wide_t uncovered = wide_t{load(oil->entries[i].last)} + 1;
  return {begins_by(oil, i + 1, uncovered) ? i + 1 : i, uncovered};
}

// Moves a start down to `first`; true if it moved. Readers may look on: they see the old or the new start.
bool lower_first(oil_interval_t &interval, wide_t first) noexcept {
  if (load(interval.first) <= first) return false;
  store(interval.first, static_cast<uint32_t>(first));
  return true;
}

// Closes the gaps that `range` covers, from where the walk stands.
int cover_gaps_locked(oil_list_t *oil, Range range, Walk walk, bool changed, WriteUpgrade &write) noexcept {
  const int64_t size = oil->size;
  for (;;) {
    const uint32_t current_last = load(oil->entries[walk.current].last);
    if (range.last <= current_last || range.last < walk.uncovered) return changed ? 1 : 0;
    const int64_t next = walk.current + 1;
    if (next >= size || load(oil->entries[next].first) > wide_t{range.last} + OIL_TOLERANCE + 1) {
      write.need();
      return oil_insert_at_locked(oil, range, walk.current);
    }
    changed |= lower_first(oil->entries[next], std::max(walk.uncovered, wide_t{current_last} + 1));
    walk = stand_on(oil, next);
  }
}

// A put that begins before the last interval does.
int put_before_last_locked(oil_list_t *oil, Range range, WriteUpgrade &write) noexcept {
  int at_first = 0;
  int at_last = 0;
  const bool first_inside = oil_find_locked(oil, range.first, &at_first);
  const bool last_inside = oil_find_locked(oil, range.last, &at_last);
  if (first_inside && range.last <= oil->entries[at_first].last) return 0;
  if (!first_inside && !last_inside && at_first == at_last) {
    write.need();
    return oil_insert_at_locked(oil, range, at_first);
  }
  if (at_first >= 0) return cover_gaps_locked(oil, range, {at_first, range.first}, false, write);
  // The range begins before everything and reaches into it.
  lower_first(oil->entries[0], range.first);
  return cover_gaps_locked(oil, range, stand_on(oil, 0), true, write);
}

bool means_something(uint32_t first, uint32_t last) noexcept {
  return first <= last && last != 0;
}

}  // namespace

int oil_put_locked(oil_list_t *oil, uint32_t first, uint32_t last, WriteUpgrade &write) noexcept {
  if (!means_something(first, last)) return 0;
  oil_interval_t *back = oil_last_locked(oil);
  if (back == nullptr || first > wide_t{back->last} + OIL_TOLERANCE) {
    write.need();
    oil_append_after_locked(oil, first, last);
    return 1;
  }
  if (first < back->first) return put_before_last_locked(oil, {first, last}, write);
  if (last <= back->last) return 0;
  store(back->last, last);
  return 1;
}

}  // namespace liborlith

using namespace liborlith;

int oil_put(oil_list_t *oil, uint32_t first, uint32_t last) {
  if (oil == nullptr) return 0;
  pl_take_seek(&oil->lock);
  int changed;
  {
    WriteUpgrade write(&oil->lock, WriteUpgrade::Held::seek);
    changed = oil_put_locked(oil, first, last, write);
  }
  pl_drop_seek(&oil->lock);
  return changed;
}
