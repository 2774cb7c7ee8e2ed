// Ingestion lines cut at their TABs, the plain way: where models of their parsers begin.
#ifndef TEST_SUPPORT_LINE_FIELDS_H
#define TEST_SUPPORT_LINE_FIELDS_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "test/support/locators.h"

// At most `at_most` fields; the last one runs to the end of the text, over the TABs that are left.
inline std::vector<std::string_view> cut_at_tabs(std::string_view text, size_t at_most) {
  std::vector<std::string_view> fields;
  while (fields.size() + 1 < at_most && text.find('\t') != text.npos) {
    fields.push_back(text.substr(0, text.find('\t')));
    text.remove_prefix(text.find('\t') + 1);
  }
  fields.push_back(text);
  return fields;
}

// What a line has after its record's kind and, unless it comes bundled, its source: the timestamp, the check, the
// name, and so on up to `count` fields.
inline std::vector<std::string_view> line_fields(std::string_view line, bool bundled, size_t count) {
  const size_t before = bundled ? 1 : 2;
  std::vector<std::string_view> fields = cut_at_tabs(line, before + count);
  fields.erase(fields.begin(), fields.begin() + static_cast<ptrdiff_t>(std::min(before, fields.size())));
  return fields;
}

// The code of a line that lacks some of its `count` fields: -1 without a timestamp, -2 without a check, and so on; 1
// when none is missing.
inline int code_of_missing(const std::vector<std::string_view> &fields, size_t count) {
  return fields.size() < count ? -1 - static_cast<int>(fields.size()) : 1;
}

// The last 36 bytes of a check field, which have to be a UUID: -6 when there are fewer, -7 when they are none.
inline int code_of_check(std::string_view check, std::string *uuid) {
  if (check.size() < 36) return -6;
  *uuid = check.substr(check.size() - 36);
  Uuid parsed;
  return ruxo_uuid_parse(uuid->c_str(), parsed.bytes) == 0 ? 1 : -7;
}

#endif
