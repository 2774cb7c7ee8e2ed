#include "orlithd/nnt_request.h"

#include <algorithm>
#include <utility>

#include "orlith/data_path.h"

namespace {

// Seconds, as folders are named: decimal, without zeros in front, and no longer than 32 bits need.
bool is_period(const std::string &text) {
  return !text.empty() && text.size() <= 10 && text.front() != '0' &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::string NntRequest::file() const {
  return period + "/" + metric_file_path(check_text, encoded);
}

std::optional<NntRequest> nnt_request(const Exchange &exchange, std::string_view prefix) {
  const std::optional<std::string> path = exchange.path_behind(prefix);
  if (!path || std::count(path->begin(), path->end(), '/') != 2) return std::nullopt;
  const size_t first = path->find('/');
  const size_t second = path->find('/', first + 1);
  NntRequest result;
  result.period = path->substr(0, first);
  result.encoded = path->substr(second + 1);
  if (!is_period(result.period)) return std::nullopt;
  if (ruxo_uuid_parse(path->substr(first + 1, second - first - 1).c_str(), result.check) != 0)
    return std::nullopt;
  std::optional<std::string> name = decoded_name(result.encoded);
  if (!name || name->empty()) return std::nullopt;
  result.name = std::move(*name);
  char lower[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(result.check, lower);
  result.check_text = lower;
  return result;
}
