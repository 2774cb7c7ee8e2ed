// The two written forms of a log line.
#include <time.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>

#include "ruxo/log_private.h"
#include "ruxo/utf8_private.h"

namespace {

using ruxo::Record;

// The message without the newline that ends it; newlines inside stay.
std::string_view message_text(const Record &record) {
  std::string_view text = record.message;
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

std::string_view level(const Record &record) {
  if (record.message.starts_with("[FATAL] ")) return "fatal";
  const std::string_view name = record.stream_name;
  const std::string_view head = name.substr(0, name.find('/'));
  return head == "error" || head == "debug" ? head : "info";
}

// Decimal, with leading zeros up to `width`.
void append_number(std::string &out, uint64_t value, size_t width = 1) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  const auto len = static_cast<size_t>(end - digits);
  if (len < width) out.append(width - len, '0');
  out.append(digits, len);
}

// RFC 3339, UTC, milliseconds. Most lines share their second with the one before.
void append_time(std::string &out, uint64_t time_ms) {
  thread_local time_t known_second = -1;
  thread_local char known_text[40];
  const auto second = static_cast<time_t>(time_ms / 1000);
  if (second != known_second) {
    struct tm utc {};
    gmtime_r(&second, &utc);
    strftime(known_text, sizeof known_text, "%Y-%m-%dT%H:%M:%S.", &utc);
    known_second = second;
  }
  out += known_text;
  append_number(out, time_ms % 1000, 3);
  out += 'Z';
}

void append_hex(std::string &out, const char *format, unsigned value) {
  char text[16];
  snprintf(text, sizeof text, format, value);
  out += text;
}

// The control characters of Latin-1, which also move a terminal's cursor: U+0080 to U+009F.
bool is_c1_control(std::string_view character) {
  return character.size() == 2 && character[0] == '\xc2' && static_cast<unsigned char>(character[1]) < 0xa0;
}

bool append_short_escape(std::string &out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return true;
    case '\\':
      out += "\\\\";
      return true;
    case '\n':
      out += "\\n";
      return true;
    case '\r':
      out += "\\r";
      return true;
    case '\t':
      out += "\\t";
      return true;
    default:
      return false;
  }
}

// How much of the text stands for itself: printable ASCII but the quote and the backslash.
size_t plain_len(std::string_view text) {
  size_t len = 0;
  while (len < text.size() && text[len] >= ' ' && text[len] < '\x7f' && text[len] != '"' && text[len] != '\\')
    ++len;
  return len;
}

// The text as it stands between quotes. What is no character (a byte of broken UTF-8) becomes \xff in logfmt,
// and in JSON, which has no such escape, the text "\xff".
void append_escaped(std::string &out, std::string_view text, bool json) {
  for (;;) {
    const size_t plain = plain_len(text);
    out += text.substr(0, plain);
    text.remove_prefix(plain);
    if (text.empty()) return;
    const size_t len = ruxo::utf8_character_len(text);
    const std::string_view character = text.substr(0, len == 0 ? 1 : len);
    const unsigned first = static_cast<unsigned char>(character[0]);
    if (len == 0) {
      append_hex(out, json ? "\\\\x%02x" : "\\x%02x", first);
    } else if (append_short_escape(out, character[0])) {
    } else if (first < 0x20 || first == 0x7f) {
      append_hex(out, "\\u%04x", first);
    } else if (is_c1_control(character)) {
      append_hex(out, "\\u%04x", static_cast<unsigned char>(character[1]));
    } else {
      out += character;
    }
    text.remove_prefix(character.size());
  }
}

void append_quoted(std::string &out, std::string_view text, bool json) {
  out += '"';
  append_escaped(out, text, json);
  out += '"';
}

void append_value(std::string &out, std::string_view text) {
  const bool bare =
      !text.empty() && plain_len(text) == text.size() && text.find_first_of(" =") == std::string_view::npos;
  bare ? void(out += text) : append_quoted(out, text, false);
}

void append_trace(std::string &out, uint64_t trace_id) {
  char text[24];
  snprintf(text, sizeof text, "%016" PRIx64, trace_id);
  out += text;
}

}  // namespace

void ruxo::append_logfmt(std::string &out, const Record &record) {
  out += "time=";
  append_time(out, record.time_ms);
  out += " level=";
  out += level(record);
  out += " stream=";
  append_value(out, record.stream_name);
  out += " source=";
  append_value(out, record.file);
  out += ':';
  append_number(out, static_cast<uint64_t>(record.line));
  out += " task=";
  append_number(out, record.task);
  if (record.trace_id != 0) {
    out += " trace=";
    append_trace(out, record.trace_id);
  }
  out += " message=";
  append_quoted(out, message_text(record), false);
  out += '\n';
}

void ruxo::append_json(std::string &out, const Record &record) {
  out += "{\"time\":\"";
  append_time(out, record.time_ms);
  out += "\",\"level\":\"";
  out += level(record);
  out += "\",\"stream\":";
  append_quoted(out, record.stream_name, true);
  out += ",\"source\":\"";
  append_escaped(out, record.file, true);
  out += ':';
  append_number(out, static_cast<uint64_t>(record.line));
  out += "\",\"task\":";
  append_number(out, record.task);
  if (record.trace_id != 0) {
    out += ",\"trace\":\"";
    append_trace(out, record.trace_id);
    out += '"';
  }
  out += ",\"message\":";
  append_quoted(out, message_text(record), true);
  out += "}\n";
}
