// A metric stream's last values: two numbers, a text, a histogram. Updates first compare times without the lock,
// since most late ones are stale, and decide under it. Replaced texts are freed after all reclamation sections
// that could still read them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"
#include "ruxo/memory.h"
#include "ruxo/uuid.h"
#include "vaskllhist/vaskllhist.h"

namespace {

using Locator = orlith_metric_locator_t;
using NumericValue = orlith_metric_locator_numeric_value_t;
using last_update_lock::Guard;

// Set at start-up; atomic because nothing keeps a host from setting them later.
uint64_t orlith_metric_locator_future_bound = std::numeric_limits<uint64_t>::max();
bool implicit_latest = false;

// ---- What updates and readers look at without the lock

uint64_t load_time(const uint64_t &whence_ms) {
  return __atomic_load_n(&whence_ms, __ATOMIC_RELAXED);
}
void store_time(uint64_t &whence_ms, uint64_t value) {
  __atomic_store_n(&whence_ms, value, __ATOMIC_RELAXED);
}
template <class Holder>
Holder *load_holder(Holder *const &holder) {
  return __atomic_load_n(&holder, __ATOMIC_ACQUIRE);
}

// The holder; a new one when there is none and either the caller or the process wants it. Checked again under the
// lock, for all kinds alike, so that first updates that race share one holder.
template <class Holder>
Holder *obtain_holder(Locator *loc, Holder *&place, bool instantiate) {
  Holder *holder = load_holder(place);
  if (holder != nullptr) return holder;
  if (!instantiate && !__atomic_load_n(&implicit_latest, __ATOMIC_RELAXED)) return nullptr;
  auto *fresh = static_cast<Holder *>(calloc(1, sizeof(Holder)));
  if (fresh == nullptr) return nullptr;
  {
    const Guard guard(&loc->last_update_lock);
    holder = place;
    if (holder == nullptr) __atomic_store_n(&place, fresh, __ATOMIC_RELEASE);
  }
  if (holder == nullptr) return fresh;
  free(fresh);
  return holder;
}

// ---- Numbers

void store_number(last_two_numeric_t *holder, int slot, uint64_t whence_ms, uint8_t type,
                  const NumericValue &v) {
  store_time(holder->whence_ms[slot], whence_ms);
  holder->value[slot] = v;
  holder->type[slot] = type;
}

// Under the lock.
void place_number(last_two_numeric_t *holder, uint64_t whence_ms, uint8_t type, const NumericValue &v) {
  const uint64_t newer = holder->whence_ms[1];
  if (whence_ms > newer) {
    store_number(holder, 0, newer, holder->type[1], holder->value[1]);
    store_number(holder, 1, whence_ms, type, v);
  } else if (whence_ms < newer && whence_ms >= holder->whence_ms[0]) {
    store_number(holder, 0, whence_ms, type, v);
  }
}

// -1 when `a` is later, 1 when `b` is.
int compare_times(uint64_t a, uint64_t b) {
  return (a < b) - (a > b);
}

// Under both locks.
int compare_numbers(const last_two_numeric_t *a, const last_two_numeric_t *b) {
  if (a == nullptr || b == nullptr) return (a == nullptr) - (b == nullptr);
  const int newer = compare_times(a->whence_ms[1], b->whence_ms[1]);
  return newer != 0 ? newer : compare_times(a->whence_ms[0], b->whence_ms[0]);
}

// The locks of two locators, `a` first. Threads that compare the same two in opposite orders would wait for each
// other if they held on to the first, so it is let go of while the second is taken.
class PairGuard {
 public:
  PairGuard(Locator *a, Locator *b) : a_(&a->last_update_lock), b_(&b->last_update_lock) {
    for (;;) {
      last_update_lock::lock(a_);
      if (last_update_lock::try_lock(b_)) return;
      last_update_lock::unlock(a_);
      last_update_lock::wait_until_free(b_);
    }
  }
  ~PairGuard() {
    last_update_lock::unlock(b_);
    last_update_lock::unlock(a_);
  }
  PairGuard(const PairGuard &) = delete;
  PairGuard &operator=(const PairGuard &) = delete;

