/* The identity of one metric stream: the check it belongs to, its canonical name with stream tags, its
 * account and type set, and the 32-byte hash that places it on the cluster. With it goes what is known of the
 * stream at run time: when it was active, and its last values. See doc/metric-locator.md for the key, the
 * hash, the JSON form and the path form, and for the rules of activity and last values.
 *
 * Conventions of this header. A locator is shared by reference count: a function that returns a locator hands
 * over one reference (orlith_metric_locator_deref gives it back), a function that takes one borrows it. Null
 * means failure, with one line on ml_error_ls where the function's comment says so. The identity (UUID, name,
 * tags, hash) never changes after creation and may be read from any thread without locks. The setters are
 * plain stores: call them before the locator is shared. Pointers into a locator live as long as the caller's
 * reference. */
#ifndef LIBORLITH_UTIL_METRIC_LOCATOR_H
#define LIBORLITH_UTIL_METRIC_LOCATOR_H

#include "liborlith/liborlith_init.h" /* orlith_metric_locator_lib_init */
#include "liborlith/util/mem_reader.h"
#include "liborlith/util/oil.h"
#include "pobe/pobe.h"
#include "ruxo/base.h"
#include "ruxo/json.h"
#include "ruxo/log.h"
#include "vaskllhist/vaskllhist.h"

RUXO_BEGIN_DECLS

/* The longest canonical name with tags, in bytes without a NUL. */
#define ORLITH_METRIC_LOCATOR_MAX_NAME 4095
/* A check UUID in its 36-character form with a NUL. */
#define ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE 37
/* A buffer of this size holds any key: UUID text, "-", name, NUL. */
#define ORLITH_METRIC_LOCATOR_MAX_KEY_SIZE (ORLITH_METRIC_LOCATOR_MAX_NAME + 38)

/* A set of value kinds, one bit each; METRIC_TYPE_ANY stands for all kinds there may ever be. */
typedef uint16_t orlith_metric_locator_metric_type_e;
enum orlith_metric_locator_metric_type {
  METRIC_TYPE_UNKNOWN = 0,
  METRIC_TYPE_NUMERIC = 1,
  METRIC_TYPE_HISTOGRAM = 2,
  METRIC_TYPE_TEXT = 4,
  METRIC_TYPE_ANY = 65535
};

/* A numeric value; which member holds it is told by the type code that goes with it. Stored and copied here, all
 * eight bytes, and never interpreted. */
typedef union orlith_metric_locator_numeric_value {
  int32_t v_int32;
  uint32_t v_uint32;
  int64_t v_int64;
  uint64_t v_uint64;
  double v_double;
} orlith_metric_locator_numeric_value_t;

/* Owned by the host's metric database: stored and copied here, never interpreted. */
typedef uint8_t metrics_db_egress_function_e;

typedef struct orlith_metric_locator orlith_metric_locator_t;

/* The part of a locator that never changes, apart from the surrogate id which the host assigns once. Several
 * locators may share one of these (orlith_metric_locator_create_from_parts). */
typedef struct orlith_metric_locator_immutable_data orlith_metric_locator_immutable_data_t;
struct orlith_metric_locator_immutable_data {
  pobe_metric_tagset_t stream_tags;  /* parsed from the key; the tags point into key_mem */
  uint64_t surrogate_id;             /* 0 until the host sets it */
  uint32_t key_len;                  /* bytes of key_mem without its NUL */
  uint32_t untagged_metric_name_len; /* bytes of key_mem before its first "|ST["; all when there is none */
  void (*release)(orlith_metric_locator_immutable_data_t *); /* called by each locator's final deref */
  const char *key_mem;       /* the canonical name with its stream-tag block, NUL-terminated */
  const uint8_t *hash;       /* 32 bytes: SHA-256 of the key text */
  const uint8_t *check_uuid; /* 16 bytes */
};

/* The module's streams ("debug/metric_locator", "error/metric_locator"); set by
 * orlith_metric_locator_lib_init unless the host has set them before. */
RUXO_EXPORT extern ruxo_log_stream_t ml_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t ml_error_ls;

/* ---- Creation and lifetime ---- */

