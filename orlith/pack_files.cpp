#include "orlith/pack_files.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cstring>

#include "orlith/atomic_file.h"

void add_file_options(CLI::App &app, PackFiles &files, const char *from_what) {
  app.add_option("FILE", files.from, from_what)->type_name("FILE")->required();
  app.add_option("-o,--output", files.to, "write here")->type_name("FILE")->required();
}

int check_names(const PackFiles &files, Session &session) {
  struct stat from {
  }, to{};
  if (stat(files.from.c_str(), &from) != 0 || stat(files.to.c_str(), &to) != 0) return exit_fine;
  if (from.st_dev != to.st_dev || from.st_ino != to.st_ino) return exit_fine;
  session.error(fmt::format("{} is the file to read; give another name with --output", in_quotes(files.to)));
  return exit_usage;
}

int write_whole(const std::string &path, const std::vector<Piece> &pieces, Session &session) {
  const auto fail = [&](int error) {
    session.error(fmt::format("cannot write {}: {}", in_quotes(path), strerror(error)));
    return exit_failed;
  };
  AtomicFile file(path);
  if (const int error = file.open()) return fail(error);
  FdOutput out(file.fd());
  for (const Piece &piece : pieces) out.write({static_cast<const char *>(piece.bytes), piece.len});
  if (!out.flush()) return fail(out.error());
  if (const int error = file.commit()) return fail(error);
  return exit_fine;
}

void report_sizes(const PackFiles &files, const Rollup &rollup, uint64_t packed_bytes, Session &session) {
  const uint64_t bytes = rollup.file_bytes();
  const double ratio = static_cast<double>(packed_bytes) / static_cast<double>(bytes);
  if (session.settings.json) {
    Json json = Json::object();
    json.set("file", files.from).set("output", files.to).set("slots", rollup.records.size());
    json.set("period", rollup.header.period).set("epoch", session.time_json(rollup.header.epoch));
    json.set("bytes", bytes).set("packed_bytes", packed_bytes).set("ratio", ratio);
    session.out << json.text() << "\n";
    return;
  }
  session.out << fmt::format("{}: {} slots, {} bytes, packed {} bytes, ratio {:.3f}\n", escaped(files.to),
                             human_count(rollup.records.size()), human_count(bytes),
                             human_count(packed_bytes), ratio);
}
