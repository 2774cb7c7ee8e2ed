#include "liborlith/util/rw_buffer.h"

#include <cstddef>

static_assert(sizeof(rw_buffer_t) == sizeof(mem_reader_t) && offsetof(rw_buffer_t, mem) == 0);

namespace {

// Views from elsewhere are compared with the region too, so positions are compared as addresses: ordering
// unrelated pointers is not defined.
uintptr_t address(const mem_reader_t &view) noexcept {
  return reinterpret_cast<uintptr_t>(view.input_buffer);
}

// The region was given as writable bytes; only the reader that carries it is read-only.
uint8_t *writable(const uint8_t *bytes) noexcept {
  return const_cast<uint8_t *>(bytes);
}

}  // namespace

void rw_buffer_init(rw_buffer_t *s) {
  mem_reader_init_empty(&s->mem);
}

void rw_buffer_fill(rw_buffer_t *s, void *bytes, size_t size) {
  mem_reader_init_mem(&s->mem, bytes, size);
}

void rw_buffer_get_reader(const rw_buffer_t *s, mem_reader_t *output) {
  *output = s->mem;
}

ruxo_boolean rw_buffer_write_preceding_byte(rw_buffer_t *s, const mem_reader_t *successor, char write_char) {
  if (successor->input_buffer == nullptr) return ruxo_false;
  if (address(*successor) <= address(s->mem)) return ruxo_false;
  const size_t offset_bytes = address(*successor) - address(s->mem);
  if (offset_bytes > s->mem.input_buffer_size) return ruxo_false;
  writable(s->mem.input_buffer)[offset_bytes - 1] = static_cast<uint8_t>(write_char);
  return ruxo_true;
}

uint8_t *rw_buffer_get_buffer(const rw_buffer_t *s, const mem_reader_t *pos) {
  if (pos->input_buffer == nullptr) return nullptr;
  if (s->mem.input_buffer == nullptr || address(*pos) < address(s->mem)) return nullptr;
  // Offsets rather than ends: the end of a view with a wild size could wrap.
  const size_t offset_bytes = address(*pos) - address(s->mem);
  const size_t region_bytes = s->mem.input_buffer_size;
  if (offset_bytes > region_bytes || pos->input_buffer_size > region_bytes - offset_bytes) return nullptr;
  return writable(s->mem.input_buffer) + offset_bytes;
}
