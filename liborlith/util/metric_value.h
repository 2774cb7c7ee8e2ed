/* A value as it arrives in an ingestion line, and its type code. The lines are read by orollupd/rollup.h and
 * util/histogram.h. */
#ifndef LIBORLITH_UTIL_METRIC_VALUE_H
#define LIBORLITH_UTIL_METRIC_VALUE_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The type of a value, in lines its letter. A plain 32-bit integer, since any byte may stand in a line. */
typedef uint32_t orlith_metric_type_t;
enum orlith_metric_type {
  ORLITH_METRIC_ABSENT = 0,
  ORLITH_METRIC_HISTOGRAM_ENTRY = 16,
  ORLITH_METRIC_HISTOGRAM_CUMULATIVE_ENTRY = 32,
  ORLITH_METRIC_GUESS = 48,                /* '0' */
  ORLITH_METRIC_HISTOGRAM_CUMULATIVE = 72, /* 'H' */
  ORLITH_METRIC_UINT32 = 73,               /* 'I' */
  ORLITH_METRIC_UINT64 = 76,               /* 'L' */
  ORLITH_METRIC_HISTOGRAM = 104,           /* 'h' */
  ORLITH_METRIC_INT32 = 105,               /* 'i' */
  ORLITH_METRIC_INT64 = 108,               /* 'l' */
  ORLITH_METRIC_DOUBLE = 110,              /* 'n' */
  ORLITH_METRIC_STRING = 115               /* 's' */
};

typedef struct metric_value {
  uint64_t whence_ms;
  orlith_metric_type_t type;
  bool is_null; /* a sample without a value; storage is then zero */
  union {
    int32_t v_int32;
    uint32_t v_uint32;
    int64_t v_int64;
    uint64_t v_uint64;
    double v_double;
    char *v_string; /* NUL-terminated, from malloc, the caller's */
  } storage;
} metric_value_t;

RUXO_END_DECLS

#endif
