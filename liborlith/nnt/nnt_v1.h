/* Version 1 of the NNT file: the record, its conversions, and the operations behind the table of nnt.h.
 *
 * Hosts read and write files through nnt.h; what is here serves tools that look at single records, and the table.
 * The operations behave as the calls of nnt.h that forward to them, which is where they are described. doc/nnt-file.md
 * has the bytes. */
#ifndef LIBORLITH_NNT_NNT_V1_H
#define LIBORLITH_NNT_NNT_V1_H

#include "liborlith/nnt/nnt.h"

RUXO_BEGIN_DECLS

#define NNT_V1_MAGIC "NNT1" /* the header's `version`, which stores no NUL */
#define NNT_V1_START 16     /* file offset of the first record: the size of the header */

/* `typeinfo`: a type code, and whether the value has no standard deviation. The upper four bits are zero. */
#define NNT_V1_TYPE_MASK 0x07
#define NNT_V1_NO_STDDEV 0x08

/* One record: 32 bytes, little-endian. Each field can be seen as its value and as its bytes. An absent slot is 32
 * zero bytes, so that a hole in a file reads as absent slots. */
typedef struct nnt_datum_v1 {
  union {
    uint8_t xor_chksum; /* XOR of bytes 1 to 31, so that the XOR of all 32 is 0 */
    uint8_t xor_chksum_bytes[1];
  };
  union {
    uint8_t typeinfo;
    uint8_t typeinfo_bytes[1];
  };
  union {
    uint16_t count; /* samples, at most 65535 */
    uint8_t count_bytes[2];
  };
  union {
    float std; /* standard deviation; zero when there is none */
    uint8_t std_bytes[4];
  };
  union {
    int32_t v_int32; /* 32-bit values leave the last four bytes zero, null all eight */
    uint32_t v_uint32;
    int64_t v_int64;
    uint64_t v_uint64;
    double v_double;
    uint8_t bytes[8];
  } value;
  struct {
    union {
      float value;
      uint8_t value_bytes[4];
    };
    union {
      float stddev;
      uint8_t stddev_bytes[4];
    };
  } derivative, counter;
} nnt_datum_v1;

/* The op_ctx of a version 1 handle or view. */
typedef struct v1_meta {
  uint64_t create_time; /* seconds since the Unix epoch; not filled for views */
  size_t start;         /* file offset of slot 0: NNT_V1_START */
} v1_meta;

/* Fills *d from *v: the count held at 65535, the standard deviation only when present, never `min`, `max` and the
 * `_min` and `_max` of the rates. Returns 0; -1 for an absent value or a string, which have no record (*d is then
 * all zero). A type code above 7 is stored with type bits 0 and a zero value, which v1_decode refuses; existing
 * writers do the same. Any thread. */
RUXO_EXPORT int v1_encode(const nnt_multitype *v, nnt_datum_v1 *d) RUXO_NOEXCEPT;

/* Fills *v from *d. Returns 0: for 32 zero bytes with only v->type set (absent), otherwise with all that the record
 * stores set and the rest of *v as it was. -1, leaving v->type as it was, when the checksum is wrong or the type
 * bits are 0 in a record that is not all zero (nothing is set), or the type bits are 7 (the fields other than the
 * type and the value are set). The upper four bits of `typeinfo` are not looked at. Any thread. */
RUXO_EXPORT int v1_decode(const nnt_datum_v1 *d, nnt_multitype *v) RUXO_NOEXCEPT;

/* At the end of opening: makes the op_ctx, a v1_meta. 0; -1, refusing the file, when its size is not a header and whole
 * records or memory ran out. */
RUXO_EXPORT int nnt_v1_init(nnt_handle *h) RUXO_NOEXCEPT;
/* Frees the op_ctx; the descriptor is the container's. */
RUXO_EXPORT void nnt_v1_close(nnt_handle *h) RUXO_NOEXCEPT;
/* The calls of nnt.h that forward here are called the same without the "v1_": nnt_get, nnt_get_range and so on. */
RUXO_EXPORT int nnt_v1_get(nnt_handle *h, uint64_t whence, nnt_multitype *v) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_get_range(nnt_handle *h, uint64_t whence, int cnt, nnt_multitype *v) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_get_raw_range(nnt_handle_readfast *rf, uint64_t whence, int cnt,
                                     nnt_range_raw_data *data) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_put(nnt_handle *h, uint64_t whence, const nnt_multitype *v) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_put_range(nnt_handle *h, uint64_t whence, int icnt,
                                 const nnt_multitype *v) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_rewind_epoch(nnt_handle *h, uint64_t whence, int fd) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_merge(nnt_handle *dst, nnt_handle *src, const char **error) RUXO_NOEXCEPT;
/* Make and free a view's op_ctx, which is null where memory ran out: reading does not need it. `h` is not looked at. */
RUXO_EXPORT void nnt_v1_init_readfast(nnt_handle_readfast *rf, nnt_handle *h) RUXO_NOEXCEPT;
RUXO_EXPORT void nnt_v1_uninit_readfast(nnt_handle_readfast *rf) RUXO_NOEXCEPT;
/* nnt_get_fast. */
RUXO_EXPORT int nnt_v1_get_readfast(nnt_handle_readfast *rf, uint64_t whence, nnt_multitype *v) RUXO_NOEXCEPT;
/* What nnt_get_fast_range does for this version; it has no place in the table. */
RUXO_EXPORT int nnt_v1_get_readfast_range(nnt_handle_readfast *rf, uint64_t whence, int cnt,
                                          nnt_multitype *v) RUXO_NOEXCEPT;
/* nnt_get_fast_apocalypse, nnt_delete, and two that are called as there. */
RUXO_EXPORT int nnt_v1_get_readfast_apocalypse(nnt_handle_readfast *rf, uint64_t *whence) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_delete_range(nnt_handle *h, nnt_handle *h2, uint64_t end) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_get_apocalypse(nnt_handle *h, uint64_t *whence) RUXO_NOEXCEPT;
RUXO_EXPORT int nnt_v1_get_create_time(nnt_handle *h, uint64_t *whence) RUXO_NOEXCEPT;

/* The operations of version 1. */
RUXO_EXPORT extern const nnt_opset nnt_v1_opset;

RUXO_END_DECLS

#endif
