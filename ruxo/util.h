/* Small helpers: bounded search, folders for a file, the time of day. */
#ifndef RUXO_UTIL_H
#define RUXO_UTIL_H

#include <sys/types.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The first occurrence of the needle inside the haystack, or null. An empty needle is found at the start. */
RUXO_EXPORT const void *ruxo_memmem(const void *haystack, size_t len, const void *needle, size_t needle_len);
/* Creates every missing parent folder of `path` with `mode` (less the umask). 0, or -1 with errno. */
RUXO_EXPORT int mkdir_for_file(const char *path, mode_t mode);
/* Milliseconds since the Unix epoch. */
RUXO_EXPORT uint64_t ruxo_now_ms(void);
/* The kernel's number of the calling thread, as log lines and peers' requests carry it. */
RUXO_EXPORT uint64_t ruxo_task_id(void);

RUXO_END_DECLS

#endif
