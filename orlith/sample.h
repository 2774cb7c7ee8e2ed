// One measurement on its way into an M line or a histogram line, and the spelling of metric names with stream tags.
#ifndef ORLITH_SAMPLE_H
#define ORLITH_SAMPLE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "vaskllhist/vaskllhist.h"

// The alternative decides the type letter: L, l, I, i, n, s. A double that is not a number is written as null.
using SampleValue = std::variant<uint64_t, int64_t, uint32_t, int32_t, double, std::string>;

struct Sample {
  std::string name;
  SampleValue value;
};

using Tags = std::vector<std::pair<std::string_view, std::string_view>>;

// The canonical name: `name|ST[category:value,...]`, tags sorted, values that cannot stand plainly in the b"..."
// form. Values are bytes from outside: control bytes and invalid UTF-8 are escaped first, and a value too long for
// a tag keeps its beginning and gets a hash of the whole.
std::string tagged_name(std::string_view name, const Tags &tags);

// "M<TAB>seconds.milliseconds<TAB>check<TAB>name<TAB>type<TAB>value<LF>", the form without a source field.
void append_m_line(std::string &out, uint64_t time_ms, std::string_view check_uuid, const Sample &sample);

// "H<TAB>seconds.milliseconds<TAB>check<TAB>name<TAB>histogram in base64<LF>", the form without a source field.
void append_h_line(std::string &out, uint64_t time_ms, std::string_view check_uuid, std::string_view name,
                   const histogram_t *histogram);

#endif
