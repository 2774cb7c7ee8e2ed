/* Metric names with tags: parsing of tag lists, and the one canonical spelling of a name.
 * The grammar is described in doc/metric-names.md. */
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

#define POBE_MAX_TAGS 256
#define POBE_MAX_SIDE_BYTES 254 /* the longest category and the longest value, as decoded */

/* One tag as it stands in the parsed text, the category first: `tag` views category:value there. */
typedef struct pobe_metric_tag {
  const char *tag;       /* not NUL-terminated; points into the parsed text */
  uint16_t total_size;   /* bytes of the whole tag as written */
  uint16_t category_size; /* of these, the bytes of the category with its colon */
} pobe_metric_tag_t;

typedef struct pobe_metric_tagset {
  pobe_metric_tag_t *tags; /* in the order of the text; null when there are none */
  int tag_count;
  size_t canonical_size; /* bytes of the canonical tag list, without brackets */
} pobe_metric_tagset_t;

typedef struct pobe_metric_tagset_context pobe_metric_tagset_context_t;

/* Offered every tag, its category with the colon counted, both sides as written; false refuses the tag. */
typedef bool (*pobe_metric_tagset_validate_f)(const char *cat, size_t cat_len, const char *val, size_t val_len);

POBE_EXPORT pobe_metric_tagset_context_t *pobe_metric_tagset_context_alloc(void);
POBE_EXPORT void pobe_metric_tagset_context_free(pobe_metric_tagset_context_t *ctx);
POBE_EXPORT void pobe_metric_tagset_context_set_validate_function(pobe_metric_tagset_context_t *ctx,
                                                                  pobe_metric_tagset_validate_f fn);
/* Parses a comma-separated tag list (without brackets). 0, or a negative code; then the set is empty. An empty
 * list gives an empty set. */
POBE_EXPORT int pobe_metric_tagset_init(pobe_metric_tagset_t *set, const char *bytes, size_t len);
POBE_EXPORT int pobe_metric_tagset_init_with_context(pobe_metric_tagset_t *set, const char *bytes, size_t len,
                                                     pobe_metric_tagset_context_t *ctx);
POBE_EXPORT void pobe_metric_tagset_cleanup(pobe_metric_tagset_t *set);

/* Writes the canonical form of a metric name and returns its length, which may exceed out_size: then nothing
 * useful is in `out`. A negative result is a code that pobe_error_text explains. No NUL is written. */
POBE_EXPORT ssize_t pobe_metric_canonicalize_ex(const char *in, size_t in_len, char *out, size_t out_size,
                                                bool accept_stream_tags, bool accept_measurement_tags,
                                                bool keep_measurement_tags);
/* The text of a negative code; constant. */
POBE_EXPORT const char *pobe_error_text(ssize_t code);

#ifdef __cplusplus
}
#endif

#endif