 private:
  ck_spinlock_fas_t *a_;
  ck_spinlock_fas_t *b_;
};

// ---- Texts: the text itself, and a histogram in base64

char *&text_of(last_text_t *holder) {
  return holder->value;
}
char *&text_of(last_hist_t *holder) {
  return holder->serialized_value;
}

class Section {
 public:
  Section() { ruxo_memory_begin(); }
  ~Section() { ruxo_memory_end(); }
  Section(const Section &) = delete;
  Section &operator=(const Section &) = delete;
};

// Replaces the holder's text if `whence_ms` is still later than its time. The copy is made before the lock is taken
// and the old text given away after it is released: both may take long.
template <class Holder>
bool replace_text(Locator *loc, Holder *holder, uint64_t whence_ms, const char *text) {
  char *unused = nullptr;
  if (text != nullptr) {
    unused = ruxo_memory_safe_strdup(text);
    if (unused == nullptr) return false;  // no memory: what is held stays
  }
  bool is_later = false;
  {
    const Guard guard(&loc->last_update_lock);
    is_later = whence_ms > holder->whence_ms;
    if (is_later) {
      store_time(holder->whence_ms, whence_ms);
      std::swap(text_of(holder), unused);
    }
  }
  ruxo_memory_safe_free(unused);
  return is_later;
}

// The histogram that the text tells, or null.
histogram_t *decode_hist(const char *b64) {
  histogram_t *decoded = hist_alloc();
  if (decoded == nullptr) return nullptr;
  if (hist_deserialize_b64(decoded, b64, strlen(b64)) >= 0) return decoded;
  hist_free(decoded);
  return nullptr;
}

void report_undecodable(const Locator *loc) {
  char uuid[ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE];
  ruxo_uuid_unparse_lower(loc->immutable->check_uuid, uuid);
  ruxo_log(ml_error_ls, "%s: could not deserialize histogram for metric %s:%s\n",
           "orlith_metric_locator_last_hist", uuid, orlith_metric_locator_get_name_with_tags(loc));
}

// Copies time and text pointer; the caller is in a section that keeps the text.
template <class Holder>
void read_text(Locator *loc, Holder *holder, uint64_t *whence_ms, const char **text) {
  const Guard guard(&loc->last_update_lock);
  *whence_ms = holder->whence_ms;
  *text = text_of(holder);
}

void update_hist(Locator *loc, uint64_t whence_ms, const char *b64, bool instantiate,
                 ruxo_log_stream_t stream) {
  static constexpr char kFunction[] = "orlith_metric_locator_update_hist_withstream";
  const char *name = orlith_metric_locator_get_name_with_tags(loc);
  ruxo_log(stream, "%s: Update hist %s with %lu\n", kFunction, name, whence_ms);
  last_hist_t *holder = obtain_holder(loc, loc->last_h, instantiate);
  if (holder == nullptr) {
    // Without a newline, unlike all others: readers of this stream know the line so.
    ruxo_log(stream, "%s: Not updated %s with %lu, implicit and instantiate are both false", kFunction, name,
             whence_ms);
    return;
  }
  const Section section;
  if (whence_ms <= load_time(holder->whence_ms)) {
    ruxo_log(stream, "%s: %s not updated, whence %lu was not later\n", kFunction, name, whence_ms);
    return;
  }
  ruxo_log(stream, "%s: %s whence %lu seems later, going for lock\n", kFunction, name, whence_ms);
  if (!replace_text(loc, holder, whence_ms, b64)) return;
  ruxo_log(stream, "%s: %s whence %lu confirmed later, updating last time and value\n", kFunction, name,
           whence_ms);
}

}  // namespace

extern "C" void orlith_metric_locator_set_global_future_bound(uint64_t ms) {
  __atomic_store_n(&orlith_metric_locator_future_bound, ms, __ATOMIC_RELAXED);
}

extern "C" void orlith_metric_locator_set_global_implicit_latest(ruxo_boolean implicit) {
  __atomic_store_n(&implicit_latest, implicit, __ATOMIC_RELAXED);
}

extern "C" void orlith_metric_locator_update_numeric(Locator *loc, uint64_t whence_ms, uint8_t type,
                                                     const NumericValue *v, ruxo_boolean instantiate) {
  // The holder comes first: even an update that is then ignored makes it.
  last_two_numeric_t *holder = obtain_holder(loc, loc->last_n, instantiate);
  if (holder == nullptr) return;
  if (whence_ms > __atomic_load_n(&orlith_metric_locator_future_bound, __ATOMIC_RELAXED)) return;
  const uint64_t newer = load_time(holder->whence_ms[1]);
  if (whence_ms == newer || (whence_ms < newer && whence_ms <= load_time(holder->whence_ms[0]))) return;
  const Guard guard(&loc->last_update_lock);
  place_number(holder, whence_ms, type, *v);
}

