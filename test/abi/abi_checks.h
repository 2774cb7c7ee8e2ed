/* What the parts of test_abi share. They are C: hosts are, and no compiler but a C compiler proves that the headers
 * and the shared libraries are enough for them. */
#ifndef TEST_ABI_ABI_CHECKS_H
#define TEST_ABI_ABI_CHECKS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* Counts and reports a condition that does not hold; the program then fails at its end. */
#define CHECK(condition) abi_check((condition), #condition, __FILE__, __LINE__)
#define CHECK_TEXT(actual, expected) CHECK(abi_same_text((actual), (expected)))

void abi_check(bool holds, const char *condition, const char *file, int line);
bool abi_same_text(const char *a, const char *b); /* false for null */
void abi_write_file(const char *path, const char *text);
char *abi_copy(const char *text); /* from malloc */

/* Each calls every function that the public headers of its subject export, in a temporary working folder that the
 * caller removes with what is left in it. */
void call_ruxo_data(void);
void call_ruxo_log(void);
void call_http(void);
void call_pobe(void);
void call_vaskllhist(void);
void call_init(void);
void call_readers(void);
void call_hooks(void);
void call_metric_name(void);
void call_oil(void);
void call_join(void);
void call_go_asynch(void);
void call_art_tree(void);
void call_art_image(void);
void call_vask_move(void);
void call_http_header_parse(void);
void call_fs_helpers(void);
void call_cfssz(void);
void call_metric_locator(void);
void call_histogram_line(void);
void call_histogram_series(void);
void call_nnt(void);
void call_topo(void);
void call_peers(void);
void call_rollup(void);

#endif
