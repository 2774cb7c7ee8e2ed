// Any bytes in the kernel's files: each source gives whole samples with canonical names, or one problem and nothing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "orlith/host_sources.h"
#include "orlith/text.h"
#include "pobe/pobe.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

constexpr const char *files[] = {"proc/stat",
                                 "proc/meminfo",
                                 "proc/loadavg",
                                 "proc/vmstat",
                                 "proc/diskstats",
                                 "proc/net/dev",
                                 "proc/mounts",
                                 "proc/uptime",
                                 "proc/pressure/cpu",
                                 "proc/sys/fs/file-nr",
                                 "proc/sys/kernel/hostname",
                                 "proc/1/stat"};

// A folder for the process, gone at its end.
struct Root {
  Root() {
    std::string name = (std::filesystem::temp_directory_path() / "host_files_XXXXXX").string();
    require(mkdtemp(name.data()) != nullptr);
    path = name;
    for (const char *file : files) std::filesystem::create_directories((path / file).parent_path());
  }
  ~Root() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  std::filesystem::path path;
};

void require_canonical(const std::string &name) {
  std::string canonical(65536, '\0');
  const ssize_t length = pobe_metric_canonicalize_ex(name.data(), name.size(), canonical.data(),
                                                     canonical.size(), true, true, false);
  require(length >= 0 && canonical.compare(0, static_cast<size_t>(length), name) == 0);
}

}  // namespace

// The first byte chooses the file, the rest is its text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Root root;
  if (size == 0) return 0;
  const std::filesystem::path file = root.path / files[data[0] % std::size(files)];
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char *>(data) + 1, static_cast<std::streamsize>(size - 1));
  HostContext context{root.path.string(), {}};
  std::vector<std::string> problems;
  for (const Sample &sample : read_host(context, problems)) {
    require_canonical(sample.name);
    std::string line;
    append_m_line(line, 0, "c", sample);
    require(line.find('\n') == line.size() - 1);
  }
  for (const std::string &problem : problems) require(valid_utf8(problem) == problem);
  std::filesystem::remove(file);
  return 0;
}
