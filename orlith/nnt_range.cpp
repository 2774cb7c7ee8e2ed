#include "orlith/nnt_range.h"

#include <fmt/format.h>

namespace {

constexpr const char *expected_time = "expected epoch seconds or ISO 8601 (2023-11-14T22:13:20Z)";

bool read_time(const char *option, const std::string &text, Session &session, uint64_t *time_s) {
  if (text.empty() || parse_time_option(text, time_s)) return true;
  session.error(fmt::format("{}: found {}, {}", option, in_quotes(text), expected_time));
  return false;
}

}  // namespace

void add_range_options(CLI::App &app, NntRangeOptions &options) {
  app.add_option("--from", options.from, "first slot: the one that covers this time")->type_name("TIME");
  app.add_option("--to", options.to, "end: slots that begin before this time")->type_name("TIME");
}

std::unique_ptr<NntReader> open_range(const std::string &path, const NntRangeOptions &options,
                                      Session &session, SlotRange *range, int *code) {
  uint64_t from_s = 0, to_s = UINT64_MAX;
  *code = exit_usage;
  if (!read_time("--from", options.from, session, &from_s) || !read_time("--to", options.to, session, &to_s))
    return nullptr;
  Problem problem;
  auto reader = NntReader::open(path, &problem);
  *code = problem.code;
  if (!reader) {
    session.error(fmt::format("{}: {}", escaped(path), problem.text));
    return nullptr;
  }
  if (reader->tail_bytes() != 0) {
    session.warning(fmt::format("{}: {} bytes after the last whole record, left out", escaped(path),
                                reader->tail_bytes()));
    *code = exit_damaged;
  }
  range->first = options.from.empty() ? 0 : reader->slot_at(from_s);
  range->end = options.to.empty() ? reader->slot_count() : std::max(range->first, reader->slot_from(to_s));
  return reader;
}
