/* Splitting a metric name into its plain name and its stream tags.
 *
 * A name is a plain name, then blocks that each begin with a "|": a stream-tag block "|ST[category:value,...]",
 * at most one, whose tags belong to the metric's identity; and measurement-tag blocks "|MT{...}", which describe a
 * single measurement and are dropped. doc/metric-names.md has the grammar and its corner cases. Nothing is copied
 * but the array of tag views in the set. Any thread; a reader and a set belong to one thread at a time. */
#ifndef LIBORLITH_UTIL_METRIC_NAME_H
#define LIBORLITH_UTIL_METRIC_NAME_H

#include "liborlith/liborlith_init.h" /* orlith_metric_name_lib_init */
#include "liborlith/util/mem_reader.h"
#include "pobe/pobe.h"
#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams; null until orlith_metric_name_lib_init() or the host sets them. */
RUXO_EXPORT extern ruxo_log_stream_t mn_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t mn_error_ls;

/* What metric_name_parse_next_metadata found at the end of a name. */
enum metric_name_metadata {
  METRIC_NAME_METADATA_NONE = 0,
  METRIC_NAME_METADATA_STREAM_TAGS = 1,
  METRIC_NAME_METADATA_MEASUREMENT_TAGS = 2
};

/* Splits the bytes of `metric_name_in`. True: `metric_name_out` views the plain name, a prefix of the input,
 * possibly empty, and `stream_tags` holds the stream tags (none is fine), viewing the input's bytes, which must
 * outlive it; the caller releases it with pobe_metric_tagset_cleanup(). False when the stream-tag block is
 * malformed, is one too many, or holds a reserved category (__name, __type, __activity, __check_uuid): then
 * `stream_tags` is empty and needs no clean-up, and `metric_name_out` is of no use. Failures are not logged;
 * debug lines tell what is being parsed. Whatever `stream_tags` held before is overwritten, not released. The
 * two readers may be the same object. */
RUXO_EXPORT ruxo_boolean metric_name_v1_parse(const mem_reader_t *metric_name_in,
                                              mem_reader_t *metric_name_out,
                                              pobe_metric_tagset_t *stream_tags);

/* Looks for a block after the last "|" of the input. If there is one, its kind is returned, `metric_name_out`
 * views the input before that "|", `metadata_type` the block's first 2 bytes and `metadata_value` what follows
 * its first 3 bytes up to its last byte, exclusive. Otherwise METRIC_NAME_METADATA_NONE is returned,
 * `metric_name_out` is a copy of the input, and the other two are (null, 0).
 *
 * A block is known by a marker anywhere in it ("MT{", which excludes the other, or "ST[") and by its last byte
 * ("}" or "]"); its first bytes are not looked at: that is the caller's part. The first two readers may be the
 * same object; the last two must be others. Never fails. */
RUXO_EXPORT int metric_name_parse_next_metadata(const mem_reader_t *metric_name_in,
                                                mem_reader_t *metric_name_out, mem_reader_t *metadata_type,
                                                mem_reader_t *metadata_value);

RUXO_END_DECLS

#endif
