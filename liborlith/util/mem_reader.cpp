#include "liborlith/util/mem_reader.h"

#include <tuple>

static_assert(sizeof(mem_reader_t) == 16 && offsetof(mem_reader_t, input_buffer_size) == 8);

// The functions are inline in the header. Naming each one here makes the library carry it as a symbol too,
// for C hosts that are compiled without inlining and for callers that look symbols up at run time.
[[gnu::used]] static const auto emitted_symbols = std::tuple{
    &mem_reader_init_empty,       &mem_reader_init_mem,           &mem_reader_try_advance,
    &mem_reader_try_truncate,     &mem_reader_truncate_to,        &mem_reader_get_buffer,
    &mem_reader_get_buffer_size,  &mem_reader_find_pos_after_sep, &mem_reader_find_pos_after_sep_from_end,
    &mem_reader_advance_if_match,
};
