/* Named log streams.
 *
 * A stream has a name ("debug/oil"), is enabled or not, and writes to any number of outlets. A line is
 * formatted only when its stream is live (see ruxo_log_stream_is_live), so a call on a dead stream costs two
 * loads.
 *
 * Lines are queued and written by a background thread, which the first line starts. No line is lost: when the
 * queue is full (8192 lines or 8 MiB), a thread that logs writes out what is queued; leaving the process by
 * exit() or by returning from main() writes the rest; a forked child starts with an empty queue and can log
 * at once. Only abort(), _exit() and a signal lose what is queued, so those who abort go synchronous first.
 * What an outlet cannot take (a full disk) is reported once on standard error.
 *
 * Logging needs no initialisation: it works before main() and in exit handlers. All functions may be called
 * on any thread, but not in signal handlers. Streams and outlets belong to the framework and are never freed.
 * Texts given in are copied; none of the functions below keeps an argument. doc/log-lines.md describes the
 * written lines. */
#ifndef RUXO_LOG_H
#define RUXO_LOG_H

#include <stdarg.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The head that liveness checks read; the rest belongs to the framework. */
struct ruxo_log_stream {
  int live; /* 1 while enabled with a material outlet; read and written atomically */
};
/* Null means off: every call takes it unless it says otherwise. */
typedef struct ruxo_log_stream *ruxo_log_stream_t;

/* Where lines go; shared by any number of streams. */
typedef struct ruxo_log_outlet *ruxo_log_outlet_t;

/* The global streams "error" and "notice" (to standard error, enabled) and "debug" (no outlet, so off). A host may
 * replace each, or set it to null, before other threads log. */
RUXO_EXPORT extern ruxo_log_stream_t ruxo_error;
RUXO_EXPORT extern ruxo_log_stream_t ruxo_notice;
RUXO_EXPORT extern ruxo_log_stream_t ruxo_debug;

/* Non-zero while liveness may come from elsewhere than the stream: one for the global switch, and one for
 * each thread whose active span collects logs. Read by the liveness check below; written by the framework
 * only. */
RUXO_EXPORT extern int ruxo_log_overrides;

/* The stream of that name: the one there is, else a new one, enabled and without an outlet. Null when memory
 * ran out. */
RUXO_EXPORT ruxo_log_stream_t ruxo_log_stream_new(const char *name);

/* The stream of that name; null when there is none. */
RUXO_EXPORT ruxo_log_stream_t ruxo_log_stream_find(const char *name);

/* Whether there is a stream of that name. */
RUXO_EXPORT ruxo_boolean ruxo_log_stream_exists(const char *name);

/* The name of a stream (not null), valid for the life of the process. */
RUXO_EXPORT const char *ruxo_log_stream_name(ruxo_log_stream_t ls);

/* Switches a stream (not null) on or off. Lines logged before keep their way. */
RUXO_EXPORT void ruxo_log_stream_enable(ruxo_log_stream_t ls);
RUXO_EXPORT void ruxo_log_stream_disable(ruxo_log_stream_t ls);

/* Lets later lines of a stream (not null) go to the outlet (not null) as well; an outlet it has already is
 * not added again. False, changing nothing, when memory ran out. */
RUXO_EXPORT ruxo_boolean ruxo_log_stream_add_outlet(ruxo_log_stream_t ls, ruxo_log_outlet_t outlet);

/* Takes all outlets from a stream (not null): later lines go nowhere, lines logged before still arrive. */
RUXO_EXPORT void ruxo_log_stream_remove_outlets(ruxo_log_stream_t ls);

/* The outlet that writes to standard error: one JSON object a line with `json`, else logfmt. Always the same
 * two. */
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_stderr(ruxo_boolean json);

/* A new outlet that appends to the file `path`, which is created (mode 0644) if missing. Several outlets and
 * processes may append to one file. Null, with errno, when it cannot be opened or memory ran out. */
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_file(const char *path, ruxo_boolean json);

