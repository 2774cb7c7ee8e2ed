/* Typed ingestion values, the "M" line they arrive in (doc/m-line.md), the change between two samples, and
 * the folding of samples into rollup slots.
 *
 * Times are milliseconds since the Unix epoch unless a name says otherwise. Values are plain structures of
 * the caller; only the text of an ORLITH_METRIC_STRING value is heap memory, which the caller frees with
 * free(). Everything here is free of shared state, apart from the set of ignored extensions, which is filled
 * before parsing begins, and may be called from any thread. */
#ifndef LIBORLITH_OROLLUPD_ROLLUP_H
#define LIBORLITH_OROLLUPD_ROLLUP_H

#include "liborlith/liborlith_init.h" /* orollupd_rollup_init */
#include "liborlith/nnt/nnt_multitype.h"
#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_value.h"
#include "ruxo/base.h"
#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams ("debug/orollup", "error/orollup"); set by orollupd_rollup_init unless the host has
 * set them before. */
RUXO_EXPORT extern ruxo_log_stream_t orollup_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t orollup_error_ls;

/* The value of undefined results. Not-a-number from before main on; init_private_nan computes it anew. */
RUXO_EXPORT extern double liborlith_private_nan_double;
RUXO_EXPORT extern float liborlith_private_nan_float;

/* Computes the two NaNs. A platform whose 0/0 equals itself gets "Cannot construct a NaN value!\n" on the
 * error stream and the process exits with status -1. */
RUXO_EXPORT void init_private_nan(void);

/* Lines whose name ends in ":" and this text are refused with -10 from now on. The text is copied; adding it
 * twice changes nothing. At configuration time only, not while lines are being parsed. */
RUXO_EXPORT void store_extension_to_ignore(const char *extension);

/* The slot type of a value type: integers and doubles have one, all else is NNT_TYPE_NULL. */
RUXO_EXPORT nnt_type_t metric_to_nnt_type(orlith_metric_type_t in);

/* ---- Accessors. A type without the asked form is fatal: "[FATAL] Unknown type: 0x%04x\n" on
 * orollup_error_ls. ---- */

/* 1 when the value is below zero, else 0; a null value is not. */
RUXO_EXPORT int metric_value_is_negative(const metric_value_t *v);
/* Integers only; a signed one that is negative is fatal, and so is a null value. */
RUXO_EXPORT uint64_t metric_value_uint64(const metric_value_t *v);
/* 'i', 'l' and 'I' only; all else, a null value included, is fatal. */
RUXO_EXPORT int64_t metric_value_int64(const metric_value_t *v);
/* The nearest double; the NaN for a null value and for types that are no number. Never fatal. */
RUXO_EXPORT double metric_value_double(const metric_value_t *v);

/* ---- Ingestion lines ---- */

/* The "M" line, NUL-terminated, fields separated by single TABs:
 *   M <TAB> source <TAB> timestamp <TAB> check <TAB> name <TAB> type <TAB> value
 * and without the source field when is_bundled_line is true. Reads `line` only during the call.
 * Results:
 *     1  *metric_locator (one reference, the caller's) and *value are set
 *     0  the line's first character is not 'M'
 *    -1  no timestamp field
 *    -2  no TAB after the timestamp
 *    -3  no TAB after the check field
 *    -4  no TAB after the name
 *    -5  no TAB after the type
 *    -6  the check field is below 36 characters
 *    -7  the check field does not end in a UUID (logged on orollup_debug_ls)
 *    -8  the name is refused (logged by the locator)
 *    -9  the type letter is unknown and the value is not null, or memory ran out
 *   -10  the name's extension is ignored
 * *ts_ms and value->whence_ms are set unless the result is -1. On any result but 1 *metric_locator is left as it
 * was and *value owns no memory: its storage is zero or a number. Any thread. */
RUXO_EXPORT int parse_Mline(const char *line, uint64_t *ts_ms, orlith_metric_locator_t **metric_locator,
                            metric_value_t *value, bool is_bundled_line);

/* A run of bytes inside a line; borrowed, not NUL-terminated. */
typedef struct mline_view {
  const char *text;
  size_t len;
} mline_view_t;

/* A line cut into its fields. `check` to `value` stand in the line one after another, so check.text up to the
 * end of `value` is the rest of the line, which the search for the account reads. */
typedef struct mline_fields {
  mline_view_t timestamp;
  mline_view_t check; /* as in the line: what precedes the UUID is part of it */
  mline_view_t name;  /* as in the line, not canonical */
  mline_view_t value; /* the rest of the line, its TABs and newline included */
  uint64_t whence_ms; /* the timestamp, read */
  uint8_t type; /* the first character after the name's TAB; the TAB itself when the type field is empty */
} mline_fields_t;

/* The three steps of parse_Mline, for callers that keep the locators of the metrics they have seen: within a
 * stream of lines, equal bytes of `check` and `name` and the same class of `type` (text or not) name the same
 * metric, so that a line of a known metric needs no locator of its own. (The account marker is searched
 * beyond the check field; where names or values may hold "`c_", also compare what follows.) Codes are those
 * of parse_Mline.
 *
 * mline_split reads at most `len` bytes and stops at a NUL byte. Results 1, 0, -1 to -5; on 0 and -2 to -5
 * only `timestamp` (up to the line's end when its TAB is missing) and `whence_ms` are set, on -1 nothing. */
