/* Configuration: XML files, looked up by XPath 1.0. doc/configuration.md describes the files.
 *
 * The process has one current configuration, or none: then every look-up finds nothing, so a program that never
 * loads one runs on its defaults. Loading replaces the current configuration as a whole: a look-up sees the old or
 * the new one. What belongs together is read under one list (below), which keeps the configuration it was made from.
 *
 * Files are trusted with what they say, not with how much: sizes, includes and their nesting are limited, a document
 * type is refused (so there are no entities but XML's own five), and nothing is fetched from a network.
 *
 * A look-up takes a node to start from and an expression. Null stands for the current configuration's top; relative
 * expressions start at the node. Of several matches the first in the document counts; an element's text is that of
 * all it holds. An expression that is no XPath, or whose evaluation takes more than ten million steps, finds nothing
 * valid.
 *
 * The getters leave *value as it is unless they find something, so that the caller puts the default there first:
 *     int64_t period_s = 60;
 *     ruxo_conf_get_int64(NULL, "/orlith/rollup/@period", &period_s);
 * What is there but is not of the wanted form is logged to the error stream with its file and line.
 *
 * Threads: any, at any time; a list is read by any number of threads until one frees it. */
#ifndef RUXO_CONF_H
#define RUXO_CONF_H

#include "ruxo/base.h"
#include "ruxo/uuid.h"

RUXO_BEGIN_DECLS

/* The bytes of all files of a configuration together (a file that is included twice counts twice), the number of
 * includes, and how deep they may be nested. */
#define RUXO_CONF_MAX_BYTES ((size_t)1 << 20)
#define RUXO_CONF_MAX_INCLUDES 1000
#define RUXO_CONF_MAX_INCLUDE_DEPTH 8

/* ---- The current configuration ---- */

/* Reads the file `path` and what it includes, and makes that the current configuration. Returns 0; -1 when anything
 * is wrong, and then the current configuration stays. *err (unless `err` is null) becomes null, or a message that
 * the caller frees: the file, the line where there is one, and what was found. */
RUXO_EXPORT int ruxo_conf_load(const char *path, char **err);

/* The same for a text of `len` bytes in place of the file `path`, which need not exist: messages name it, and what
 * is included is looked for beside it. */
RUXO_EXPORT int ruxo_conf_load_text(const char *text, size_t len, const char *path, char **err);

/* Goes back to no configuration. */
RUXO_EXPORT void ruxo_conf_unload(void);

/* Copies the absolute name of the configuration file, with its NUL, to the `len` bytes at `buff`. A name that was
 * relative is taken from the folder that was current when it was loaded. False, and an empty text (where `len` is
 * not 0), when there is no configuration or the name does not fit. */
RUXO_EXPORT ruxo_boolean ruxo_conf_config_filename(char *buff, size_t len);

/* ---- Nodes ---- */

/* An element or an attribute. */
typedef struct ruxo_conf_node ruxo_conf_node_t;
/* Nodes, and the configuration that they are in. Null is an empty list. */
typedef struct ruxo_conf_list ruxo_conf_list_t;

/* The elements and attributes that match, in the order of the document; the caller frees the list, but not before
 * its last use of a node from it. Null when there are none, the expression gives no nodes (which is logged), or
 * memory ran out. */
RUXO_EXPORT ruxo_conf_list_t *ruxo_conf_list_new(const ruxo_conf_node_t *at, const char *xpath);

/* The number of nodes, and the one at `index`, which belongs to the list; null past the end. */
RUXO_EXPORT size_t ruxo_conf_list_size(const ruxo_conf_list_t *list);
RUXO_EXPORT const ruxo_conf_node_t *ruxo_conf_list_at(const ruxo_conf_list_t *list, size_t index);

/* Frees the list, and the configuration if it was its last use. Null is ignored. */
RUXO_EXPORT void ruxo_conf_list_free(ruxo_conf_list_t *list);

/* The name of the element or attribute without its prefix, and where it stands, for messages: the absolute name of
 * the file, and the line, counted from 1, where its element's start tag ends. Texts live as long as the list. */
RUXO_EXPORT const char *ruxo_conf_node_name(const ruxo_conf_node_t *node);
RUXO_EXPORT const char *ruxo_conf_node_file(const ruxo_conf_node_t *node);
RUXO_EXPORT long ruxo_conf_node_line(const ruxo_conf_node_t *node);

/* ---- Values ---- */

typedef enum {
  RUXO_CONF_INVALID = -1, /* there, but not of the wanted form (which is logged), or memory ran out */
  RUXO_CONF_ABSENT = 0,
  RUXO_CONF_FOUND = 1
} ruxo_conf_result_t;

/* Whole numbers in decimal, with a sign or none, that the type holds. White space around the values of all getters
 * but those of text is ignored. */
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_int32(const ruxo_conf_node_t *at, const char *xpath,
                                                   int32_t *value);
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_int64(const ruxo_conf_node_t *at, const char *xpath,
                                                   int64_t *value);
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_uint64(const ruxo_conf_node_t *at, const char *xpath,
                                                    uint64_t *value);

/* A finite number in decimal, with a fraction and an exponent or none. */
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_double(const ruxo_conf_node_t *at, const char *xpath,
                                                    double *value);

/* "true", "yes", "on", "1"; "false", "no", "off", "0"; in lower case only. */
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_boolean(const ruxo_conf_node_t *at, const char *xpath,
                                                     ruxo_boolean *value);

/* The 36 characters of a UUID, in either case. */
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_uuid(const ruxo_conf_node_t *at, const char *xpath,
                                                  ruxo_uuid_t value);

/* The text as it stands, UTF-8, with a NUL, to the `size` bytes at `buff`; a text that does not fit is not valid,
 * and is not cut. */
RUXO_EXPORT ruxo_conf_result_t ruxo_conf_get_text(const ruxo_conf_node_t *at, const char *xpath, char *buff,
                                                  size_t size);

/* A copy of the text as it stands, however long, or of `fallback` where there is none; the caller frees it. Null for
 * a null fallback, and when memory ran out. */
RUXO_EXPORT char *ruxo_conf_get_string(const ruxo_conf_node_t *at, const char *xpath, const char *fallback);

RUXO_END_DECLS

#endif
