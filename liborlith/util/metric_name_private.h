/* What only the splitting of metric names and its tests need. */
#ifndef LIBORLITH_UTIL_METRIC_NAME_PRIVATE_H
#define LIBORLITH_UTIL_METRIC_NAME_PRIVATE_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The validation function of stream tags (pobe_metric_tagset_validate_f): false for the categories that the
 * system gives to tags of its own making, which no client may set. `cat_len` counts the category's colon. The
 * value is not looked at, and a null `cat` is accepted. */
ruxo_boolean reject_artificial_stream_tags(const char *cat, size_t cat_len, const char *val, size_t val_len);

RUXO_END_DECLS

#endif
