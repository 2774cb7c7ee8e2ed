#include "orlith/sample.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <algorithm>
#include <cmath>

#include "orlith/histogram_value.h"
#include "orlith/text.h"
#include "pobe/pobe.h"
#include "ruxo/b64.h"

namespace {

// A tag value as text that a name may hold: UTF-8 without control characters, at most the bytes a side may have.
std::string acceptable(std::string_view outside) {
  std::string text = escaped(outside);
  if (text.size() <= POBE_MAX_SIDE_BYTES) return text;
  const std::string hash = fmt::format("~{:016x}", XXH3_64bits(outside.data(), outside.size()));
  size_t kept = POBE_MAX_SIDE_BYTES - hash.size();
  while (kept > 0 && (static_cast<uint8_t>(text[kept]) & 0xC0) == 0x80) --kept;  // not inside a character
  return text.substr(0, kept) + hash;
}

bool is_plain(std::string_view value) {
  const bool blank_ended = !value.empty() && (value.front() == ' ' || value.back() == ' ');
  return !blank_ended && value.find_first_of(",|[]{}\"") == std::string_view::npos;
}

std::string tag_side(std::string_view text) {
  if (is_plain(text)) return std::string(text);
  std::string encoded(ruxo_b64_encode_len(text.size()), '\0');
  encoded.resize(ruxo_b64_encode(text.data(), text.size(), encoded.data(), encoded.size()));
  return "b\"" + encoded + "\"";
}

struct ValueWriter {
  std::string &out;
  void operator()(uint64_t value) const { write('L', value); }
  void operator()(int64_t value) const { write('l', value); }
  void operator()(uint32_t value) const { write('I', value); }
  void operator()(int32_t value) const { write('i', value); }
  void operator()(double value) const {
    if (std::isfinite(value)) {
      write('n', shortest(value));
    } else {
      write('n', "[[null]]");
    }
  }
  void operator()(const std::string &value) const { write('s', escaped(value)); }
  void write(char type, const auto &value) const {
    fmt::format_to(std::back_inserter(out), "{}\t{}\n", type, value);
  }
};

}  // namespace

std::string tagged_name(std::string_view name, const Tags &tags) {
  std::vector<std::pair<std::string_view, std::string>> sorted;
  for (const auto &[category, value] : tags) sorted.emplace_back(category, acceptable(value));
  // Canonical order is that of the meant bytes, before any encoding.
  std::sort(sorted.begin(), sorted.end());
  std::string out(name);
  const char *separator = "|ST[";
  for (const auto &[category, value] : sorted) {
    fmt::format_to(std::back_inserter(out), "{}{}:{}", separator, category, tag_side(value));
    separator = ",";
  }
  if (!sorted.empty()) out += "]";
  return out;
}

void append_m_line(std::string &out, uint64_t time_ms, std::string_view check_uuid, const Sample &sample) {
  fmt::format_to(std::back_inserter(out), "M\t{}.{:03}\t{}\t{}\t", time_ms / 1000, time_ms % 1000, check_uuid,
                 sample.name);
  std::visit(ValueWriter{out}, sample.value);
}

void append_h_line(std::string &out, uint64_t time_ms, std::string_view check_uuid, std::string_view name,
                   const histogram_t *histogram) {
  fmt::format_to(std::back_inserter(out), "H\t{}.{:03}\t{}\t{}\t{}\n", time_ms / 1000, time_ms % 1000,
                 check_uuid, name, text_of_histogram(histogram));
}
