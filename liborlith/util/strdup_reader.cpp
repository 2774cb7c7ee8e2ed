#include "liborlith/util/strdup_reader.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

static_assert(sizeof(strdup_reader_t) == sizeof(rw_buffer_t) && offsetof(strdup_reader_t, to_free) == 0);

void strdup_reader_init(strdup_reader_t *s) {
  rw_buffer_init(&s->to_free);
}

void strdup_reader_cleanup(strdup_reader_t *s) {
  const uint8_t *copy = s->to_free.mem.input_buffer;
  if (copy == nullptr) return;
  free(const_cast<uint8_t *>(copy));
  strdup_reader_init(s);
}

ruxo_boolean strdup_reader_try_fill(strdup_reader_t *s, const char *input) {
  strdup_reader_cleanup(s);
  char *copy = strdup(input);
  if (copy == nullptr) return ruxo_false;
  rw_buffer_fill(&s->to_free, copy, strlen(copy));
  return ruxo_true;
}

rw_buffer_t *strdup_reader_get_buffer(strdup_reader_t *s) {
  return &s->to_free;
}