/* Writes what is queued, then opens a file outlet's path anew, as is due after a rotation has renamed the
 * file. True, also for other outlets; false with errno when it cannot be opened, and the old file stays in
 * use. */
RUXO_EXPORT ruxo_boolean ruxo_log_outlet_reopen(ruxo_log_outlet_t outlet);

/* A new outlet for tests, which keeps messages in memory, as the caller wrote them: with their newline, and
 * without time, stream and source. Null when memory ran out. */
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_memory(void);

/* The number of messages that a memory outlet holds, and the one at `index` in the order logged, borrowed
 * until the outlet is cleared; null past the end. All three first write what is queued; for other outlets
 * they find nothing. */
RUXO_EXPORT size_t ruxo_log_outlet_memory_count(ruxo_log_outlet_t outlet);
RUXO_EXPORT const char *ruxo_log_outlet_memory_line(ruxo_log_outlet_t outlet, size_t index);
RUXO_EXPORT void ruxo_log_outlet_memory_clear(ruxo_log_outlet_t outlet);

/* Whether the stream has an outlet; false for null. */
RUXO_EXPORT ruxo_boolean ruxo_log_has_material_output(ruxo_log_stream_t ls);

/* While logging is globally enabled, every stream is live, and lines of a stream without an outlet go to
 * standard error. Off at the start. */
RUXO_EXPORT ruxo_boolean ruxo_log_global_enabled(void);
RUXO_EXPORT void ruxo_log_set_global_enabled(ruxo_boolean enabled);

/* Writes everything queued, then lets every later line be written before its call returns: after it, abort()
 * loses nothing. */
RUXO_EXPORT void ruxo_log_go_synch(void);

/* Queues lines again, as at the start. */
RUXO_EXPORT void ruxo_log_go_asynch(void);

/* Returns when every line logged before the call has been written. */
RUXO_EXPORT void ruxo_log_flush(void);

/* The part of the liveness check below that does not look at the stream's own settings; false for null. */
RUXO_EXPORT ruxo_boolean ruxo_log_stream_is_live_overridden(ruxo_log_stream_t ls);

/* Whether a line on `ls` would be kept: the stream is enabled and has a material outlet, or logging is
 * globally enabled, or this thread's active span collects logs. False for null. */
static inline ruxo_boolean ruxo_log_stream_is_live(ruxo_log_stream_t ls) {
  if (ls == NULL) return ruxo_false;
  if (__atomic_load_n(&ls->live, __ATOMIC_RELAXED) != 0) return ruxo_true;
  return __atomic_load_n(&ruxo_log_overrides, __ATOMIC_RELAXED) != 0 &&
         ruxo_log_stream_is_live_overridden(ls);
}

/* Writes one line to where the stream's lines go at this moment, without a look at the stream's liveness by
 * the caller: a dead or null stream drops it. The format is printf's and ends in "\n"; `file` (a literal,
 * borrowed for ever) and `line` are the source that is named. A message of several lines stays one record,
 * however long. errno is left as it was. */
RUXO_EXPORT void ruxo_log_write(ruxo_log_stream_t ls, const char *file, int line, const char *format, ...)
    RUXO_PRINTF(4, 5);
RUXO_EXPORT void ruxo_log_vwrite(ruxo_log_stream_t ls, const char *file, int line, const char *format,
                                 va_list args) RUXO_PRINTF(4, 0);

/* Writes one line (the format ends in "\n") if the stream is live; its arguments are evaluated only then. */
#define ruxo_log(ls, ...)                                               \
  do {                                                                  \
    ruxo_log_stream_t ruxo_log_target = (ls);                           \
    if (ruxo_log_stream_is_live(ruxo_log_target))                       \
      ruxo_log_write(ruxo_log_target, __FILE__, __LINE__, __VA_ARGS__); \
  } while (0)

RUXO_END_DECLS

#endif
