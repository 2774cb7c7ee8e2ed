/* Small helpers: bounded search, folders for a file, the time of day, the calling task. Any thread. */
#ifndef RUXO_UTIL_H
#define RUXO_UTIL_H

#include <sys/types.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The first occurrence of the needle's bytes within the `len` bytes of the haystack, as a pointer into it;
 * null when there is none. An empty needle is found at the start. NULs are bytes like others. */
RUXO_EXPORT const void *ruxo_memmem(const void *haystack, size_t len, const void *needle, size_t needle_len);

/* Creates every missing parent folder of the file `path` with `mode` (less the umask); the file itself is
 * left alone. Several callers at once are fine. Returns 0; -1 with errno (ENOTDIR where a parent is no
 * folder), and the folders made so far stay. */
RUXO_EXPORT int mkdir_for_file(const char *path, mode_t mode);

/* The wall clock, in milliseconds since the Unix epoch. */
RUXO_EXPORT uint64_t ruxo_now_ms(void);

/* The kernel's number of the calling thread, as log lines and requests to peers carry it. */
RUXO_EXPORT uint64_t ruxo_task_id(void);

RUXO_END_DECLS

#endif
