#include "orlith/check_uuid.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "orlith/atomic_file.h"
#include "orlith/output.h"
#include "orlith/proc_text.h"
#include "ruxo/util.h"
#include "ruxo/uuid.h"

namespace {

CheckUuid failure(const std::string &path, const std::string &reason) {
  return {{}, fmt::format("{}: {}", escaped(path), reason), false};
}

// Nothing when the file is not there.
std::optional<CheckUuid> load(const std::string &path) {
  try {
    ProcFile file("", path);
    const std::string_view line = file.single_line();
    std::string uuid = normalized_uuid(line);
    std::string_view more;
    if (!uuid.empty() && !file.next_raw_line(more)) return CheckUuid{std::move(uuid), {}, false};
    CheckUuid damaged =
        failure(path, fmt::format("found {}, expected one UUID; put the right one there, or remove "
                                  "the file to get a new one",
                                  in_quotes(line.substr(0, 80))));
    damaged.damaged = true;
    return damaged;
  } catch (const ProcFault &fault) {
    if (fault.missing) return std::nullopt;
    return CheckUuid{{}, fault.what(), false};
  }
}

int make(const std::string &path) {
  ruxo_uuid_t bytes;
  char text[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_generate(bytes);
  ruxo_uuid_unparse_lower(bytes, text);
  if (mkdir_for_file(path.c_str(), 0777) != 0) return errno;
  AtomicFile file(path);
  if (const int error = file.open()) return error;
  FdOutput out(file.fd());
  out << text << "\n";
  if (!out.flush()) return out.error();
  const int error = file.commit(AtomicFile::Existing::keep);
  return error == EEXIST ? 0 : error;  // another process was faster: its UUID counts
}

}  // namespace

std::string normalized_uuid(std::string_view text) {
  ruxo_uuid_t bytes;
  char lower[RUXO_UUID_STRING_SIZE];
  if (ruxo_uuid_parse_n(text.data(), text.size(), bytes) != 0) return {};
  ruxo_uuid_unparse_lower(bytes, lower);
  return lower;
}

std::string default_check_uuid_path() {
  const auto absolute = [](const char *name) -> std::string {
    const char *value = getenv(name);
    return value != nullptr && *value == '/' ? value : "";
  };
  if (const std::string state = absolute("XDG_STATE_HOME"); !state.empty())
    return state + "/orlith/check_uuid";
  const std::string home = absolute("HOME");
  return home.empty() ? "" : home + "/.local/state/orlith/check_uuid";
}

CheckUuid load_or_make_check_uuid(const std::string &path) {
  if (auto found = load(path)) return *found;
  if (const int error = make(path)) return failure(path, strerror(error));
  if (auto found = load(path)) return *found;
  return failure(path, "vanished right after it was made");
}
