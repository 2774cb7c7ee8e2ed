#include "orlith/data_path.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "ruxo/b64.h"
#include "ruxo/util.h"

namespace {

constexpr mode_t kFolderMode = 0777;
// Room for the suffixes that working copies get.
constexpr size_t kLongestDirectPath = PATH_MAX - 64;

int open_folder(int parent, const std::string &name, bool create) {
  if (create && mkdirat(parent, name.c_str(), kFolderMode) != 0 && errno != EEXIST) return -1;
  return openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

// Nearly every new file has neighbours: one look spares a call for each component of the path.
bool folder_exists(const std::string &file) {
  struct stat info {};
  const std::string folder = file.substr(0, file.rfind('/') + 1);
  return stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

std::string metric_file_path(std::string_view check_uuid, std::string_view encoded, std::string_view suffix) {
  std::string result(check_uuid);
  while (encoded.size() + suffix.size() > kMaxFileName) {
    result.append("/").append(encoded.substr(0, kEncodedChunk));
    encoded.remove_prefix(kEncodedChunk);
  }
  result.append("/").append(encoded).append(suffix);
  return result;
}

// The first character stays as it is, on purpose: see doc/metric-locator.md.
std::string encoded_name(std::string_view name) {
  std::string encoded(ruxo_b64_encode_len(name.size()), '\0');
  ruxo_b64_encode(name.data(), name.size(), encoded.data(), encoded.size());
  if (!encoded.empty()) std::replace(encoded.begin() + 1, encoded.end(), '/', '_');
  return encoded;
}

std::optional<std::string> decoded_name(std::string_view encoded) {
  std::string text(encoded);
  std::replace(text.begin(), text.end(), '_', '/');
  std::string name(ruxo_b64_max_decode_len(text.size()), '\0');
  name.resize(ruxo_b64_decode(text.data(), text.size(), name.data(), name.size()));
  if (encoded_name(name) != encoded) return std::nullopt;
  return name;
}

std::string encoded_name_from_parts(const std::vector<std::string> &parts) {
  if (parts.empty() || !parts.back().ends_with(kNntSuffix)) return "";
  std::string result;
  for (const std::string &part : parts) result += part;
  result.resize(result.size() - kNntSuffix.size());
  return result;
}

ReachablePath::ReachablePath(const std::string &full, bool create_folders) : path_(full) {
  if (full.size() >= kLongestDirectPath) {
    walk(full, create_folders);
  } else if (create_folders && !folder_exists(full) && mkdir_for_file(full.c_str(), kFolderMode) != 0) {
    error_ = errno;
  }
}

ReachablePath::~ReachablePath() {
  if (folder_fd_ >= 0) close(folder_fd_);
}

void ReachablePath::walk(const std::string &full, bool create_folders) {
  size_t start = full.front() == '/' ? 1 : 0;
  folder_fd_ = open(start == 1 ? "/" : ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
  for (size_t slash = full.find('/', start); slash != std::string::npos; slash = full.find('/', start)) {
    const std::string name = full.substr(start, slash - start);
    start = slash + 1;
    if (name.empty()) continue;
    const int next = open_folder(folder_fd_, name, create_folders);
    if (next < 0) error_ = errno;
    close(folder_fd_);
    folder_fd_ = next;
    if (next < 0) return;
  }
  path_ = "/proc/self/fd/" + std::to_string(folder_fd_) + "/" + full.substr(start);
}
