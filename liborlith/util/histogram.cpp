// Lists of histogram samples. What the entries of a list own is in the header.
#include "liborlith/util/histogram.h"

#include <cstdlib>
#include <cstring>

#include "liborlith/liborlith_fatal.h"
#include "ruxo/log.h"

namespace {

// Holds the caller's mutex, if there is one.
class MaybeLocked {
 public:
  explicit MaybeLocked(pthread_mutex_t *lock) : lock_(lock) {
    if (lock_ != nullptr) pthread_mutex_lock(lock_);
  }
  ~MaybeLocked() {
    if (lock_ != nullptr) pthread_mutex_unlock(lock_);
  }
  MaybeLocked(const MaybeLocked &) = delete;
  MaybeLocked &operator=(const MaybeLocked &) = delete;

 private:
  pthread_mutex_t *lock_;
};

histogram_entries_t *new_entry() {
  return static_cast<histogram_entries_t *>(calloc(1, sizeof(histogram_entries_t)));
}

// False, with `lost` on the error stream, when the list has a head but no tail.
bool append(histogram_data_t *list, histogram_entries_t *entry, pthread_mutex_t *lock, const char *caller,
            const char *lost) {
  const MaybeLocked locked(lock);
  if (list->head != nullptr && list->tail == nullptr) {
    ruxo_log(ruxo_error, "%s: %s\n", caller, lost);
    return false;
  }
  if (list->head == nullptr) {
    list->head = entry;
  } else {
    list->tail->next = entry;
  }
  list->tail = entry;
  ++list->count;
  return true;
}

const char *null_or_not(const void *pointer) {
  return pointer != nullptr ? "not null" : "null";
}

}  // namespace

extern "C" int add_histogram_to_list(histogram_data_t *list, uint64_t rawtime,
                                     orlith_metric_locator_t *metric_locator, metric_value_t *value,
                                     int cumulative, pthread_mutex_t *lock) {
  liborlith_assert(list != NULL && metric_locator != NULL);
  histogram_entries_t *histogram = new_entry();
  liborlith_assert(histogram != NULL);
  histogram->metric_locator = orlith_metric_locator_ref(metric_locator);
  liborlith_assert(histogram->metric_locator != NULL);
  const bool has_text = value != nullptr && !value->is_null && value->storage.v_string != nullptr;
  if (has_text) {
    histogram->histogram = strdup(value->storage.v_string);
    liborlith_assert(histogram->histogram != NULL);
  }
  histogram->offset = rawtime;
  histogram->cumulative = cumulative;
  if (!append(list, histogram, lock, "add_histogram_to_list",
              "could not add histogram to list - head was not null, but tail somehow was")) {
    free_histogram_entry_chain(histogram);
    return 0;
  }
  if (value == nullptr) return 1;
  if (has_text) free(value->storage.v_string);
  value->storage.v_string = nullptr;
  value->is_null = true;
  return 1;
}

extern "C" int add_materialized_histogram_to_list(histogram_data_t *list, uint64_t rawtime,
                                                  orlith_metric_locator_t *metric_locator, histogram_t *value,
                                                  int cumulative, pthread_mutex_t *lock) {
  constexpr char kName[] = "add_materialized_histogram_to_list";
  if (list == nullptr || metric_locator == nullptr || value == nullptr) {
    ruxo_log(ruxo_error, "%s: couldn't add histogram - list %s, metric_locator %s, value %s\n", kName,
             null_or_not(list), null_or_not(metric_locator), null_or_not(value));
    return 0;
  }
  histogram_entries_t *histogram = new_entry();
  liborlith_assert(histogram);
  histogram->metric_locator = orlith_metric_locator_ref(metric_locator);
  liborlith_assert(histogram->metric_locator);
  histogram->materialized_histogram = value;
  histogram->offset = rawtime;
  histogram->cumulative = cumulative;
  // The wording is older than the check it stands for; it is kept because hosts search their logs for it.
  if (append(list, histogram, lock, kName, "couldn't add histogram - head was null, but tail was invalid"))
    return 1;
  histogram->materialized_histogram = nullptr;  // the caller's again
  free_histogram_entry_chain(histogram);
  return 0;
}

extern "C" void free_histogram_entry_chain(histogram_entries_t *entry) {
  while (entry != nullptr) {
    histogram_entries_t *prev = entry;
    entry = entry->next;
    orlith_metric_locator_deref(prev->metric_locator);
    free(prev->histogram);
    hist_free(prev->materialized_histogram);
    prev->materialized_histogram = nullptr;
    liborlith_assert(prev->arf == NULL);
    free(prev);
  }
}
