#include "orlith/histogram_series_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>

namespace {

constexpr std::string_view kFrameStart{"\x04\x22\x4d\x18", 4};
constexpr size_t kReadBytes = size_t{1} << 18;

// Up to `most` bytes from the start of the file: 0, or an errno.
int read_start(const std::string &path, size_t most, std::string *bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  int error = 0;
  bytes->clear();
  while (bytes->size() < most) {
    const size_t had = bytes->size();
    bytes->resize(std::min(most, had + kReadBytes));
    const ssize_t got = pread(fd, bytes->data() + had, bytes->size() - had, static_cast<off_t>(had));
    error = got < 0 ? errno : 0;
    bytes->resize(had + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got == 0 || (error != 0 && error != EINTR)) break;
  }
  close(fd);
  return error == EINTR ? 0 : error;
}

// No exception may pass through the library.
struct Walk {
  const std::function<bool(uint64_t, const histogram_t *)> &take;
  std::exception_ptr thrown;
};

ruxo_boolean walk_on(uint64_t time_ms, histogram_t *histogram, void *closure) {
  auto &walk = *static_cast<Walk *>(closure);
  try {
    return walk.take(time_ms, histogram);
  } catch (...) {
    walk.thrown = std::current_exception();
    return false;
  }
}

}  // namespace

bool is_series_file(const std::string &path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  std::string start;
  return read_start(path, kFrameStart.size(), &start) == 0 && start == kFrameStart;
}

int HistogramSeriesFile::read(const std::string &path) {
  series_.reset();
  std::string bytes;
  if (const int error = read_start(path, kMaxSeriesFileBytes + 1, &bytes)) return error;
  parse(bytes);
  return 0;
}

bool HistogramSeriesFile::parse(std::string_view bytes) {
  const bool fits = bytes.size() <= kMaxSeriesFileBytes;
  series_.reset(fits ? histogram_series_deserialize(bytes.data(), bytes.size()) : nullptr);
  return is_sound();
}

bool HistogramSeriesFile::for_each(
    const std::function<bool(uint64_t time_ms, const histogram_t *histogram)> &take) {
  Walk walk{take, nullptr};
  const bool result = histogram_series_foreach(series_.get(), walk_on, &walk);
  if (walk.thrown) std::rethrow_exception(walk.thrown);
  return result;
}

std::string image_of_series(histogram_series_t *series) {
  std::string image(histogram_series_serialize_maxsize(series), '\0');
  size_t size = 0;
  const bool done = histogram_series_serialize(series, image.data(), image.size(), &size);
  image.resize(done && size <= image.size() ? size : 0);
  return image;
}
