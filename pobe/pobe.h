/* Metric names with tags: parsing of tag lists, and the one canonical spelling of a name.
 *
 * A name is a plain name, then blocks that each begin with a "|": "|ST[category:value,...]" for the stream
 * tags, which belong to the metric's identity, and "|MT{category:value,...}" for tags of a single
 * measurement. The grammar, the canonical form and the reasons for both are in doc/metric-names.md.
 *
 * Conventions: lengths are in bytes and no text needs a terminating NUL; a null pointer is fine where the
 * length is 0. A refusal is a negative code of POBE_ERRORS. Nothing here logs, waits or keeps state between
 * calls: every function may be called from any thread, and an object (a set, a context) by one thread at a
 * time. */
#ifndef POBE_POBE_H
#define POBE_POBE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define POBE_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

#define POBE_MAX_TAGS 256       /* tags of one list as written, before equal ones collapse */
#define POBE_MAX_SIDE_BYTES 254 /* the longest category and the longest value, as decoded */

/* Every refusal: X(NAME, code, text) declares POBE_E_NAME. Codes are logged by hosts, so a number is never
 * given a second meaning. */
#define POBE_ERRORS(X)                                                                             \
  X(ARGUMENT, -1, "a null pointer was given for bytes of non-zero length, or for the set")         \
  X(CONTROL, -2, "the text holds a control character")                                             \
  X(UTF8, -3, "the text is not valid UTF-8")                                                       \
  X(STREAM_TAGS, -4, "the name has stream tags where none are accepted")                           \
  X(MEASUREMENT_TAGS, -5, "the name has measurement tags where none are accepted")                 \
  X(SECOND_STREAM_BLOCK, -6, "the name has more than one stream-tag block")                        \
  X(STREAM_BLOCK_START, -7, "a stream-tag block does not begin with \"ST[\"")                      \
  X(MEASUREMENT_BLOCK_START, -8, "a measurement-tag block to be kept does not begin with \"MT{\"") \
  X(TOO_MANY_TAGS, -9, "there are more than 256 tags")                                             \
  X(EMPTY_TAG, -10, "a tag is empty")                                                              \
  X(NO_COLON, -11, "a tag has no colon after its category")                                        \
  X(EMPTY_CATEGORY, -12, "a category is empty")                                                    \
  X(CATEGORY_LENGTH, -13, "a category is longer than 254 bytes")                                   \
  X(VALUE_LENGTH, -14, "a value is longer than 254 bytes")                                         \
  X(CATEGORY_BYTE, -15, "a plain category holds one of | [ ] { } \"")                              \
  X(VALUE_BYTE, -16, "a plain value holds one of | [ ] { } \"")                                    \
  X(CATEGORY_BLANK, -17, "a plain category begins or ends with a blank")                           \
  X(VALUE_BLANK, -18, "a plain value begins or ends with a blank")                                 \
  X(QUOTE_OPEN, -19, "an encoded side has no closing quote")                                       \
  X(QUOTE_TRAILER, -20, "text follows the closing quote of an encoded side")                       \
  X(BASE64, -21, "an encoded side is not padded standard base64")                                  \
  X(TAG_REFUSED, -22, "the validation function refused a tag")                                     \
  X(MEMORY, -23, "out of memory")

enum pobe_error {
#define POBE_ERROR_ENUMERATOR(name, code, text) POBE_E_##name = (code),
  POBE_ERRORS(POBE_ERROR_ENUMERATOR)
#undef POBE_ERROR_ENUMERATOR
};

/* One tag as it stands in the parsed text, the category first: `tag` views category:value there. */
typedef struct pobe_metric_tag {
  const char *tag;        /* not NUL-terminated; points into the parsed text */
  uint16_t total_size;    /* bytes of the whole tag as written */
  uint16_t category_size; /* of these, the bytes of the category with its colon */
} pobe_metric_tag_t;

typedef struct pobe_metric_tagset {
  pobe_metric_tag_t *tags; /* in the order of the text, equal tags included; null when there are none */
  int tag_count;
  size_t canonical_size; /* bytes of the canonical tag list, without brackets */
} pobe_metric_tagset_t;

