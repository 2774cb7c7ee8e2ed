// The "M" line parsed the plain way, on NUL-terminated text with the C library: the model for the real parser.
#ifndef TEST_OROLLUPD_NAIVE_MLINE_H
#define TEST_OROLLUPD_NAIVE_MLINE_H

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>

#include "liborlith/orollupd/rollup.h"
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
  const char *tab = strchr(line, '\t');
  if (tab == nullptr) return fail(-1);
  if (!bundled && (tab = strchr(tab + 1, '\t')) == nullptr) return fail(-1);
  out.whence_ms = out.value.whence_ms = naive_timestamp(tab + 1);
  if (line[0] != 'M') return fail(0);
  const char *check = strchr(tab + 1, '\t');
  if (check == nullptr) return fail(-2);
  const char *name = strchr(check + 1, '\t');
  if (name == nullptr) return fail(-3);
  const char *type = strchr(name + 1, '\t');
  if (type == nullptr) return fail(-4);
  const char *value = strchr(type + 1, '\t');
  if (value == nullptr) return fail(-5);
  if (name - check < 37) return fail(-6);
  out.uuid.assign(name - 36, name);
  ruxo_uuid_t parsed;
  if (ruxo_uuid_parse(out.uuid.c_str(), parsed) != 0) return fail(-7);
  const char *mark = name - check > 37 ? strstr(check, "`c_") : nullptr;
  if (mark != nullptr) out.account = static_cast<int>(strtol(mark + 3, nullptr, 10));
  if (!naive_value(type[1], value + 1, out)) return fail(-9);
  out.kind = type[1] == 's' ? 4 : 1;
  const LocatorPtr accepted = make_locator(std::string(name + 1, type), 1, out.uuid.c_str());
  if (accepted == nullptr) return fail(-8);
  out.name = name_of(accepted.get());
  return fail(1);
}

#endif
