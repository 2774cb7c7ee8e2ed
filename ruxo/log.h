/* Named log streams.
 *
 * A stream has a name ("debug/oil"), is enabled or not, and writes to any number of outlets. A line is formatted
 * only when its stream is live (see ruxo_log_stream_is_live), so a call on a dead stream costs two loads. */
#ifndef RUXO_LOG_H
#define RUXO_LOG_H

#include <stdarg.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The head that liveness checks read; the rest belongs to the framework. */
struct ruxo_log_stream {
  int live; /* 1 while enabled with a material outlet; read and written atomically */
};
/* Null means off. */
typedef struct ruxo_log_stream *ruxo_log_stream_t;

/* An outlet is where lines go; owned by the framework, shared by any number of streams. */
typedef struct ruxo_log_outlet *ruxo_log_outlet_t;

/* The global streams "error" (to standard error, enabled) and "debug" (no outlet, so off). A host may replace
 * either, or set it to null. */
RUXO_EXPORT extern ruxo_log_stream_t ruxo_error;
RUXO_EXPORT extern ruxo_log_stream_t ruxo_debug;

/* Non-zero while liveness may come from elsewhere than the stream: logging is globally enabled, or some thread
 * has an active span that collects logs. */
RUXO_EXPORT extern int ruxo_log_overrides;

/* Streams: registered by name, never freed. */
RUXO_EXPORT ruxo_log_stream_t ruxo_log_stream_new(const char *name); /* the existing one if the name is taken */
RUXO_EXPORT ruxo_boolean ruxo_log_stream_exists(const char *name);
RUXO_EXPORT ruxo_log_stream_t ruxo_log_stream_find(const char *name); /* null when there is none */
RUXO_EXPORT const char *ruxo_log_stream_name(ruxo_log_stream_t ls);
RUXO_EXPORT void ruxo_log_stream_enable(ruxo_log_stream_t ls);
RUXO_EXPORT void ruxo_log_stream_disable(ruxo_log_stream_t ls);
/* False when memory ran out. */
RUXO_EXPORT ruxo_boolean ruxo_log_stream_add_outlet(ruxo_log_stream_t ls, ruxo_log_outlet_t outlet);
RUXO_EXPORT void ruxo_log_stream_remove_outlets(ruxo_log_stream_t ls);

/* Outlets. `json` chooses one JSON object a line instead of logfmt. */
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_stderr(ruxo_boolean json);
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_file(const char *path, ruxo_boolean json); /* null: errno says why */
/* Opens a file outlet's path anew, after a rotation has renamed the file. */
RUXO_EXPORT ruxo_boolean ruxo_log_outlet_reopen(ruxo_log_outlet_t outlet);

/* The outlet for tests keeps messages in memory, unformatted: the text as the caller wrote it. */
RUXO_EXPORT ruxo_log_outlet_t ruxo_log_outlet_memory(void);
/* The message at `index`, valid until the outlet is cleared; null past the end. Drains the queue first. */
RUXO_EXPORT const char *ruxo_log_outlet_memory_line(ruxo_log_outlet_t outlet, size_t index);
RUXO_EXPORT size_t ruxo_log_outlet_memory_count(ruxo_log_outlet_t outlet);
RUXO_EXPORT void ruxo_log_outlet_memory_clear(ruxo_log_outlet_t outlet);

RUXO_EXPORT ruxo_boolean ruxo_log_has_material_output(ruxo_log_stream_t ls);
RUXO_EXPORT ruxo_boolean ruxo_log_global_enabled(void);
RUXO_EXPORT void ruxo_log_set_global_enabled(ruxo_boolean enabled);

/* Lines are queued and written by one background thread, started by the first line. Going synchronous first
 * writes everything queued, then writes every later line before its call returns: after it, abort() loses
 * nothing. Safe from any thread. */
RUXO_EXPORT void ruxo_log_go_synch(void);
RUXO_EXPORT void ruxo_log_go_asynch(void);
RUXO_EXPORT void ruxo_log_flush(void);

RUXO_EXPORT ruxo_boolean ruxo_log_stream_is_live_overridden(ruxo_log_stream_t ls);

/* Whether a line on `ls` would be kept: the stream is enabled and has a material outlet, or logging is globally
 * enabled, or this thread's active span collects logs. False for null. */
static inline ruxo_boolean ruxo_log_stream_is_live(ruxo_log_stream_t ls) {
  if (ls == NULL) return ruxo_false;
  if (__atomic_load_n(&ls->live, __ATOMIC_RELAXED) != 0) return ruxo_true;
  return __atomic_load_n(&ruxo_log_overrides, __ATOMIC_RELAXED) != 0 && ruxo_log_stream_is_live_overridden(ls);
}

RUXO_EXPORT void ruxo_log_write(ruxo_log_stream_t ls, const char *file, int line, const char *format, ...)
    RUXO_PRINTF(4, 5);
RUXO_EXPORT void ruxo_log_vwrite(ruxo_log_stream_t ls, const char *file, int line, const char *format, va_list args)
    RUXO_PRINTF(4, 0);

/* Writes one line (the format ends in "\n") if the stream is live; its arguments are evaluated only then. */
#define ruxo_log(ls, ...)                                                   \
  do {                                                                      \
    ruxo_log_stream_t ruxo_log_target = (ls);                               \
    if (ruxo_log_stream_is_live(ruxo_log_target))                           \
      ruxo_log_write(ruxo_log_target, __FILE__, __LINE__, __VA_ARGS__);     \
  } while (0)

RUXO_END_DECLS

#endif
