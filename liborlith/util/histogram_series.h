/* A window of log-linear histograms, one a time, and its compact image (doc/histogram-series.md).
 *
 * A series covers base_ms to base_ms + window_ms, both included, in milliseconds since the Unix epoch, and holds
 * at most one histogram for each time. The image stores each histogram whole or as the difference from the one
 * before it, compressed as an LZ4 frame. A series read from an image decodes a histogram when it is first asked
 * for, and with it only the ones that it is a difference from.
 *
 * Whoever has a series owns it (histogram_series_free) and all that it holds. One thread at a time, reading
 * included: a look can decode, and so change the series. */
#ifndef LIBORLITH_UTIL_HISTOGRAM_SERIES_H
#define LIBORLITH_UTIL_HISTOGRAM_SERIES_H

#include "ruxo/base.h"
#include "vaskllhist/vaskllhist.h"

RUXO_BEGIN_DECLS

/* In `histograms`: the entry stands in `buff` and has not been decoded yet. */
#define HISTOGRAM_SERIES_NOT_DECODED ((histogram_t *)1)

/* The largest image, in bytes before compression: none larger is written, or read. */
#define HISTOGRAM_SERIES_MAX_IMAGE_BYTES ((size_t)256 << 20)

/* The fields are public so that hosts can look at them; change them through the functions. Invariants:
 * (1) base_ms is a multiple of window_ms, which is not 0; (2) offsets_ms ascends, without equal neighbours, as
 * far as an image from outside keeps to that; (3) n_entries <= n_alloc, or n_alloc is 0 and both arrays, which
 * came from an image, have n_entries slots. */
typedef struct histogram_series {
  uint64_t base_ms;
  histogram_t **histograms; /* owned; null where the data in the image is damaged */
  uint32_t *offsets_ms;     /* from base_ms */
  uint32_t n_entries;
  uint32_t n_alloc; /* slots of both arrays; 0 before the first add */
  uint32_t window_ms;
  void *buff; /* the image that entries are decoded from; null without one */
  size_t buff_len;
} histogram_series_t;

/* A new empty series; null when window_ms is 0, when base_ms is not a multiple of it, or when memory ran out. */
RUXO_EXPORT histogram_series_t *histogram_series_alloc(uint64_t base_ms, uint32_t window_ms);

/* Adds `h` at the time `whence_ms`. A time that has an entry: `h` is accumulated into it, and then freed if
 * `give`. Otherwise the series keeps `h` itself if `give`, else a copy.
 *
 * False, leaving the series as it was and `h` with the caller, when the time is outside of the window (its end
 * belongs to it), when `h` or `hs` is null, when memory ran out, and when the entry of that time is not decoded
 * or damaged: an entry is not decoded for this.
 *
 * CAUTION: the first add to a series that came from histogram_series_deserialize() starts new arrays, and all
 * entries of the image are given up, with their histograms and the image. To extend such a series, add what
 * histogram_series_foreach() gives to a new one. */
RUXO_EXPORT ruxo_boolean histogram_series_add(histogram_series_t *hs, uint64_t whence_ms, histogram_t *h,
                                              ruxo_boolean give);

/* The histogram at a time, decoded; borrowed, until the series changes. Null when there is none, or when its
 * data in the image is damaged.
 *
 * CAUTION: only for series whose base_ms is 0. An entry that is found has its offset compared with the absolute
 * time, and a difference is fatal. histogram_series_foreach() works for every base. */
RUXO_EXPORT histogram_t *histogram_series_at(histogram_series_t *hs, uint64_t whence_ms);

/* Is given an entry's time and its histogram, which is null where the image is damaged; borrowed for the call.
 * It must not add to or free the series. False ends the walk. */
typedef ruxo_boolean (*histogram_series_foreach_f)(uint64_t whence_ms, histogram_t *h, void *closure);

/* Calls `f` for each entry in order, decoding it if needed. Returns the first false result, else true. */
RUXO_EXPORT ruxo_boolean histogram_series_foreach(histogram_series_t *hs, histogram_series_foreach_f f,
                                                  void *closure);

/* Always false: nothing is ever removed. Hosts probe for it. */
RUXO_EXPORT ruxo_boolean histogram_series_remove(histogram_series_t *hs, uint64_t whence_ms);

/* Decodes entry `i` if it is HISTOGRAM_SERIES_NOT_DECODED, and the entries that it is a difference from; an index
 * past the end does nothing. An entry whose data is damaged becomes null, and so does one that is a difference
 * from it. One that is not decoded in a series without an image is fatal, and so is a first entry that is a
 * difference (histogram_series_deserialize() gives neither). */
RUXO_EXPORT void histogram_series_populate(histogram_series_t *hs, uint32_t i);

/* The length of a buffer that is never too small for histogram_series_serialize(), in bytes. Decodes every entry. */
RUXO_EXPORT size_t histogram_series_serialize_maxsize(histogram_series_t *hs);

/* Writes the compressed image into `buff`, in which it is also built: `buff_len` has to be the length of the image
 * before compression, at least. Decodes every entry.
 *
 * True: *actual_size is the length of the compressed image. When that is more than buff_len, nothing usable was
 * written, and the caller tries again with a buffer of that length. False: the buffer is too small, and
 * *actual_size is histogram_series_serialize_maxsize(); or *actual_size is 0, and no buffer would do: an entry is
 * damaged, the image is larger than HISTOGRAM_SERIES_MAX_IMAGE_BYTES, memory ran out. `buff` has been written to
 * in every case.
 *
 * Zero buckets are removed from histograms that are written without one before them. CAUTION: counts of 33 to 36
 * and of 49 to 52 bits, and changes of counts of these sizes, lose their top bits (doc/histogram-series.md). An entry
 * that is stored as a difference can then lead below zero: it is damaged for its reader, and with it the differences
 * that follow it, although the result here is true. The same may happen to signed counts (hist_subtract_as_int64):
 * readers take the counts of an entry for unsigned numbers. */
RUXO_EXPORT ruxo_boolean histogram_series_serialize(histogram_series_t *hs, void *buff, size_t buff_len,
                                                    size_t *actual_size);

/* A new series from a compressed image, which is only read during the call. Null when it is not one LZ4 frame, when
 * memory ran out, or when the image is not one: below 16 bytes or above HISTOGRAM_SERIES_MAX_IMAGE_BYTES; base_ms no
 * multiple of window_ms, or that 0; a length that is not what its entry words say; a first entry that is a
 * difference. The entries are looked at when they are decoded, and may be damaged still. */
RUXO_EXPORT histogram_series_t *histogram_series_deserialize(const void *buff, size_t buff_len);

/* Frees the series and everything in it; null does nothing. */
RUXO_EXPORT void histogram_series_free(histogram_series_t *hs);

RUXO_END_DECLS

#endif