/* A new locator of account 0 from a check UUID (16 bytes) and a metric name in any spelling, which is brought
 * into its canonical form; a null or empty name is an empty name. Both are only read during the call. Null,
 * with one line on ml_error_ls, when the name has no canonical form, when that is longer than 4095 bytes, or
 * when its tags do not parse. One allocation. Any thread. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_create(const uint8_t uuid[16],
                                                                  const mem_reader_t *name,
                                                                  orlith_metric_locator_metric_type_e type);
/* As orlith_metric_locator_create, then sets the account. `type` is taken modulo 65536. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_create_full(int32_t account_id, int type,
                                                                       const uint8_t check_uuid[16],
                                                                       const mem_reader_t *name);
/* A new locator over immutable data of the caller, used as it is: nothing is copied or checked except that
 * key_mem is key_len bytes long, which is fatal when untrue. The locator's final deref calls
 * immutable->release, which is where the caller counts the locators that share the data. Any thread. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_create_from_parts(
    orlith_metric_locator_immutable_data_t *immutable, int32_t account_id,
    orlith_metric_locator_metric_type_e type);

/* Takes another reference and returns `loc`. The caller holds one already. Any thread. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_ref(orlith_metric_locator_t *loc);
/* Gives one reference back; the last one frees the locator. The text and the histogram of its last values are
 * freed after all reclamation sections now open have ended, so that readers inside one stay safe. Null writes
 * "Attempt to deref null metric locator!\n" to ml_error_ls. Any thread. */
RUXO_EXPORT void orlith_metric_locator_deref(orlith_metric_locator_t *loc);

/* A new independent locator with the same UUID, name, account, type and egress function, and a copy of the
 * activity intervals taken under the source's shared activity lock. Last values, surrogate id and the
 * canonical mark are not copied. Null for null, and when the name is no longer accepted. Any thread. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_clone(orlith_metric_locator_t *loc);
/* The same without the activity intervals. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_clone_without_activity_data(
    orlith_metric_locator_t *loc);

/* The `release` of locators made from a name: cleans up the tag set. */
RUXO_EXPORT void orlith_metric_locator_immutable_data_release(
    orlith_metric_locator_immutable_data_t *immutable);

/* ---- Setters: plain stores, before the locator is shared ---- */

/* The account that the metric belongs to, any number. Not part of the identity. */
RUXO_EXPORT void orlith_metric_locator_set_accountid(orlith_metric_locator_t *loc, int32_t account_id);
/* The set of kinds, METRIC_TYPE_ bits. */
RUXO_EXPORT void orlith_metric_locator_set_type(orlith_metric_locator_t *loc,
                                                orlith_metric_locator_metric_type_e type);
/* The host's own mark: see the type. */
RUXO_EXPORT void orlith_metric_locator_set_egress_function(orlith_metric_locator_t *loc,
                                                           metrics_db_egress_function_e function);
/* Stored in the immutable data: every locator that shares it sees the id. */
RUXO_EXPORT void orlith_metric_locator_set_surrogate_id(orlith_metric_locator_t *loc, uint64_t surrogate_id);
/* Marks the one copy of this identity that the host keeps in its index. */
RUXO_EXPORT void orlith_metric_locator_mark_canonical(orlith_metric_locator_t *loc);

/* ---- Accessors. `loc` is not null, except where a result for null is given. Any thread. ---- */

/* As given at creation or set since; the egress function is 0 until it is set. */
RUXO_EXPORT int32_t orlith_metric_locator_get_account_id(const orlith_metric_locator_t *loc);
RUXO_EXPORT orlith_metric_locator_metric_type_e
orlith_metric_locator_get_type(const orlith_metric_locator_t *loc);
RUXO_EXPORT metrics_db_egress_function_e
orlith_metric_locator_get_egress_function(const orlith_metric_locator_t *loc);
/* Whether this one was marked by orlith_metric_locator_mark_canonical. */
RUXO_EXPORT ruxo_boolean orlith_metric_locator_is_canonical(const orlith_metric_locator_t *loc);
RUXO_EXPORT uint64_t orlith_metric_locator_get_surrogate_id(const orlith_metric_locator_t *loc); /* null: 0 */
/* 32 bytes: SHA-256 of the key, the locator's place on the cluster's ring. Borrowed. */
RUXO_EXPORT const uint8_t *orlith_metric_locator_get_hash(const orlith_metric_locator_t *loc);
/* Borrowed; its tags point into the name. */
RUXO_EXPORT const pobe_metric_tagset_t *orlith_metric_locator_get_stream_tags(
    const orlith_metric_locator_t *loc);
