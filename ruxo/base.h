/* What every header of the framework starts from: linkage, visibility, the boolean type. */
#ifndef RUXO_BASE_H
#define RUXO_BASE_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define RUXO_BEGIN_DECLS extern "C" {
#define RUXO_END_DECLS }
#define RUXO_NOEXCEPT noexcept
#else
#define RUXO_BEGIN_DECLS
#define RUXO_END_DECLS
#define RUXO_NOEXCEPT
#endif

#define RUXO_EXPORT __attribute__((visibility("default")))
/* Lets the compiler check a printf-style format; both positions count from 1. */
#define RUXO_PRINTF(format_position, first_argument) \
  __attribute__((format(printf, format_position, first_argument)))

typedef bool ruxo_boolean;
#define ruxo_true true
#define ruxo_false false

#endif
