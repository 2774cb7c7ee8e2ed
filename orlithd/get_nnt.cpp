#include <algorithm>
#include <cerrno>
#include <cstring>

#include "orlith/data_path.h"
#include "orlithd/handlers.h"
#include "ruxo/uuid.h"

namespace {

// Seconds, as folders are named: decimal, without zeros in front, and no longer than 32 bits need.
bool is_period(const std::string &text) {
  return !text.empty() && text.size() <= 10 && text.front() != '0' &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// The file that "<period>/<check uuid>/<path form>" names; empty where it does not.
std::string file_of(const std::string &request) {
  const size_t first = request.find('/');
  const size_t second = request.find('/', first + 1);
  if (first == std::string::npos || second == std::string::npos) return "";
  const std::string period = request.substr(0, first);
  const std::string check = request.substr(first + 1, second - first - 1);
  const std::string encoded = request.substr(second + 1);
  ruxo_uuid_t id;
  if (!is_period(period) || ruxo_uuid_parse(check.c_str(), id) != 0) return "";
  if (encoded.find('/') != std::string::npos || encoded.empty() || !decoded_name(encoded)) return "";
  char lower[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(id, lower);
  return period + "/" + metric_file_path(lower, encoded);
}

}  // namespace

void get_nnt(Node &node, Exchange &exchange) {
  const std::optional<std::string> request = exchange.path_behind("/nnt/");
  const std::string path = request ? file_of(*request) : "";
  if (path.empty())
    return exchange.error(400,
                          "expected /nnt/<period in seconds>/<check uuid>/<metric name in its path form>");
  struct stat info {};
  const OwnedFd file = node.data.open_file(path, &info);
  if (file.valid()) return exchange.file(file.get(), static_cast<size_t>(info.st_size));
  // A link, or a file where a folder should be, is no rollup file either.
  const bool absent = errno == ENOENT || errno == ENOTDIR || errno == ELOOP;
  exchange.error(absent ? 404 : 500, absent ? "there is no such rollup file" : strerror(errno));
}
