#include "orlith/text.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>

namespace {

// The length of the valid UTF-8 sequence that `bytes` starts with, and its code point; 0 when there is none.
struct Sequence {
  size_t length;
  uint32_t code_point;
};

Sequence first_sequence(std::string_view bytes) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(bytes[i]); };
  const uint8_t lead = byte(0);
  if (lead < 0x80) return {1, lead};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length) return {0, 0};
  uint32_t code_point = lead & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {0, 0};
    code_point = code_point << 6 | (byte(i) & 0x3Fu);
  }
  static constexpr uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};  // shorter forms exist below: overlong
  const bool surrogate = code_point >= 0xD800 && code_point <= 0xDFFF;
  if (code_point < smallest[length] || surrogate || code_point > 0x10FFFF) return {0, 0};
  return {length, code_point};
}

// Characters that show as nothing but change how the text around them is shown or compared.
bool is_deceptive(uint32_t c) {
  return (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) ||
         c == 0xFEFF || c == 0x061C;
}

void append_escaped_ascii(std::string &out, char c) {
  switch (c) {
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\\':
      out += "\\\\";
      return;
    default:
      break;
  }
  const auto byte = static_cast<uint8_t>(c);
  if (byte < 0x20 || byte == 0x7F) {
    fmt::format_to(std::back_inserter(out), "\\x{:02x}", byte);
  } else {
    out += c;
  }
}

}  // namespace

std::string escaped(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  while (!bytes.empty()) {
    const auto [length, code_point] = first_sequence(bytes);
    if (length == 1) {
      append_escaped_ascii(out, bytes[0]);
    } else if (length == 0) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<uint8_t>(bytes[0]));
    } else if (code_point < 0xA0 || is_deceptive(code_point)) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", code_point);
    } else {
      out += bytes.substr(0, length);
    }
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string in_quotes(std::string_view bytes) {
  return "'" + escaped(bytes) + "'";
}

