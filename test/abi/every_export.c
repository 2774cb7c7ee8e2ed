/* Calls everything that the shared libraries export, from C, with ordinary arguments, and checks a result of each.
 * exports_match_headers sees to it that nothing is left out; not_called.txt has what cannot be called, and why. */
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "test/abi/abi_checks.h"

static _Atomic int checks, failures; /* callbacks check on threads of the framework */

void abi_check(bool holds, const char *condition, const char *file, int line) {
  ++checks;
  if (holds) return;
  ++failures;
  fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
}

bool abi_same_text(const char *a, const char *b) {
  return a != NULL && b != NULL && strcmp(a, b) == 0;
}

void abi_write_file(const char *path, const char *text) {
  FILE *file = fopen(path, "w");
  CHECK(file != NULL);
  if (file == NULL) return;
  CHECK(fputs(text, file) >= 0);
  CHECK(fclose(file) == 0);
}

char *abi_copy(const char *text) {
  const size_t size = strlen(text) + 1;
  char *copy = malloc(size);
  if (copy == NULL) abort();
  return memcpy(copy, text, size);
}

static int remove_entry(const char *path, const struct stat *status, int kind, struct FTW *place) {
  (void)status, (void)kind, (void)place;
  return remove(path);
}

int main(void) {
  char folder[] = "/tmp/orlith-abi-XXXXXX";
  CHECK(mkdtemp(folder) != NULL && chdir(folder) == 0);
  call_init();
  call_ruxo_data();
  call_ruxo_log();
  call_http();
  call_pobe();
  call_vaskllhist();
  call_readers();
  call_hooks();
  call_metric_name();
  call_oil();
  call_join();
  call_go_asynch();
  call_art_tree();
  call_art_image();
  call_vask_move();
  call_http_header_parse();
  call_fs_helpers();
  call_cfssz();
  call_metric_locator();
  call_histogram_line();
  call_histogram_series();
  call_nnt();
  call_rollup();
  call_topo();
  call_peers();
  CHECK(chdir("/") == 0 && nftw(folder, remove_entry, 8, FTW_DEPTH | FTW_PHYS) == 0);
  printf("%d checks, %d failed\n", checks, failures);
  return failures == 0 ? 0 : 1;
}
