// Any bytes as an NNT file: every command that reads one ends with a documented code and sound output.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "orlith/cli.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void run(const std::vector<std::string> &arguments, bool is_json) {
  StringOutput out, err;
  SystemClock clock;
  Session session{.out = out, .err = err, .clock = clock, .terminal = {}, .settings = {}};
  const int code = CommandLine(all_commands()).run(arguments, session);
  require(code == exit_fine || code == exit_damaged || code == exit_not_found);
  require(code == exit_fine || !err.text.empty() || !out.text.empty());
  require(valid_utf8(out.text) == out.text && valid_utf8(err.text) == err.text);
  if (!is_json || out.text.empty()) return;
  ruxo_json_object *document = ruxo_json_parse(out.text.c_str());
  require(document != nullptr);
  ruxo_json_free(document);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const int fd = memfd_create("fuzz", MFD_CLOEXEC);
  require(fd >= 0 && write(fd, data, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  run({"nnt", "info", "--json", path}, true);
  run({"nnt", "dump", "--json", "--all", "--iso", path}, true);
  run({"nnt", "plot", path}, false);
  run({"nnt", "plot", "--json", "--rate", path}, true);
  run({"nnt", "verify", "--json", path}, true);
  close(fd);
  return 0;
}