std::string valid_utf8(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  while (!bytes.empty()) {
    const size_t length = first_sequence(bytes).length;
    if (length == 0) {
      fmt::format_to(std::back_inserter(out), "\\x{:02x}", static_cast<uint8_t>(bytes[0]));
    } else {
      out += bytes.substr(0, length);
    }
    bytes.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string human_count(uint64_t count) {
  std::string digits = std::to_string(count);
  for (size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

std::string human_bytes(uint64_t bytes) {
  if (bytes == 1) return "1 byte";
  if (bytes < 1024) return fmt::format("{} bytes", bytes);
  static constexpr std::array units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  // 1023.95 would be shown as 1024.0 of the smaller unit.
  for (; value >= 1023.95 && unit + 1 < units.size(); ++unit) value /= 1024;
  return fmt::format("{:.1f} {}", value, units[unit]);
}

std::string human_rate(double per_s, std::string_view unit) {
  static constexpr std::array prefixes = {"", "k ", "M ", "G ", "T "};
  size_t prefix = 0;
  for (; per_s >= 999.5 && prefix + 1 < prefixes.size(); ++prefix) per_s /= 1000;
  return fmt::format("{:.3g} {}{}/s", per_s, prefixes[prefix], unit);
}

std::string human_duration_s(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) return "?";
  if (seconds < 9.995) return fmt::format("{:.2f} s", seconds);
  if (seconds < 59.5) return fmt::format("{:.0f} s", seconds);
  if (seconds > 1e15) return "ages";
  const auto whole_s = static_cast<uint64_t>(std::llround(seconds));
  const uint64_t days = whole_s / 86400, hours = whole_s / 3600 % 24, minutes = whole_s / 60 % 60;
  if (days > 0) return fmt::format("{} d {:02} h", days, hours);
  if (hours > 0) return fmt::format("{} h {:02} min", hours, minutes);
  return fmt::format("{} min {:02} s", minutes, whole_s % 60);
}

namespace {

template <typename T>
std::string shortest_digits(T value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char buffer[64];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  return {buffer, end};
}

}  // namespace

std::string shortest(double value) {
  return shortest_digits(value);
}
std::string shortest(float value) {
  return shortest_digits(value);
}

namespace {

// The civil calendar as day numbers, proleptic Gregorian: an era is 400 years of 146097 days, and years are
// counted from March, so that the leap day is the last of its year.
constexpr int64_t days_per_era = 146097;
constexpr int64_t epoch_day = 719468;  // 1970-01-01, counted from 0000-03-01

int64_t day_number(int64_t year, int64_t month, int64_t day) {
  year -= month <= 2;
  const int64_t era = (year >= 0 ? year : year - 399) / 400;
  const int64_t year_of_era = year - era * 400;
  const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * days_per_era + day_of_era - epoch_day;
}

struct Date {
  int64_t year, month, day;
};

Date date_of(int64_t days) {
  days += epoch_day;
  const int64_t era = days / days_per_era;
  const int64_t day_of_era = days - era * days_per_era;
  const int64_t year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / (days_per_era - 1)) / 365;
  const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
  const int64_t shifted_month = (5 * day_of_year + 2) / 153;
  const int64_t month = shifted_month + (shifted_month < 10 ? 3 : -9);
  return {year_of_era + era * 400 + (month <= 2), month, day_of_year - (153 * shifted_month + 2) / 5 + 1};
}

constexpr int64_t year_10000_s = 253402300800;

// Takes parts off the front of a text; every step fails for good once one has failed.
struct Scanner {
  std::string_view rest;
  bool ok = true;

  bool at(char c) const { return ok && !rest.empty() && rest.front() == c; }
  bool take(char c) {
    if (!at(c)) return false;
    rest.remove_prefix(1);
    return true;
  }
  int64_t digits(size_t count, int64_t lowest, int64_t highest) {
    int64_t value = 0;
    for (size_t i = 0; i < count; ++i) {
      ok = ok && i < rest.size() && rest[i] >= '0' && rest[i] <= '9';
      if (!ok) return 0;
      value = value * 10 + (rest[i] - '0');
    }
    rest.remove_prefix(count);
    ok = value >= lowest && value <= highest;
    return value;
  }
  void skip_fraction() {
    if (!take('.') && !take(',')) return;
    ok = !rest.empty() && rest.front() >= '0' && rest.front() <= '9';
    while (!rest.empty() && rest.front() >= '0' && rest.front() <= '9') rest.remove_prefix(1);
  }
};

// "Z", "+01:00", "+0100", "+01" or nothing, as seconds east of UTC.
int64_t take_zone_s(Scanner &in) {
  if (in.rest.empty() || in.take('Z') || in.take('z')) return 0;
  const int64_t sign = in.at('-') ? -1 : 1;
  in.ok = in.take('+') || in.take('-');
  const int64_t hours = in.digits(2, 0, 23);
  in.take(':');
  const int64_t minutes = in.rest.empty() ? 0 : in.digits(2, 0, 59);
  return sign * (hours * 3600 + minutes * 60);
}

std::optional<uint64_t> parse_iso(std::string_view text) {
  Scanner in{text};
  const int64_t year = in.digits(4, 1970, 9999);
  in.ok = in.ok && in.take('-');
  const int64_t month = in.digits(2, 1, 12);
  in.ok = in.ok && in.take('-');
  const int64_t day = in.digits(2, 1, 31);
  int64_t seconds = day_number(year, month, day) * 86400;
  const Date back = date_of(seconds / 86400);  // refuses 31 April by reading it back as 1 May
  in.ok = in.ok && back.month == month && back.day == day;
  if (in.take('T') || in.take('t') || in.take(' ')) {
    seconds += in.digits(2, 0, 23) * 3600;
    in.ok = in.ok && in.take(':');
    seconds += in.digits(2, 0, 59) * 60;
    if (in.take(':')) {
      seconds += in.digits(2, 0, 60);  // a leap second is the first second of the next minute
      in.skip_fraction();
    }
    seconds -= take_zone_s(in);
  }
  if (!in.ok || !in.rest.empty() || seconds < 0) return std::nullopt;
  return static_cast<uint64_t>(seconds);
}

std::optional<uint64_t> parse_epoch(std::string_view text) {
  uint64_t seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc()) return std::nullopt;
  Scanner in{text.substr(static_cast<size_t>(end - text.data()))};
  in.skip_fraction();
  if (!in.ok || !in.rest.empty()) return std::nullopt;
  return seconds;
}

}  // namespace

std::string iso_time(uint64_t epoch_s) {
  if (epoch_s >= year_10000_s) return std::to_string(epoch_s);
  const auto seconds = static_cast<int64_t>(epoch_s);
  const Date date = date_of(seconds / 86400);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", date.year, date.month, date.day,
                     seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
}

std::optional<uint64_t> parse_time(std::string_view text) {
  if (const auto epoch = parse_epoch(text)) return epoch;
  return parse_iso(text);
}
