// Any bytes as an index: every command that reads one ends with a documented code and sound output; and what is found
// sound holds together: each metric it lists is found by its key and by each of its tags, and nothing else is.
#include <sys/mman.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orlith/cli.h"
#include "orlith/histogram_line.h"
#include "orlith/metric_index.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void run(const std::vector<std::string> &arguments) {
  StringOutput out, err;
  SystemClock clock;
  Session session{.out = out, .err = err, .clock = clock, .terminal = {}, .settings = {}};
  const int code = CommandLine(all_commands()).run(arguments, session);
  require(code == exit_fine || code == exit_damaged || code == exit_not_found);
  require((code == exit_damaged) == !err.text.empty() || code == exit_not_found);
  require(valid_utf8(out.text) == out.text && valid_utf8(err.text) == err.text);
  if (out.text.empty()) return;
  ruxo_json_object *document = ruxo_json_parse(out.text.c_str());
  require(document != nullptr);
  ruxo_json_free(document);
}

void require_sound(const MetricIndex &index) {
  std::vector<std::string> keys;
  uint64_t tagged = 0;
  require(index
              .each("",
                    [&](std::string_view key, const MetricFiles &files) {
                      require(!files.empty());
                      keys.emplace_back(key);
                      return true;
                    })
              .empty());
  require(keys.size() == index.directory().metric_count);
  for (const std::string &key : keys) {
    std::optional<MetricFiles> files;
    require(index.find(key, &files).empty() && files.has_value());
    for (const std::string_view tag : tags_of_key(key)) {
      ++tagged;
      bool is_listed = false;
      const std::string fault = index.each_with_tags(std::vector<std::string>{std::string(tag)},
                                                     [&](std::string_view listed, const MetricFiles &) {
                                                       is_listed = is_listed || listed == key;
                                                       return true;
                                                     });
      require(fault.empty() && is_listed);
    }
  }
  require(tagged == index.directory().tagged_count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const std::string check = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
  // The hash is put right: it would keep all else from being looked at.
  std::string bytes(reinterpret_cast<const char *>(data), size);
  if (size >= 16) {
    const uint64_t hash = XXH3_64bits(bytes.data() + 8, size - 16);
    memcpy(bytes.data() + size - sizeof hash, &hash, sizeof hash);
  }
  const int fd = memfd_create("fuzz", MFD_CLOEXEC);
  require(fd >= 0 && write(fd, bytes.data(), size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  start_library();
  Problem problem;
  if (const auto index = MetricIndex::open(fd, &problem)) {
    run({"index", "get", "--json", path, check + "-cpu|ST[a:1,b:2]"});
    run({"index", "prefix", "--json", path, ""});
    run({"index", "prefix", "--json", path, check + "-disk_operations|ST[device:s"});
    run({"index", "tags", "--json", path, "a:1"});
    run({"index", "tags", "--json", path, "b:2", "a:1"});
    run({"index", "stats", "--json", path});
    if (index->verify().empty()) require_sound(*index);
  } else {
    require(!problem.text.empty());
  }
  run({"index", "verify", "--json", path});
  close(fd);
  return 0;
}
