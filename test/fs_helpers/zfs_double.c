/* Stands for libzfs in tests: counts handles and tells made-up properties. Each WITHOUT_ leaves one function out. Any
 * thread; what it noted is read when all threads are done. */
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* What the tests set and read, looked up by name. */
int double_inits, double_finis, double_opens, double_closes;
int double_no_library, double_no_dataset;
int double_fails[8]; /* by number of the property */
int double_type;
char double_path[256];
char double_asked[64]; /* the properties asked for, a letter each */

/* Guards the counters and texts above. */
pthread_mutex_t double_lock = PTHREAD_MUTEX_INITIALIZER;

char double_library, double_dataset; /* what the handles point to */

#ifndef WITHOUT_INIT
void *libzfs_init(void) {
  pthread_mutex_lock(&double_lock);
  ++double_inits;
  pthread_mutex_unlock(&double_lock);
  return double_no_library ? NULL : &double_library;
}
#endif
#ifndef WITHOUT_FINI
void libzfs_fini(void *handle) {
  pthread_mutex_lock(&double_lock);
  if (handle == &double_library) ++double_finis;
  pthread_mutex_unlock(&double_lock);
}
#endif
#ifndef WITHOUT_OPEN
void *zfs_path_to_zhandle(void *handle, const char *path, int type) {
  if (handle != &double_library) return NULL;
  pthread_mutex_lock(&double_lock);
  ++double_opens;
  double_type = type;
  strncpy(double_path, path, sizeof double_path - 1);
  pthread_mutex_unlock(&double_lock);
  return double_no_dataset ? NULL : &double_dataset;
}
#endif
#ifndef WITHOUT_CLOSE
void zfs_close(void *handle) {
  pthread_mutex_lock(&double_lock);
  if (handle == &double_dataset) ++double_closes;
  pthread_mutex_unlock(&double_lock);
}
#endif
#ifndef WITHOUT_GET
int zfs_prop_get_numeric(void *handle, int property, uint64_t *value, int *source, char *text, size_t len) {
  static const uint64_t values[8] = {0, 0, 1000, 5000, 0, 237, 0, 0};
  char asked[2] = {(char)('0' + property), '\0'};
  pthread_mutex_lock(&double_lock);
  strcat(double_asked, asked);
  pthread_mutex_unlock(&double_lock);
  if (handle != &double_dataset || property < 0 || property > 7 || double_fails[property]) return -1;
  *value = values[property];
  *source = 1;
  memset(text, 'x', len); /* all of it may be written */
  return 0;
}
#endif
