#include "liborlith/util/metric_name.h"

#include <algorithm>
#include <climits>
#include <memory>
#include <string_view>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/util/metric_name_private.h"

ruxo_log_stream_t mn_debug_ls = nullptr;
ruxo_log_stream_t mn_error_ls = nullptr;

namespace {

constexpr std::string_view kStreamType = "ST";

const char *text_of(const mem_reader_t &reader) {
  return reinterpret_cast<const char *>(reader.input_buffer);
}

// The length as "%.*s" takes it.
int print_size(const mem_reader_t &reader) {
  return static_cast<int>(std::min(reader.input_buffer_size, size_t{INT_MAX}));
}

bool is_stream_type(const mem_reader_t &type) {
  mem_reader_t rest;
  return mem_reader_advance_if_match(&type, kStreamType.data(), kStreamType.size(), &rest) &&
         rest.input_buffer_size == 0;
}

struct FreeContext {
  void operator()(pobe_metric_tagset_context_t *ctx) const { pobe_metric_tagset_context_free(ctx); }
};

bool parse_stream_tags(const mem_reader_t &type, const mem_reader_t &list,
                       pobe_metric_tagset_t *stream_tags) {
  if (!is_stream_type(type)) return false;
  ruxo_log(mn_debug_ls, "Found stream tags to parse: %.*s\n", print_size(list), text_of(list));
  const std::unique_ptr<pobe_metric_tagset_context_t, FreeContext> ctx(pobe_metric_tagset_context_alloc());
  if (!ctx) return false;
  pobe_metric_tagset_context_set_validate_function(ctx.get(), reject_artificial_stream_tags);
  return pobe_metric_tagset_init_with_context(stream_tags, text_of(list), list.input_buffer_size,
                                              ctx.get()) == 0;
}

}  // namespace

void orlith_metric_name_lib_init(void) {
  static int started = 0;
  if (!liborlith::first_call(started)) return;
  liborlith::open_streams(mn_debug_ls, "debug/metric_name", mn_error_ls, "error/metric_name");
}

ruxo_boolean reject_artificial_stream_tags(const char *cat, size_t cat_len, const char *, size_t) {
  if (cat == nullptr) return ruxo_true;
  const std::string_view category(cat, cat_len);
  return category != "__name:" && category != "__type:" && category != "__activity:" &&
         category != "__check_uuid:";
}

ruxo_boolean metric_name_v1_parse(const mem_reader_t *metric_name_in, mem_reader_t *metric_name_out,
                                  pobe_metric_tagset_t *stream_tags) {
  ruxo_log(mn_debug_ls, "Parsing: %.*s\n", print_size(*metric_name_in), text_of(*metric_name_in));
  *metric_name_out = *metric_name_in;
  pobe_metric_tagset_init(stream_tags, nullptr, 0);
  bool has_stream_block = false;
  for (;;) {
    mem_reader_t type;
    mem_reader_t value;
    switch (metric_name_parse_next_metadata(metric_name_out, metric_name_out, &type, &value)) {
      case METRIC_NAME_METADATA_NONE:
        return ruxo_true;
      case METRIC_NAME_METADATA_MEASUREMENT_TAGS:
        break;
      case METRIC_NAME_METADATA_STREAM_TAGS:
        if (has_stream_block || !parse_stream_tags(type, value, stream_tags)) {
          pobe_metric_tagset_cleanup(stream_tags);
          return ruxo_false;
        }
        has_stream_block = true;
        break;
      default:
        liborlith_assert(ruxo_false);
    }
  }
}