extern "C" int orlith_metric_locator_last2_numeric(Locator *loc, uint64_t whence_ms[2], uint8_t type[2],
                                                   NumericValue value[2]) {
  const last_two_numeric_t *holder = load_holder(loc->last_n);
  if (holder == nullptr) return 0;
  const Guard guard(&loc->last_update_lock);
  for (int i = 0; i < 2; ++i) {
    whence_ms[i] = holder->whence_ms[i];
    type[i] = holder->type[i];
    value[i] = holder->value[i];
  }
  return 1;
}

extern "C" int orlith_metric_locator_compare_last2_numeric(Locator *a, Locator *b) {
  if (a == b) return 0;
  const PairGuard guard(a, b);
  return compare_numbers(a->last_n, b->last_n);
}

extern "C" void orlith_metric_locator_update_text(Locator *loc, uint64_t whence_ms, const char *text,
                                                  ruxo_boolean instantiate) {
  last_text_t *holder = obtain_holder(loc, loc->last_t, instantiate);
  if (holder == nullptr) return;
  const Section section;
  if (whence_ms <= load_time(holder->whence_ms)) return;
  replace_text(loc, holder, whence_ms, text);
}

extern "C" int orlith_metric_locator_last_text(Locator *loc, uint64_t *whence_ms, const char **text) {
  last_text_t *holder = load_holder(loc->last_t);
  if (holder == nullptr) return 0;
  liborlith_assert(ruxo_memory_in_cs());
  read_text(loc, holder, whence_ms, text);
  return 1;
}

extern "C" void orlith_metric_locator_update_hist_withstream(Locator *loc, uint64_t whence_ms,
                                                             const char *b64, ruxo_boolean instantiate,
                                                             ruxo_log_stream_t stream) {
  update_hist(loc, whence_ms, b64, instantiate, stream);
}

extern "C" void orlith_metric_locator_update_hist(Locator *loc, uint64_t whence_ms, const char *b64,
                                                  ruxo_boolean instantiate) {
  update_hist(loc, whence_ms, b64, instantiate, ml_debug_ls);
}

extern "C" int orlith_metric_locator_last_hist_b64(Locator *loc, uint64_t *whence_ms, const char **b64) {
  last_hist_t *holder = load_holder(loc->last_h);
  if (holder == nullptr) {
    ruxo_log(ml_debug_ls, "Last hist b64, metric %s, no last found\n",
             orlith_metric_locator_get_name_with_tags(loc));
    return 0;
  }
  liborlith_assert(ruxo_memory_in_cs());
  read_text(loc, holder, whence_ms, b64);
  return 1;
}

extern "C" int orlith_metric_locator_last_hist(Locator *loc, uint64_t *whence_ms, histogram_t **out) {
  last_hist_t *holder = load_holder(loc->last_h);
  if (holder == nullptr) {
    ruxo_log(ml_debug_ls, "Last hist, metric %s, no last found\n",
             orlith_metric_locator_get_name_with_tags(loc));
    return 0;
  }
  const Section section;  // keeps the text while it is decoded, without the lock
  const char *b64 = nullptr;
  read_text(loc, holder, whence_ms, &b64);
  *out = b64 == nullptr ? nullptr : decode_hist(b64);
  if (*out != nullptr || b64 == nullptr) return 1;
  report_undecodable(loc);
  return 0;
}

extern "C" orlith_metric_locator_metric_type_e orlith_metric_locator_last_missing(const Locator *loc) {
  unsigned missing = 0;
  if (load_holder(loc->last_n) == nullptr) missing |= METRIC_TYPE_NUMERIC;
  if (load_holder(loc->last_h) == nullptr) missing |= METRIC_TYPE_HISTOGRAM;
  if (load_holder(loc->last_t) == nullptr) missing |= METRIC_TYPE_TEXT;
  return static_cast<orlith_metric_locator_metric_type_e>(loc->type & missing);
}
