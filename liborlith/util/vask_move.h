/* Moving, copying and deleting files.
 *
 * A file is copied through one read-only map of the whole source into a destination that is created, or truncated and
 * overwritten; a move unlinks the source afterwards. Nothing is ever renamed, so a move is the same within a file
 * system and across two. The destination gets the source's permission bits (subject to the umask) and is not synced.
 * A failure may leave a destination behind that is empty or holds a part; the source goes only after a complete copy.
 *
 * An empty file cannot be mapped and therefore can be neither moved nor copied: that is a failure like any other. The
 * source must not be cut short by others meanwhile.
 *
 * Failures are logged on the error stream with both paths and the system's text, each step on the debug stream.
 * Any thread; two operations on the same file at once are not coordinated. */
#ifndef LIBORLITH_UTIL_VASK_MOVE_H
#define LIBORLITH_UTIL_VASK_MOVE_H

#include "ruxo/eventer.h"
#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* The module's streams "debug/vask_move" and "error/vask_move". */
RUXO_EXPORT extern ruxo_log_stream_t vask_move_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t vask_move_error_ls;

/* Names the two job callbacks below ("vask_move_vask_asynch_unlink", "vask_move_vask_asynch_move") and opens the
 * streams; once in a process. */
RUXO_EXPORT void vask_move_init(void);

/* Moves the file `src` to the path `dest` (both NUL-terminated, only read during the call). When the first attempt
 * fails, the destination's missing folders are created with mode 0777, subject to the umask, and it is tried once
 * more. 0; or -1, with the reason logged and in errno. A source that cannot be unlinked is a failure although the
 * destination is then complete. */
RUXO_EXPORT int vask_synch_move(const char *src, const char *dest);

/* The same, but leaves the source in place. */
RUXO_EXPORT int vask_synch_copy(const char *src, const char *dest);

/* The closure of a move job: allocated with malloc, like both its strings. */
typedef struct vask_move_request {
  char *src;
  char *dest;
} vask_move_request_t;

/* The move as a job of the event loop. In the job's working phase (EVENTER_ASYNCH_WORK in `mask`) it does what
 * vask_synch_move does with the request, whose outcome only the log tells, frees the request and its strings, and
 * ends the event. In any other phase it does nothing and the closure stays the caller's. Always 0. */
RUXO_EXPORT int vask_asynch_move(eventer_t e, int mask, void *closure, struct timeval *now);

/* The same for unlinking the file whose path is the closure, a string allocated with malloc. Neither success nor
 * failure is logged. */
RUXO_EXPORT int vask_asynch_unlink(eventer_t e, int mask, void *closure, struct timeval *now);

RUXO_END_DECLS

#endif
