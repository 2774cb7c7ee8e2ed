/* LZ4 frames: the format of the LZ4 frame description, version 1.6.
 *
 * What is written here is one frame with blocks of 64 KiB and a checksum of the content. What is read is exactly
 * one frame of any legal make, and nothing behind it. A frame with a dictionary is refused where it needs the
 * dictionary; skippable frames and the format from before frames are refused.
 *
 * A frame of n bytes can stand for 255 times n, so whoever decompresses states how much it may become. Memory is
 * then bounded by that limit (while the buffer grows: by three times that limit) plus at most 9 MiB of the
 * library's own, whatever the frame says of itself.
 *
 * Lengths are in bytes. Any thread; one thread at a time for one stream. */
#ifndef RUXO_LZ4F_H
#define RUXO_LZ4F_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* What a decompression ends with, and its text. */
#define RUXO_LZ4F_STATUSES(X)                                     \
  X(OK, "no error")                                               \
  X(TRUNCATED, "the LZ4 frame ends early")                        \
  X(TRAILING, "there are bytes behind the LZ4 frame")             \
  X(MAGIC, "not an LZ4 frame")                                    \
  X(HEADER, "the header of the LZ4 frame is not valid")           \
  X(DAMAGED, "a block of the LZ4 frame is damaged")               \
  X(CHECKSUM, "a checksum of the LZ4 frame does not match")       \
  X(SIZE, "the LZ4 frame does not hold as many bytes as it says") \
  X(TOO_LARGE, "the LZ4 frame holds more bytes than the limit")   \
  X(MEMORY, "no memory to decompress the LZ4 frame")

typedef enum {
#define RUXO_LZ4F_STATUS(name, text) RUXO_LZ4F_##name,
  RUXO_LZ4F_STATUSES(RUXO_LZ4F_STATUS)
#undef RUXO_LZ4F_STATUS
} ruxo_lz4f_status_t;

/* A stream's output buffer starts with so many bytes, and doubles whenever less than the second are free. */
#define RUXO_LZ4F_FIRST_BYTES ((size_t)128 << 10)
#define RUXO_LZ4F_MIN_FREE_BYTES ((size_t)4096)

/* The text of a status: a sentence without a full stop, for ever valid; "unknown LZ4 status" for other numbers. */
RUXO_EXPORT const char *ruxo_lz4f_status_text(ruxo_lz4f_status_t status);

/* More than so many bytes (128 TiB) are not compressed. */
#define RUXO_LZ4F_MAX_SOURCE_BYTES ((size_t)1 << 47)

/* The most bytes that `len` bytes compress to, never 0; SIZE_MAX for more than RUXO_LZ4F_MAX_SOURCE_BYTES. */
RUXO_EXPORT size_t ruxo_lz4f_compress_bound(size_t len);

/* Compresses `len` bytes of `src` (null only with 0) into one frame in `dest`, which has room for `dest_len`
 * bytes: at least ruxo_lz4f_compress_bound(len), even where the frame turns out shorter. They must not overlap.
 * Returns the length of the frame, at least 15; 0 when dest_len is too small (`dest` is then untouched) or memory
 * ran out. */
RUXO_EXPORT size_t ruxo_lz4f_compress(const void *src, size_t len, void *dest, size_t dest_len);

/* Decompresses the frame that `len` bytes of `src` (null only with 0) hold. With RUXO_LZ4F_OK, *out_len is the
 * number of bytes, and *out a block of them from malloc, never null, that the caller frees; else they are 0 and
 * null. A frame of more than `max_bytes` is refused, at once when its header says so. */
RUXO_EXPORT ruxo_lz4f_status_t ruxo_lz4f_decompress(const void *src, size_t len, size_t max_bytes, void **out,
                                                    size_t *out_len);

/* The same for a frame that arrives in pieces. */
typedef struct ruxo_lz4f_stream ruxo_lz4f_stream_t;

/* A new stream for one frame of at most `max_bytes`; null when memory ran out. */
RUXO_EXPORT ruxo_lz4f_stream_t *ruxo_lz4f_stream_alloc(size_t max_bytes);

/* Takes the next `len` bytes of the frame (null only with 0), of any length, and keeps none of them. The first
 * status other than RUXO_LZ4F_OK stays: later calls return it and do nothing. */
RUXO_EXPORT ruxo_lz4f_status_t ruxo_lz4f_stream_write(ruxo_lz4f_stream_t *stream, const void *bytes,
                                                      size_t len);

/* Whether the frame is complete: more bytes would be one too many. False after a fault. */
RUXO_EXPORT ruxo_boolean ruxo_lz4f_stream_complete(const ruxo_lz4f_stream_t *stream);

/* Says that there are no more pieces, and hands over the content as ruxo_lz4f_decompress() does. The stream can
 * then only be freed. */
RUXO_EXPORT ruxo_lz4f_status_t ruxo_lz4f_stream_finish(ruxo_lz4f_stream_t *stream, void **out,
                                                       size_t *out_len);

/* Frees the stream and what it still holds. Null is ignored. */
RUXO_EXPORT void ruxo_lz4f_stream_free(ruxo_lz4f_stream_t *stream);

RUXO_END_DECLS

#endif
