// `orlith unpack`: the rollup file back from a packed record stream.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "orlith/cli.h"
#include "orlith/data_path.h"
#include "orlith/nnt_reader.h"
#include "orlith/pack_files.h"
#include "orlith/packed_rollup.h"
#include "orlith/signals.h"

namespace {

// More than the most slots take at their worst.
constexpr uint64_t kMostPackedBytes = uint64_t{1} << 30;

struct CloseFd {
  int fd;
  ~CloseFd() {
    if (fd >= 0) close(fd);
  }
};

Problem read_to_end(int fd, std::vector<uint8_t> *bytes) {
  for (size_t done = 0; done < bytes->size();) {
    const ssize_t count = pread(fd, bytes->data() + done, bytes->size() - done, static_cast<off_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return {fmt::format("at offset {}: {}", done, strerror(errno)), exit_failed};
    if (count == 0) return {"became shorter while it was read", exit_failed};
    done += static_cast<size_t>(count);
  }
  return {};
}

Problem read_file(const std::string &path, std::vector<uint8_t> *bytes) {
  const ReachablePath reachable(path, false);
  // Without O_NONBLOCK, a pipe without a writer would stop us here.
  const CloseFd file{open(reachable.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  struct stat info {};
  if (file.fd < 0 || fstat(file.fd, &info) != 0) return system_problem(errno);
  if (S_ISDIR(info.st_mode)) return {"is a folder, expected a file", exit_damaged};
  if (!S_ISREG(info.st_mode)) return {"is no regular file", exit_damaged};
  const auto size = static_cast<uint64_t>(info.st_size);
  if (size > kMostPackedBytes)
    return {fmt::format("too long: found {} bytes, expected at most {}", size, kMostPackedBytes),
            exit_damaged};
  bytes->resize(size);
  return read_to_end(file.fd, bytes);
}

Problem read_packed(const std::string &path, Rollup *rollup, uint64_t *packed_bytes) {
  std::vector<uint8_t> stream;
  if (Problem problem = read_file(path, &stream); !problem.text.empty()) return problem;
  *packed_bytes = stream.size();
  std::string fault = unpack_rollup(stream, rollup);
  return {fault, fault.empty() ? exit_fine : exit_damaged};
}

int run(const PackFiles &files, Session &session) {
  if (const int code = check_names(files, session); code != exit_fine) return code;
  Rollup rollup;
  uint64_t packed_bytes = 0;
  if (const Problem problem = read_packed(files.from, &rollup, &packed_bytes); !problem.text.empty()) {
    session.error(fmt::format("{}: {}", escaped(files.from), problem.text));
    return problem.code;
  }
  if (interrupted()) return exit_interrupted;
  const int code = write_whole(files.to,
                               {{&rollup.header, sizeof rollup.header},
                                {rollup.records.data(), rollup.records.size() * sizeof(nnt_datum_v1)}},
                               session);
  if (code == exit_fine) report_sizes(files, rollup, packed_bytes, session);
  return code;
}

Run configure(CLI::App &app) {
  auto files = std::make_shared<PackFiles>();
  add_file_options(app, *files, "packed stream to unpack");
  return [files](Session &session) { return run(*files, session); };
}

}  // namespace

extern const Command unpack_command = {
    .name = "unpack",
    .summary = "write the rollup file back from a packed stream",
    .description =
        "Writes the file that `orlith pack` was given, byte for byte, and tells how much shorter the stream "
        "is.\n\n"
        "Every record is checked, and the hash over the file, before anything is written: a stream that is "
        "cut or damaged, or "
        "no packed rollup at all, is refused with exit code 2. An older file under the output's name is "
        "replaced.",
    .examples = {{{"orlith unpack packed.cfssz -o copy.nnt", "the rollup file again"},
                  {"orlith unpack --json packed.cfssz -o copy.nnt", "what it holds, as JSON"}}},
    .formats = format_json | format_iso,
    .configure = configure,
};