/* Copies the 16 bytes of the check's UUID. */
RUXO_EXPORT void orlith_metric_locator_get_check_uuid(const orlith_metric_locator_t *loc, uint8_t out[16]);
/* The canonical name with its stream-tag block, NUL-terminated, borrowed; null for null. */
RUXO_EXPORT const char *orlith_metric_locator_get_name_with_tags(const orlith_metric_locator_t *loc);
/* The same pointer: only the length differs, so the text without tags is not NUL-terminated. */
RUXO_EXPORT const char *orlith_metric_locator_get_name_without_tags(const orlith_metric_locator_t *loc);
/* The bytes of either, without a NUL. */
RUXO_EXPORT size_t orlith_metric_locator_get_name_len_with_tags(const orlith_metric_locator_t *loc);
RUXO_EXPORT size_t orlith_metric_locator_get_name_len_without_tags(const orlith_metric_locator_t *loc);
/* The name as a view; (null, 0) when it is empty. */
RUXO_EXPORT mem_reader_t orlith_metric_locator_get_name_buf_with_tags(const orlith_metric_locator_t *loc);
RUXO_EXPORT mem_reader_t orlith_metric_locator_get_name_buf_without_tags(const orlith_metric_locator_t *loc);

/* ---- Text forms and comparison. Any thread. ---- */

/* The hashed text: the 36-character lower-case UUID, "-", the name with tags, and a NUL. Returns `buf`, or
 * null (and leaves `buf` alone) when `len` is below name length + 38. */
RUXO_EXPORT char *orlith_metric_locator_get_key(const orlith_metric_locator_t *loc, char *buf, size_t len);
/* Writes the UUID's 36 lower-case characters and a NUL into the buffer that `out` describes and sets its size
 * to 36. A buffer below 37 bytes is fatal. */
RUXO_EXPORT void orlith_metric_locator_get_check_uuid_str_buf(const orlith_metric_locator_t *loc,
                                                              mem_reader_t *out);
/* The type set in words: "unknown", "any", "numeric", "numeric,histogram", ..., and "invalid: 0x%04x" for any
 * other value above 6 (7 too). Writes at most `len` - 1 bytes with the NUL, so a buffer has room for a text
 * that is 2 shorter than itself; a length of 0 writes nothing. Returns `buf`. */
RUXO_EXPORT char *orlith_metric_locator_get_type_str(const orlith_metric_locator_t *loc, char *buf,
                                                     size_t len);

/* Same UUID and same name with tags; account and type do not count. False if either is null. */
RUXO_EXPORT ruxo_boolean orlith_metric_locator_equal(const orlith_metric_locator_t *a,
                                                     const orlith_metric_locator_t *b);
/* Same 32-byte hash. Two nulls match; one null does not. */
RUXO_EXPORT ruxo_boolean orlith_metric_locator_matches(const orlith_metric_locator_t *a,
                                                       const orlith_metric_locator_t *b);
/* Orders by the 16 UUID bytes: negative, zero or positive. */
RUXO_EXPORT int orlith_metric_locator_uuid_cmp(const orlith_metric_locator_t *a,
                                               const orlith_metric_locator_t *b);

/* A new object (freed with ruxo_json_free) with "account_id", "check_uuid", "metric_name", "metric_type". */
RUXO_EXPORT ruxo_json_object *orlith_metric_locator_to_json(const orlith_metric_locator_t *loc);
/* A new locator from such an object, which is only read. "account_id" may be absent (then -1); "metric_type"
 * is taken modulo 65536. Null when a member is missing, of the wrong type, or not a UUID, or the name is
 * refused. */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_from_json(const ruxo_json_object *obj);

/* A path of two components: the UUID's 36 characters, "/", and the name in standard base64 with "/" written
 * as "_" from the second character on; then a NUL. Without a name only the UUID is written. Returns 37, the
 * offset of the encoded name; or 0, writing nothing, when `len` is below 37. Only these 37 bytes are checked
 * against `len`: the buffer must have 38 + ruxo_b64_encode_len(name length) bytes. */
RUXO_EXPORT size_t orlith_metric_locator_b64_path(const orlith_metric_locator_t *loc, char *buf, size_t len);
/* A new locator, always numeric and of account 0, from the two components of such a path. `uuid_str` is read
 * up to its 36th character; a whole path may be given, where "/" follows. Null when the UUID or the base64 is
 * invalid, when the name is empty, or when it is refused (logged). */
