/* Histogram lines (doc/histogram-line.md) and the lists in which the samples they carry are collected.
 *
 * A line gives a time, a metric locator of type histogram and a value, whose text is the histogram in base64.
 * The list keeps samples in the order in which they were added. Its structures are open, since later stages of
 * a host walk them and fill in fields of their own; what is here sets only the fields that are named below.
 *
 * Times are milliseconds since the Unix epoch. Running out of memory is a negative code where a line is
 * decoded, and fatal where an entry is added. */
#ifndef LIBORLITH_UTIL_HISTOGRAM_H
#define LIBORLITH_UTIL_HISTOGRAM_H

#include <pthread.h>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_value.h"
#include "ruxo/base.h"
#include "vaskllhist/vaskllhist.h"

RUXO_BEGIN_DECLS

/* One sample. Made by the add calls below, zero in every field that they do not name. */
typedef struct histogram_entries histogram_entries_t;
struct histogram_entries {
  uint64_t offset;                         /* the sample's time, as the caller gave it */
  int cumulative;                          /* the caller's flag */
  orlith_metric_locator_t *metric_locator; /* one reference, the entry's */
  char *histogram;                         /* base64, NUL-terminated, from malloc, the entry's; or null */
  histogram_t *materialized_histogram;     /* the entry's; or null */
  int32_t account_id;                      /* the host's */
  void *arf;                               /* the host's, who clears it before the entry is freed */
  histogram_entries_t *next;               /* null in the last entry */
  uint64_t surrogate_value;                /* this and the rest: the host's, not freed here */
  ruxo_boolean is_local;
  int target_count;
  void *targets;
};

/* A list of samples; all zero is an empty one. Invariant: `head` and `tail` are both null or both not, `tail`
 * is reached from `head` by `next`, and `count` entries stand between them, both included. */
typedef struct histogram_data {
  uint64_t count;
  histogram_entries_t *head;
  histogram_entries_t *tail;
} histogram_data_t;

/* Reads one line, NUL-terminated, fields separated by single TABs, and any bytes in them:
 *   record <TAB> source <TAB> timestamp <TAB> check <TAB> name <TAB> histogram
 * and without the source field when is_bundled_line is true. Reads `line` only during the call.
 *
 * Result 1: *rawtime and value->whence_ms are the time, *metric_locator is a new locator (one reference, the
 * caller's), and value->type is ORLITH_METRIC_STRING. The value's text is a copy of the whole last field, with
 * the newlines at its end, from malloc and the caller's. It has been decoded once, without those newlines, to
 * see that it can be. A text that cannot, and an empty one, give a null value: the sample is kept, the text is
 * not, and "Failed to deserialize histogram: |%s|\n" is on the framework's error stream (not for an empty
 * text). Other results:
 *   -1  no timestamp field                      -6  the check field is below 36 bytes
 *   -2  no TAB after the timestamp              -7  its last 36 bytes are no UUID (logged)
 *   -3  no TAB after the check field            -8  the name is refused (logged)
 *   -4  no TAB after the name                   -9  memory ran out
 * The lines of -7 and -8, "ruxo_uuid_parse(%s) failed\n" and "metric_name_v1_parse(%.*s) failed\n", are on the
 * framework's error stream; -5 is not used. A failure leaves *metric_locator as it was and *value owning
 * nothing; *rawtime and value->whence_ms are set on all but -1 and -2.
 *
 * `cid_str` (may be null) receives the check field as soon as its UUID has been read: as much of it as fits into
 * `cid_str_len` bytes together with a NUL; with a length of 0 nothing is written. The account of the locator is
 * looked for in that copy: it is the number after the first "`c_", when the check field is longer than a UUID.
 * Without a buffer the account is therefore 0, and a buffer that is too short can hide or cut it. A buffer of
 * the line's length is always enough.
 *
 * Any thread. */
RUXO_EXPORT int decode_histogram_string(const char *line, uint64_t *rawtime,
                                        orlith_metric_locator_t **metric_locator, metric_value_t *value,
                                        bool is_bundled_line, char *cid_str, size_t cid_str_len);

/* Appends a sample with a copy of the value's text (none for a null value, or for a null `value`). `list` and
 * `metric_locator` must not be null; the locator is borrowed, the entry takes a reference of its own.
 *
 * Result 1: the value has given up its text: freed, the pointer null, is_null true. Result 0, when the list has a
 * head but no tail: "%s: could not add histogram to list - head was not null, but tail somehow was\n" is on
 * the framework's error stream, list and value are as before.
 *
 * `lock` is held while the list is looked at and changed; null when the caller has exclusive access. Any thread
 * that holds to that. */
RUXO_EXPORT int add_histogram_to_list(histogram_data_t *list, uint64_t rawtime,
                                      orlith_metric_locator_t *metric_locator, metric_value_t *value,
                                      int cumulative, pthread_mutex_t *lock);

/* Appends a sample that is decoded already. Result 1: `value` belongs to the entry. Result 0, and `value` stays
 * with the caller: one of the three pointers is null ("%s: couldn't add histogram - list %s, metric_locator %s,
 * value %s\n" on the framework's error stream, with "not null" or "null" for each), or the list has a head but
 * no tail ("%s: couldn't add histogram - head was null, but tail was invalid\n", a wording that hosts search
 * for although the head is what is set). Locator, `lock` and threads as above. */
RUXO_EXPORT int add_materialized_histogram_to_list(histogram_data_t *list, uint64_t rawtime,
                                                   orlith_metric_locator_t *metric_locator,
                                                   histogram_t *value, int cumulative, pthread_mutex_t *lock);

/* Frees `entry` and all that follow it, each with its locator reference, its text and its decoded histogram;
 * null does nothing. An entry whose `arf` is not null is fatal. A list whose entries are freed is set to zero by
 * the caller. The caller has exclusive access. */
RUXO_EXPORT void free_histogram_entry_chain(histogram_entries_t *entry);

RUXO_END_DECLS

#endif
