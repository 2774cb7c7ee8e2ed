#include "orlith/ingest_refusal.h"

#include <charconv>
#include <cstdint>
#include <system_error>

namespace {

struct RefusalEntry {
  const char *name;
  const char *text;
};

constexpr RefusalEntry kRefusals[] = {
#define INGEST_REFUSAL_ENTRY(name, text) {#name, text},
    INGEST_REFUSALS(INGEST_REFUSAL_ENTRY)
#undef INGEST_REFUSAL_ENTRY
};

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

std::string_view without_blanks(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  return text;
}

template <typename Integer>
std::optional<Refusal> integer_fault(std::string_view text) {
  if (text.starts_with('+') && text.size() > 1 && is_digit(text[1])) text.remove_prefix(1);
  Integer value = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result.ec == std::errc::result_out_of_range) return Refusal::value_out_of_range;
  if (result.ec == std::errc()) return std::nullopt;
  // An unsigned type refuses the sign itself: then the number is one, but not of this type.
  const bool negative = text.starts_with('-') && text.size() > 1 && is_digit(text[1]);
  return negative ? Refusal::value_out_of_range : Refusal::value_not_a_number;
}

std::optional<Refusal> decimal_fault(std::string_view text) {
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  if (text.starts_with('.')) text.remove_prefix(1);
  if (text.empty() || !is_digit(text.front())) return Refusal::value_not_a_number;
  return std::nullopt;
}

}  // namespace

const char *refusal_name(Refusal refusal) {
  return kRefusals[static_cast<size_t>(refusal)].name;
}

const char *refusal_text(Refusal refusal) {
  return kRefusals[static_cast<size_t>(refusal)].text;
}

Refusal refusal_of_code(int code) {
  switch (code) {
    case 0:
      return Refusal::unknown_kind;
    case -1:
      return Refusal::no_timestamp;
    case -2:
      return Refusal::no_check;
    case -3:
      return Refusal::no_name;
    case -4:
      return Refusal::no_type;
    case -5:
      return Refusal::no_value;
    case -6:
      return Refusal::check_too_short;
    case -7:
      return Refusal::check_not_uuid;
    case -8:
      return Refusal::name_refused;
    case -9:
      return Refusal::unknown_type;
    default:
      return Refusal::ignored_extension;
  }
}

Refusal refusal_of_histogram_code(int code) {
  return code == -4 ? Refusal::no_histogram : refusal_of_code(code);
}

std::optional<Refusal> timestamp_fault(std::string_view timestamp) {
  constexpr uint64_t kLastWholeSecond = UINT64_MAX / 1000 - 1;
  const char *at = timestamp.data();
  const char *end = at + timestamp.size();
  const auto skip_digits = [&] {
    const char *start = at;
    while (at != end && is_digit(*at)) ++at;
    return at - start;
  };
  const auto whole_digits = skip_digits();
  if (whole_digits == 0) return Refusal::bad_timestamp;
  const char *after_whole = at;
  if (at != end && *at == '.') {
    ++at;
    skip_digits();
  }
  if (at != end) return Refusal::bad_timestamp;
  if (whole_digits < 17) return std::nullopt;
  // So many digits may be leading zeros; a number beyond 64 bits of milliseconds would come out as some time past.
  uint64_t whole_s = 0;
  const auto result = std::from_chars(timestamp.data(), after_whole, whole_s);
  if (result.ec != std::errc() || whole_s > kLastWholeSecond) return Refusal::in_the_future;
  return std::nullopt;
}

std::optional<Refusal> value_fault(char type, std::string_view value) {
  if (value == "[[null]]") return std::nullopt;  // of any type
  switch (type) {
    case 'I':
      return integer_fault<uint32_t>(without_blanks(value));
    case 'L':
      return integer_fault<uint64_t>(without_blanks(value));
    case 'i':
      return integer_fault<int32_t>(without_blanks(value));
    case 'l':
      return integer_fault<int64_t>(without_blanks(value));
    case 'n':
      return decimal_fault(without_blanks(value));
    case 's':
      return std::nullopt;
    default:
      return Refusal::unknown_type;
  }
}
