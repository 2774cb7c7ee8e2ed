// Why an input line is not taken: one list of reasons, and the checks that go beyond the line parser's own.
#ifndef ORLITH_INGEST_REFUSAL_H
#define ORLITH_INGEST_REFUSAL_H

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string_view>

#include "liborlith/orollupd/rollup.h"

// Name (also the JSON form's), what is wrong with the line.
#define INGEST_REFUSALS(X)                                                  \
  X(unknown_kind, "begins with neither M nor H")                            \
  X(no_timestamp, "has no TAB before a timestamp")                          \
  X(no_check, "ends after the timestamp: no TAB before a check")            \
  X(no_name, "ends after the check: no TAB before a name")                  \
  X(no_histogram, "ends after the name: no TAB before a histogram")         \
  X(no_type, "ends after the name: no TAB before a type")                   \
  X(no_value, "ends after the type: no TAB before a value")                 \
  X(check_too_short, "the check field is shorter than a UUID")              \
  X(check_not_uuid, "the check field does not end in a UUID")               \
  X(name_refused, "the metric name is refused")                             \
  X(unknown_type, "the type is none of n, i, I, l, L and s")                \
  X(ignored_extension, "the name's extension is ignored")                   \
  X(line_too_long, "is longer than 1 MiB")                                  \
  X(nul_byte, "holds a NUL byte")                                           \
  X(bad_timestamp, "the timestamp is not a number of seconds")              \
  X(in_the_future, "lies further in the future than --future-bound allows") \
  X(value_not_a_number, "the value is not a number (finite, decimal)")      \
  X(value_out_of_range, "the value does not fit its type")                  \
  X(value_no_histogram, "the value is no histogram")                        \
  X(count_too_large, "a count of the slot would pass 4294967295")

enum class Refusal {
#define INGEST_REFUSAL_ENUMERATOR(name, text) name,
  INGEST_REFUSALS(INGEST_REFUSAL_ENUMERATOR)
#undef INGEST_REFUSAL_ENUMERATOR
};

#define INGEST_REFUSAL_VALUE(name, text) Refusal::name,
constexpr size_t kRefusalCount = std::initializer_list<Refusal>{INGEST_REFUSALS(INGEST_REFUSAL_VALUE)}.size();
#undef INGEST_REFUSAL_VALUE

const char *refusal_name(Refusal refusal);
const char *refusal_text(Refusal refusal);

// The reason behind a result of the line parser (0 or negative).
Refusal refusal_of_code(int code);
// The same for the histogram line.
Refusal refusal_of_histogram_code(int code);

// The parser reads numbers as far as they go: "abc" is 0 and 5000000000 is cut to 32 bits. Data that cannot be
// collected again must not be stored as something else, so such a sample is refused here.
std::optional<Refusal> timestamp_fault(std::string_view timestamp);
std::optional<Refusal> value_fault(char type, std::string_view value);

#endif