RUXO_EXPORT orlith_metric_locator_t *orlith_metric_locator_from_b64_path(const char *uuid_str,
                                                                         const char *b64path);

/* ---- Activity: in which periods the stream was active ----
 * Times are seconds since the Unix epoch; a time t belongs to the period t / 300. Periods are numbered in 32
 * bits: a time later than 1288490188799 has none. The locator holds its periods in an interval list, null
 * until the first one is recorded, which the locator's activity lock guards (many shared holders or one
 * exclusive holder; neither recursive nor fair, to be held briefly). The functions below take that lock
 * themselves unless they say otherwise, so they must not be called while holding it. Any thread. */

/* Times before `seconds` (0 at the start) count as active: what the host does not know it must not deny. For
 * all locators; set at start-up. */
RUXO_EXPORT void orlith_metric_locator_set_global_active_before(uint64_t seconds);

/* Records that the stream was active at the time `t`. 1 if this changed the list, else 0. Period 0 (the first
 * five minutes of 1970) and times without a period are not recorded. */
RUXO_EXPORT int orlith_metric_locator_record_activity(orlith_metric_locator_t *loc, uint64_t t);
/* Whether the stream was active at any time from `start` to `end`, by whole periods: 1 or 0. In this order:
 * 0 for a null locator, 1 for start = end = 0, 0 for start > end, 1 for a start before the global limit above,
 * and then what the list says; without one, 0. */
RUXO_EXPORT int orlith_metric_locator_was_active(orlith_metric_locator_t *loc, uint64_t start, uint64_t end);
/* Whether it was active within the last 24 hours; false for a null locator and for one without a list. */
RUXO_EXPORT ruxo_boolean orlith_metric_locator_is_active(orlith_metric_locator_t *loc);

/* Replaces the activity by a copy of `src` (null: none), which is only read. The locator's own list changes
 * nothing. */
RUXO_EXPORT void orlith_metric_locator_set_activity(orlith_metric_locator_t *loc, oil_list_t *src);
/* Replaces the activity by what a JSON array tells: each element that is an array of two integers is an
 * interval, [start, end] in seconds, both included; other elements are skipped, and so are intervals that are
 * reversed, lie within the first five minutes of 1970, or have an end without a period. Returns 1; 0, changing
 * nothing, when `json` is no array. `json` is only read. */
RUXO_EXPORT int orlith_metric_locator_set_activity_from_json(orlith_metric_locator_t *loc,
                                                             const ruxo_json_object *json);
/* Adds the intervals of `src`, which is only read. 1 if that changed the locator's list; else 0, as for null
 * and for the locator's own list. Locators whose lists are merged into each other, or in a circle, at the same time
 * wait for ever. */
RUXO_EXPORT int orlith_metric_locator_merge_oil(orlith_metric_locator_t *loc, oil_list_t *src);

/* The locator's list, or null; borrowed. Takes no lock: the caller holds the shared or the exclusive lock, and
 * the list lives until it is released. */
RUXO_EXPORT oil_list_t *orlith_metric_locator_get_activity(orlith_metric_locator_t *loc);
/* A copy, which the caller frees with oil_free(); an empty list where there is none. */
RUXO_EXPORT oil_list_t *orlith_metric_locator_get_activity_clone(orlith_metric_locator_t *loc);
/* Writes the list with oil_dump(). */
RUXO_EXPORT void orlith_metric_locator_oil_dump(orlith_metric_locator_t *loc);

/* The activity lock itself, exclusive and shared: taking it waits, and whoever took it gives it back the same way. */
RUXO_EXPORT void orlith_metric_locator_oil_lock(orlith_metric_locator_t *loc);
RUXO_EXPORT void orlith_metric_locator_oil_unlock(orlith_metric_locator_t *loc);
RUXO_EXPORT void orlith_metric_locator_oil_shared_lock(orlith_metric_locator_t *loc);
RUXO_EXPORT void orlith_metric_locator_oil_shared_unlock(orlith_metric_locator_t *loc);