RUXO_EXPORT int mline_split(const char *line, size_t len, bool bundled, mline_fields_t *out);
/* Reads the value of a line that mline_split accepted: 1, or -9. Sets *value as parse_Mline does. */
RUXO_EXPORT int mline_value(const mline_fields_t *fields, metric_value_t *value);
/* Makes the locator of a line that mline_split accepted: 1 and *locator (one reference), or -6, -7, -8, -10
 * with *locator left as it was. */
RUXO_EXPORT int mline_locator(const mline_fields_t *fields, orlith_metric_locator_t **locator);

/* ---- Change and rollup ---- */

/* The change from v1 (the earlier) to v2: *dt is the time between them in milliseconds, modulo 2^32; *dy the
 * difference, exact where the two types allow it. *dy is the NaN when either is null (logged on
 * orollup_error_ls), absent or text. Histogram types are fatal unless the other value is a double. */
RUXO_EXPORT void calculate_change(const metric_value_t *v1, const metric_value_t *v2, double *dy, int *dt);
/* The NaN for the line above, after logging it; what calculate_change_inline calls when it has no number. */
RUXO_EXPORT double calculate_change_undefined(const metric_value_t *v1, const metric_value_t *v2);

/* Folds one sample into a rollup slot.
 * `*last_value` is the metric's previous sample: null before the first one, then allocated here with calloc
 * and owned by the caller's state (free). `*drun` and `*crun` are the milliseconds already folded into the
 * slot's derivative and counter; the caller sets them to 0 with each new slot. They and the sample count
 * saturate at INT_MAX. A null current value changes nothing. The first sample of a metric sets the slot's
 * count, type and value only, and is fatal when its type is not numeric. Later samples of absent or text type
 * change nothing; of a histogram type they are fatal as in calculate_change. Samples of a metric come in the
 * order of time; one that is not later than the previous one counts for the value, not for the rates. One
 * thread per slot and metric. */
RUXO_EXPORT void add_data_to_bucket(const metric_value_t *current_value, metric_value_t **last_value,
                                    nnt_multitype *bucket, int *drun, int *crun);

/* ---- calculate_change for inlining ---- */

static inline bool metric_value_has_no_change(const metric_value_t *v) {
  return v->is_null || v->type == ORLITH_METRIC_ABSENT || v->type == ORLITH_METRIC_STRING;
}

static inline double metric_value_double_change(const metric_value_t *v1, const metric_value_t *v2) {
  return metric_value_double(v2) - metric_value_double(v1);
}

/* Neither is unsigned 64-bit: the signed difference, unless it left the range of 64 bits. */
static inline double metric_value_signed_change(const metric_value_t *v1, const metric_value_t *v2) {
  const int64_t a = metric_value_int64(v1);
  const int64_t b = metric_value_int64(v2);
  const int64_t d = (int64_t)((uint64_t)b - (uint64_t)a);
  if ((a > b && d > 0) || (a < b && d < 0)) return metric_value_double_change(v1, v2);
  return (double)d;
}

/* Neither is negative: the difference of two unsigned values, whose sign is the wrapped difference's. */
static inline double metric_value_unsigned_change(const metric_value_t *v1, const metric_value_t *v2) {
  const uint64_t a = metric_value_uint64(v1);
  const uint64_t b = metric_value_uint64(v2);
  const uint64_t d = b - a;
  if (a > b && (int64_t)d > 0) return metric_value_double_change(v1, v2);
  if (a <= b && (int64_t)d < 0) return (double)d;
  return (double)(int64_t)d;
}

/* Either is a double, or an unsigned 64-bit value stands beside a negative one: no integer type holds both. */
static inline bool metric_value_change_needs_doubles(const metric_value_t *v1, const metric_value_t *v2) {
  if (v1->type == ORLITH_METRIC_DOUBLE || v2->type == ORLITH_METRIC_DOUBLE) return true;
  if ((v1->type == ORLITH_METRIC_UINT64) == (v2->type == ORLITH_METRIC_UINT64)) return false;
  return metric_value_is_negative(v1) || metric_value_is_negative(v2);
}

static inline void calculate_change_inline(const metric_value_t *v1, const metric_value_t *v2, double *dy,
                                           int *dt) {
  *dt = (int)(int32_t)(uint32_t)(v2->whence_ms - v1->whence_ms);
  if (metric_value_has_no_change(v1) || metric_value_has_no_change(v2)) {
    *dy = calculate_change_undefined(v1, v2);
  } else if (metric_value_change_needs_doubles(v1, v2)) {
    *dy = metric_value_double_change(v1, v2);
  } else if (v1->type != ORLITH_METRIC_UINT64 && v2->type != ORLITH_METRIC_UINT64) {
    *dy = metric_value_signed_change(v1, v2);
  } else {
    *dy = metric_value_unsigned_change(v1, v2);
  }
}

RUXO_END_DECLS

#endif
