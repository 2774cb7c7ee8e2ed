/* The value of one rollup slot, and how two of them are combined.
 *
 * A slot value carries a number with its standard deviation, and two rates with theirs: `derivative` (change per
 * second, either sign) and `counter` (the same for values that only grow). NaN in a rate means "undefined". The
 * functions below work on the caller's memory only, log nothing and keep no state: they may be called from any
 * thread, as long as no two threads work on the same value. Null pointers are not allowed. */
#ifndef LIBORLITH_NNT_NNT_MULTITYPE_H
#define LIBORLITH_NNT_NNT_MULTITYPE_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Type codes as they are stored in files. The width is fixed so that a code from outside the list is still an
 * ordinary value, which the encoder and the accumulation treat as "no number". */
#ifdef __cplusplus
typedef enum nnt_type_t : uint32_t {
#else
typedef enum nnt_type_t {
#endif
  NNT_TYPE_ABSENT = 0, /* no data in the slot */
  NNT_TYPE_NULL = 1,   /* a sample was seen, but its value was null */
  NNT_TYPE_INT32 = 2,
  NNT_TYPE_UINT32 = 3,
  NNT_TYPE_INT64 = 4,
  NNT_TYPE_UINT64 = 5,
  NNT_TYPE_DOUBLE = 6,
  NNT_TYPE_STRING = 7 /* no file version can store it */
} nnt_type_t;

/* One slot. `type` says which member of `value` holds the number; with NNT_TYPE_ABSENT nothing else is
 * meaningful. Files do not store `min`, `max` and the `_min` and `_max` of the rates. */
typedef struct nnt_multitype {
  nnt_type_t type;
  uint32_t count;         /* samples rolled into the value */
  uint8_t stddev_present; /* boolean: whether `stddev` is meaningful */
  float stddev;
  union {
    int32_t v_int32;
    uint32_t v_uint32;
    int64_t v_int64;
    uint64_t v_uint64;
    double v_double;
  } value;
  float min;
  float max;
  float derivative;
  float derivative_stddev;
  float derivative_min;
  float derivative_max;
  float counter;
  float counter_stddev;
  float counter_min;
  float counter_max;
} nnt_multitype;

/* Collects second-order rates for a standard deviation that is computed later. The caller owns the two arrays
 * and sizes them for all the calls of nnt_multitype_accum_second_order that it makes. */
typedef struct stddev_t {
  int32_t count;  /* entries used in each array */
  int32_t weight; /* the caller's; not used here */
  float derivative_sum;
  float counter_sum;
  float *derivative_values;
  float *counter_values;
} stddev_t;

/* How fast the two rates of a slot change, per unit of the caller's time, and their standard deviations. */
typedef struct second_order_derivative_t {
  float derivative;
  float counter;
  float derivative_stddev;
  float counter_stddev;
} second_order_derivative_t;

typedef struct api_nnt_multitype {
  nnt_multitype v;
  second_order_derivative_t s;
} api_nnt_multitype;

/* The largest sample count that accumulation leaves in a slot: the stored count has 16 bits. */
#define NNT_MULTITYPE_MAX_COUNT 65535

/* Merges `v` into `a`: the value weighted by sample counts, the derivative by the run weights `a_drun` and
 * `v_drun`, the counter by `a_crun` and `v_crun` (run weights are milliseconds in all callers; any common unit
 * will do), each standard deviation by pooling second moments.
 *
 * - When `a` is absent it becomes a copy of `v` except for its count; two absent sides leave it alone.
 * - A side that is null, a string or absent counts as the number 0 with its full weight.
 * - The merged number is an NNT_TYPE_UINT64 when the mean is integral, not negative and below 2^64, else an
 *   NNT_TYPE_INT64 when it is integral and at least -2^63, else an NNT_TYPE_DOUBLE. Two 32-bit numbers
 *   therefore give a 64-bit one; this widening is deliberate.
 * - A NaN rate is replaced by the other side's and never spoils a defined one; a variance that comes out
 *   negative or NaN gives a standard deviation of 0.
 * - `min`, `max` and the `_min` and `_max` of the rates are not merged.
 *
 * The value's mean and variance are computed in double precision, the rates in single precision. `v` is only
 * read and may be `a` itself. Returns the new sample count a_count + v_count (held at the limits of int), 0 when
 * both are absent. `a->count` is left as it was: storing the result is up to the caller. */
RUXO_EXPORT int nnt_multitype_accum_counts(nnt_multitype *a, int a_count, int a_drun, int a_crun,
                                           const nnt_multitype *v, int v_count, int v_drun,
                                           int v_crun) RUXO_NOEXCEPT;

/* Merges `v` into `a` with the two sample counts as all the weights, and stores the new count in `a`, at most
 * 65535. */
RUXO_EXPORT void nnt_multitype_accum(nnt_multitype *a, const nnt_multitype *v) RUXO_NOEXCEPT;

/* Rolls `vcnt` fine slots into the coarser slot `a`, in order; those with a count of 0 are passed over. Each fine
 * slot's rates weigh `vweight` (its width), and those already in `a` weigh `aweight`, which grows by `vweight`
 * with each slot used. `a->count` ends as the number of samples, at most 65535. Nothing happens for vcnt < 1. */
RUXO_EXPORT void nnt_multitype_rollup(nnt_multitype *a, int aweight, int vcnt, const nnt_multitype *v,
                                      int vweight) RUXO_NOEXCEPT;

/* Folds the change of the rates between the slots `prev` and `curr` into the second-order rates `a->s`, as a mean
 * weighted by time, and appends it to `stddev` (whose arrays must have room for one more entry). The times are in
 * the caller's unit; *derivative_weight is the time folded in so far and grows by curr_time - prev_time (in single
 * precision, held at the limits of int32_t). Equal times divide by zero, as floating point does. Does nothing
 * when either slot has a count of 0. */
RUXO_EXPORT void nnt_multitype_accum_second_order(api_nnt_multitype *a, const api_nnt_multitype *prev,
                                                  const api_nnt_multitype *curr, int32_t prev_time,
                                                  int32_t curr_time, stddev_t *stddev,
                                                  int32_t *derivative_weight) RUXO_NOEXCEPT;

RUXO_END_DECLS

#endif
