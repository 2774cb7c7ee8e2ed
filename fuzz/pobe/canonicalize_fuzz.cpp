// Canonicalising any bytes under any flags: the result agrees with the naive model, is canonical, stays inside the
// buffer at every size, and splits into what the name splits into. First byte: the flags; the rest: the name.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "liborlith/util/metric_name.h"
#include "pobe/pobe.h"
#include "test/pobe/naive_metric_name.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

ssize_t canonicalize(const std::string &name, std::vector<char> &out, naive::Flags flags) {
  return pobe_metric_canonicalize_ex(name.data(), name.size(), out.data(), out.size(),
                                     flags.accept_stream_tags, flags.accept_measurement_tags,
                                     flags.keep_measurement_tags);
}

// An exact heap buffer of each size, so that the address sanitizer sees a byte too many.
void check_bounds(const std::string &name, const std::string &canonical, naive::Flags flags) {
  const size_t step = canonical.size() / 64 + 1;
  for (size_t size = 0; size <= canonical.size() + 1; size += step) {
    std::vector<char> out(size, '#');
    require(canonicalize(name, out, flags) == static_cast<ssize_t>(canonical.size()));
    const size_t written = size < canonical.size() ? size : canonical.size();
    for (size_t i = written; i < size; ++i) require(out[i] == '#');
    if (size >= canonical.size()) require(canonical == std::string(out.data(), canonical.size()));
  }
}

bool is_reserved(const std::string &category) {
  return category == "__name" || category == "__type" || category == "__activity" ||
         category == "__check_uuid";
}

// The plain name and the canonical tags that the splitter finds.
naive::Name split(const std::string &name) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name.data(), name.size());
  pobe_metric_tagset_t set;
  require(metric_name_v1_parse(&reader, &reader, &set));
  naive::Name result{name.substr(0, reader.input_buffer_size), {}, {}};
  for (int i = 0; i < set.tag_count; ++i)
    result.stream_tags.insert(naive::read_tags({set.tags[i].tag, set.tags[i].total_size}).value().at(0));
  pobe_metric_tagset_cleanup(&set);
  return result;
}

void check_splitter(const std::string &name, const std::string &canonical, const naive::Name &expected) {
  for (const naive::Pair &tag : expected.stream_tags)
    if (is_reserved(tag.first)) return;
  for (const std::string &text : {name, canonical}) {
    const naive::Name actual = split(text);
    require(actual.plain == expected.plain && actual.stream_tags == expected.stream_tags);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const naive::Flags flags{(data[0] & 1) == 0, (data[0] & 2) == 0, (data[0] & 4) != 0};
  const std::string name(reinterpret_cast<const char *>(data) + 1, size - 1);
  std::vector<char> out(name.size());
  const ssize_t result = canonicalize(name, out, flags);
  const auto expected = naive::read_name(name, flags);
  require((result >= 0) == expected.has_value());
  if (!expected) {
    require(std::string(pobe_error_text(result)) != "unknown error");
    return 0;
  }
  require(static_cast<size_t>(result) <= name.size());
  const std::string canonical(out.data(), static_cast<size_t>(result));
  require(canonical == naive::write_name(*expected));
  require(canonicalize(canonical, out, flags) == result);
  require(canonical == std::string(out.data(), canonical.size()));
  check_bounds(name, canonical, flags);
  check_splitter(name, canonical, *expected);
  return 0;
}
