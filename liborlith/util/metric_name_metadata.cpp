// Taking one block off the end of a metric name.
#include <cstring>
#include <string_view>

#include "liborlith/util/metric_name.h"
#include "ruxo/util.h"

namespace {

constexpr char kBlockSeparator = '|';
constexpr std::string_view kMeasurementMarker = "MT{";
constexpr std::string_view kStreamMarker = "ST[";

bool has_marker(const mem_reader_t &block, std::string_view marker) {
  return ruxo_memmem(block.input_buffer, block.input_buffer_size, marker.data(), marker.size()) != nullptr;
}

// The marker counts wherever it stands. Every node cuts names in this way and must go on doing so, or the same
// name would be two metrics (tests: MetricNameMetadata).
int kind_of(const mem_reader_t &block) {
  if (block.input_buffer_size == 0) return METRIC_NAME_METADATA_NONE;
  const uint8_t last = block.input_buffer[block.input_buffer_size - 1];
  if (has_marker(block, kMeasurementMarker))
    return last == '}' ? METRIC_NAME_METADATA_MEASUREMENT_TAGS : METRIC_NAME_METADATA_NONE;
  return last == ']' && has_marker(block, kStreamMarker) ? METRIC_NAME_METADATA_STREAM_TAGS
                                                         : METRIC_NAME_METADATA_NONE;
}

}  // namespace

int metric_name_parse_next_metadata(const mem_reader_t *metric_name_in, mem_reader_t *metric_name_out,
                                    mem_reader_t *metadata_type, mem_reader_t *metadata_value) {
  const mem_reader_t name = *metric_name_in;
  *metric_name_out = name;
  mem_reader_init_empty(metadata_type);
  mem_reader_init_empty(metadata_value);
  mem_reader_t block;
  mem_reader_find_pos_after_sep_from_end(&name, kBlockSeparator, &block);
  const int kind = kind_of(block);
  if (kind == METRIC_NAME_METADATA_NONE) return kind;
  // A marker and a closing byte make at least 4 bytes.
  mem_reader_init_mem(metadata_type, block.input_buffer, 2);
  mem_reader_init_mem(metadata_value, block.input_buffer + 3, block.input_buffer_size - 4);
  mem_reader_truncate_to(&name, metadata_type, 1, metric_name_out);
  return kind;
}
