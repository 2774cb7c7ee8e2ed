// The "M" line parsed the plain way, on NUL-terminated text with the C library: the model for the real parser.
#ifndef TEST_OROLLUPD_NAIVE_MLINE_H
#define TEST_OROLLUPD_NAIVE_MLINE_H

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/orollupd/rollup.h"
#include "test/support/line_fields.h"
#include "test/support/locators.h"

struct NaiveLine {
  int code = 0;
  uint64_t whence_ms = 0;
  metric_value_t value{};  // v_string stays null
  std::string text;        // of an 's' value
  std::string name;        // canonical
  std::string uuid;
  int account = 0;
  int kind = 0;
};

inline uint64_t naive_timestamp(const char *at) {
  char *after = nullptr;
  uint64_t whence_ms = strtoull(at, &after, 10) * 1000;
  if (*after == '.') {
    const double fraction_ms = strtod(after, nullptr) * 1000;
    if (fraction_ms < 0x1p64) whence_ms += static_cast<uint64_t>(fraction_ms);
  }
  return whence_ms;
}

// False when the type letter is unknown.
inline bool naive_value(char letter, const char *at, NaiveLine &out) {
  out.value.type = static_cast<unsigned char>(letter);
  out.value.storage.v_uint64 = 0;  // {} cleared the first member only
  if (strcmp(at, "[[null]]") == 0 || strcmp(at, "[[null]]\n") == 0) {
    out.value.is_null = true;
    return true;
  }
  if (letter == 'I')
    return out.value.storage.v_uint32 = static_cast<uint32_t>(strtoul(at, nullptr, 10)), true;
  if (letter == 'L') return out.value.storage.v_uint64 = strtoull(at, nullptr, 10), true;
  if (letter == 'i') return out.value.storage.v_int32 = static_cast<int32_t>(strtol(at, nullptr, 10)), true;
  if (letter == 'l') return out.value.storage.v_int64 = strtoll(at, nullptr, 10), true;
  if (letter == 'n') return out.value.storage.v_double = strtod(at, nullptr), true;
  if (letter == 's') return out.text = at, true;
  return false;
}

inline NaiveLine naive_parse(const char *line, bool bundled) {
  NaiveLine out;
  const auto fail = [&out](int code) { return out.code = code, out; };
  const std::vector<std::string_view> fields = line_fields(line, bundled, 5);
  if (fields.empty()) return fail(-1);
  out.whence_ms = out.value.whence_ms = naive_timestamp(fields[0].data());
  if (line[0] != 'M') return fail(0);
  if (const int code = code_of_missing(fields, 5); code != 1) return fail(code);
  const std::string_view check = fields[1], name = fields[2];
  if (const int code = code_of_check(check, &out.uuid); code != 1) return fail(code);
  const char *mark = check.size() > 36 ? strstr(check.data(), "`c_") : nullptr;
  if (mark != nullptr) out.account = static_cast<int>(strtol(mark + 3, nullptr, 10));
  const char letter = *fields[3].data();  // of an empty field: the TAB after it
  if (!naive_value(letter, fields[4].data(), out)) return fail(-9);
  out.kind = letter == 's' ? 4 : 1;
  const LocatorPtr accepted = make_locator(name, 1, out.uuid.c_str());
  if (accepted == nullptr) return fail(-8);
  out.name = name_of(accepted.get());
  return fail(1);
}

#endif