/* ---- Last values: the last two numbers, the last text, the last histogram ----
 * Each kind is kept in a holder that the first update of that kind makes, if the caller asks for it
 * (`instantiate`) or the process always does (implicit_latest); other first updates are dropped. A new holder
 * holds nothing, of time 0. Times are milliseconds since the Unix epoch (`whence_ms`); an update that is not
 * later than what is held changes nothing, and is found out without a lock. Updates and readers may run on any
 * number of threads. When memory runs out an update is dropped. */

/* Numeric updates later than `ms` are ignored; no limit at the start. For all locators; set at start-up. */
RUXO_EXPORT void orlith_metric_locator_set_global_future_bound(uint64_t ms);
/* Whether first updates make a holder unasked; false at the start. For all locators; set at start-up. */
RUXO_EXPORT void orlith_metric_locator_set_global_implicit_latest(ruxo_boolean implicit_latest);

/* Keeps the numbers of the two latest distinct times: a later one becomes the newer value, one between the two
 * replaces the older value, and one that is as old as the newer value or no later than the older is dropped.
 * `v` is copied. */
RUXO_EXPORT void orlith_metric_locator_update_numeric(orlith_metric_locator_t *loc, uint64_t whence_ms,
                                                      uint8_t type,
                                                      const orlith_metric_locator_numeric_value_t *v,
                                                      ruxo_boolean instantiate);
/* Writes time, type and value of the older [0] and the newer number [1], zeros where there is none yet, and
 * returns 1; or 0 without a holder, writing nothing. */
RUXO_EXPORT int orlith_metric_locator_last2_numeric(orlith_metric_locator_t *loc, uint64_t whence_ms[2],
                                                    uint8_t type[2],
                                                    orlith_metric_locator_numeric_value_t value[2]);
/* Orders the most recently updated first, by the newer time and then by the older: -1 if `a` comes first, 1 if
 * `b` does, 0 if neither. A locator without numbers comes after those with. Both times of both locators are of
 * one moment. */
RUXO_EXPORT int orlith_metric_locator_compare_last2_numeric(orlith_metric_locator_t *a,
                                                            orlith_metric_locator_t *b);

/* Keeps a copy of the text, which may be null, if it is later than the one held. */
RUXO_EXPORT void orlith_metric_locator_update_text(orlith_metric_locator_t *loc, uint64_t whence_ms,
                                                   const char *text, ruxo_boolean instantiate);
/* Writes the text's time and the text, and returns 1; or 0 without a holder, writing nothing. The text may be
 * null; it is borrowed until the caller leaves its reclamation section (ruxo/memory.h), outside of which
 * reading a text that is there is fatal. */
RUXO_EXPORT int orlith_metric_locator_last_text(orlith_metric_locator_t *loc, uint64_t *whence_ms,
                                                const char **text);

/* The same for a histogram in its base64 form, which is kept as it is. */
RUXO_EXPORT void orlith_metric_locator_update_hist(orlith_metric_locator_t *loc, uint64_t whence_ms,
                                                   const char *b64, ruxo_boolean instantiate);
/* As orlith_metric_locator_update_hist, and reports each step to `stream` (may be null) instead of
 * ml_debug_ls. */
RUXO_EXPORT void orlith_metric_locator_update_hist_withstream(orlith_metric_locator_t *loc,
                                                              uint64_t whence_ms, const char *b64,
                                                              ruxo_boolean instantiate,
                                                              ruxo_log_stream_t stream);
/* As orlith_metric_locator_last_text; where there is no holder a line goes to ml_debug_ls too. */
RUXO_EXPORT int orlith_metric_locator_last_hist_b64(orlith_metric_locator_t *loc, uint64_t *whence_ms,
                                                    const char **b64);

/* Writes the histogram's time, and the histogram, decoded, which the caller frees with hist_free(); null for one
 * that is held as null. Returns 1. Returns 0 without a holder, writing nothing but a line to ml_debug_ls; and when
 * it cannot be decoded, with null for the histogram and a line on ml_error_ls. No section is needed. */
RUXO_EXPORT int orlith_metric_locator_last_hist(orlith_metric_locator_t *loc, uint64_t *whence_ms,
                                                histogram_t **out);

/* The kinds that the locator's type includes and that have no holder yet, as METRIC_TYPE_ bits. */
RUXO_EXPORT orlith_metric_locator_metric_type_e
orlith_metric_locator_last_missing(const orlith_metric_locator_t *loc);

RUXO_END_DECLS

#endif
