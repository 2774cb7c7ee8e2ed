// Where a metric's rollup files lie below a data folder, and how to reach a path of any length.
#ifndef ORLITH_DATA_PATH_H
#define ORLITH_DATA_PATH_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The path of a metric below its period's folder: "<check uuid>/<encoded name>.nnt". `encoded` is the name in the
// locator's path form. A file name holds 255 bytes and an encoded name may be longer: then it is cut into folders
// of kEncodedChunk characters, the rest and ".nnt" being the file. Nothing is lost: the parts joined give the
// encoding back, and as the encoding never holds a dot, a folder and a file never share a name.
constexpr size_t kEncodedChunk = 240;
constexpr std::string_view kNntSuffix = ".nnt";
// Histograms have a folder in the file's place, which is cut the same way, and a file a window in it.
constexpr std::string_view kHistSuffix = ".hist";
constexpr std::string_view kSeriesSuffix = ".hss";
std::string metric_file_path(std::string_view check_uuid, std::string_view encoded,
                             std::string_view suffix = kNntSuffix);

// A working copy of a file stands beside it under the same name with one of these behind it.
constexpr std::string_view kNewSuffix = ".new";
constexpr std::string_view kOldSuffix = ".old";
constexpr size_t kMaxFileName = 255 - kNewSuffix.size();

// A canonical name in the locator's path form, and back; nothing for text that is no such form.
std::string encoded_name(std::string_view name);
std::optional<std::string> decoded_name(std::string_view encoded);

// The encoded name back from the parts below the check's folder; empty when the last part is no NNT file.
std::string encoded_name_from_parts(const std::vector<std::string> &parts);

// A path that system calls accept. The longest metric names make paths beyond what one call takes (PATH_MAX);
// such a path is walked folder by folder, and `path` then names the rest through the last folder's descriptor.
class ReachablePath {
 public:
  // Missing folders above the last component are created when `create_folders` is set. On failure error() is the
  // errno, and path() is what was asked for.
  ReachablePath(const std::string &full, bool create_folders);
  ~ReachablePath();
  ReachablePath(const ReachablePath &) = delete;
  ReachablePath &operator=(const ReachablePath &) = delete;

  const std::string &path() const { return path_; }
  int error() const { return error_; }

 private:
  void walk(const std::string &full, bool create_folders);

  std::string path_;
  int folder_fd_ = -1;
  int error_ = 0;
};

#endif
