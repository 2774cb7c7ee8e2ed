// Texts for people: bytes from outside made safe to show, numbers with units, times.
#ifndef ORLITH_TEXT_H
#define ORLITH_TEXT_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The bytes with everything that could confuse a terminal or a reader written as an escape: control bytes,
// DEL and invalid UTF-8 as \xNN, tab, newline and return as \t \n \r, a backslash as \\, and the invisible
// characters that reorder or hide text as \uNNNN. Valid UTF-8 stays as it is; the result always is valid
// UTF-8.
std::string escaped(std::string_view bytes);
// 'bytes' in quotes, escaped: how a name from outside stands in a message.
std::string in_quotes(std::string_view bytes);
// The bytes with invalid UTF-8 written as \xNN and nothing else changed: what goes into JSON strings.
std::string valid_utf8(std::string_view bytes);

std::string human_count(uint64_t count);                      // 1234567 -> "1,234,567"
std::string human_bytes(uint64_t bytes);                      // 1536 -> "1.5 KiB"; below 1 KiB "17 bytes"
std::string human_rate(double per_s, std::string_view unit);  // 1234567, "slots" -> "1.23 M slots/s"
std::string human_duration_s(double seconds);  // 3725 -> "1 h 02 min"; 75 -> "1 min 15 s"; 0.25 -> "0.25 s"
// The shortest digits that read back as the same value; "nan", "inf" and "-inf" otherwise.
std::string shortest(double value);
std::string shortest(float value);

// Seconds since the Unix epoch as 2026-11-20T22:20:02Z; plain digits beyond the year 9999.
std::string iso_time(uint64_t epoch_s);
// Reads epoch seconds ("1700000000", a fraction is dropped) or ISO 8601 ("2023-11-14", "2023-11-14T22:13",
// "2023-11-14 22:13:20.5+01:00"); without a zone it is UTC. Nothing for other text and for times before 1970.
std::optional<uint64_t> parse_time(std::string_view text);

#endif