typedef struct pobe_metric_tagset_context pobe_metric_tagset_context_t;

/* Offered every tag in its canonical spelling (so that an encoded spelling of a reserved category cannot slip
 * past it): `cat_len` counts the category's colon, `val` may be of length 0. The bytes are valid during the
 * call only. False refuses the tag. It must not throw. */
typedef bool (*pobe_metric_tagset_validate_f)(const char *cat, size_t cat_len, const char *val,
                                              size_t val_len);

/* A new context, without a validation function. The caller owns it. Null when out of memory. */
POBE_EXPORT pobe_metric_tagset_context_t *pobe_metric_tagset_context_alloc(void);
/* Frees a context; null is ignored. Sets parsed with it do not refer to it. */
POBE_EXPORT void pobe_metric_tagset_context_free(pobe_metric_tagset_context_t *ctx);
/* Every tag parsed with this context from now on is offered to `fn`; null offers them to nobody. A null context is
 * ignored. */
POBE_EXPORT void pobe_metric_tagset_context_set_validate_function(pobe_metric_tagset_context_t *ctx,
                                                                  pobe_metric_tagset_validate_f fn);

/* Parses a comma-separated tag list (without brackets) into `set`, whatever `set` held before: release an old
 * set first. The tags view `bytes`, which must outlive the set; the array of views is the only allocation.
 * Returns 0, or a negative code; then the set is empty and needs no clean-up. An empty list gives an empty
 * set. */
POBE_EXPORT int pobe_metric_tagset_init(pobe_metric_tagset_t *set, const char *bytes, size_t len);
/* The same, and offers every tag to the context's validation function, in the order of the text and only if
 * the whole list is well formed. `ctx` is read during the call only; null means no context. */
POBE_EXPORT int pobe_metric_tagset_init_with_context(pobe_metric_tagset_t *set, const char *bytes, size_t len,
                                                     pobe_metric_tagset_context_t *ctx);
/* The short way for names that are canonical already, as nearly all are. True: the `len` bytes at `name` are what
 * pobe_metric_canonicalize_ex (stream tags accepted, measurement tags accepted and dropped) would write for them,
 * and `set` holds their stream tags, each accepted by `validate` (null accepts all), as parsing that list would.
 * False says nothing about the name (an encoded tag, text beyond ASCII, a refusal by `validate`, a fault): take
 * the long way; `set` is then empty. `set` and the life of `name` are as in pobe_metric_tagset_init. */
POBE_EXPORT bool pobe_metric_tagset_init_if_canonical(pobe_metric_tagset_t *set, const char *name, size_t len,
                                                      pobe_metric_tagset_validate_f validate);
/* Releases what the set holds and makes it empty; calling it again is harmless. Null is ignored. */
POBE_EXPORT void pobe_metric_tagset_cleanup(pobe_metric_tagset_t *set);

/* Writes the canonical form of the metric name `in` to `out` (no NUL) and returns its length in bytes, which
 * may exceed `out_size`: then what is in `out` is of no use. At most `out_size` bytes are written; with
 * `out_size` 0 only the length is computed. `in` and `out` must not overlap. A refusal returns a negative
 * code and leaves `out` as it was. Never allocates; uses at most 10 KiB of stack.
 *
 * accept_stream_tags: whether the name may have a stream-tag block (its tags are then part of the result);
 *   if not, POBE_E_STREAM_TAGS refuses a name that has one.
 * accept_measurement_tags: whether the name may have measurement-tag blocks; if not, POBE_E_MEASUREMENT_TAGS
 *   refuses a name that has one.
 * keep_measurement_tags: whether accepted measurement tags stand in the result, as one canonical "|MT{...}"
 * at its end. If not, their blocks are dropped unread. */
POBE_EXPORT ssize_t pobe_metric_canonicalize_ex(const char *in, size_t in_len, char *out, size_t out_size,
                                                bool accept_stream_tags, bool accept_measurement_tags,
                                                bool keep_measurement_tags);

/* The text of a negative code; constant, never null. Other numbers give "no error" (0 and up) or "unknown
 * error". */
POBE_EXPORT const char *pobe_error_text(ssize_t code);

#ifdef __cplusplus
}
#endif

#endif
