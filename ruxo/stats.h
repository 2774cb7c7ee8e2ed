/* Statistics: counters, gauges and latency histograms in namespaces, and their text for a Prometheus collector.
 *
 * A namespace holds handles by name; a name with its labels is one handle. Handles are made once and live as long as
 * the process; adding to one takes no lock. Any thread, all functions.
 *
 * In the text a handle's name is that of its namespaces and its own, joined by '_'; a counter's ends in "_total" and a
 * latency's in "_seconds", which is added where it is missing. Handles whose names come to the same there are one
 * metric, of one type, with the help text that came first. */
#ifndef RUXO_STATS_H
#define RUXO_STATS_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

typedef struct stats_ns stats_ns_t;
typedef struct stats_handle stats_handle_t;

typedef enum {
  STATS_TYPE_COUNTER, /* whole numbers that only grow */
  STATS_TYPE_GAUGE,   /* a double that is set */
  STATS_TYPE_LATENCY  /* seconds, counted in buckets, with their sum */
} stats_type_t;

/* The namespace `name` below `parent` (null: at the top), made when it is new. Null for a name that is not
 * [a-zA-Z_][a-zA-Z0-9_]*, and without memory. */
RUXO_EXPORT stats_ns_t *stats_ns_get(stats_ns_t *parent, const char *name);

/* The handle `name` of the namespace, with labels "key=value,key=value" (null: none; the values are any UTF-8 without
 * ',', the order does not matter) and a help text (copied; null: the name), made when it is new. Null for a bad name or
 * label ("le", a key that begins with "__", one that comes twice), another type than it has, or without memory. */
RUXO_EXPORT stats_handle_t *stats_register(stats_ns_t *ns, const char *name, const char *labels,
                                           stats_type_t type, const char *help);

/* Adding and setting; null is ignored, and so is a call for another type. A latency below 0 counts as 0, one that is no
 * finite number not at all. */
RUXO_EXPORT void stats_add(stats_handle_t *handle, uint64_t count);
RUXO_EXPORT void stats_set(stats_handle_t *handle, double value);
RUXO_EXPORT void stats_observe(stats_handle_t *handle, double seconds);

/* Current values: a counter's count or a latency's number of observations; a gauge's value or a latency's sum. 0 for
 * null and for another type. */
RUXO_EXPORT uint64_t stats_count(const stats_handle_t *handle);
RUXO_EXPORT double stats_value(const stats_handle_t *handle);

/* A gauge whose value is asked for when the text is written. `read` must be quick and may be called on any
 * thread; no lock is held then. Null also when the handle is there with another function or closure. */
RUXO_EXPORT stats_handle_t *stats_register_callback(stats_ns_t *ns, const char *name, const char *labels,
                                                    double (*read)(void *closure), void *closure,
                                                    const char *help);

/* The text exposition format, version 0.0.4: metrics in the order of their names, each with its HELP and TYPE, their
 * handles in the order of their labels. Returns a text with a NUL that the caller frees, and its length (`len` may be
 * null); null without memory. */
RUXO_EXPORT char *stats_prometheus_text(size_t *len);

RUXO_END_DECLS

#endif
