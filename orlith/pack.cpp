// `orlith pack`: a rollup file as a packed record stream.
#include <fmt/format.h>

#include <cstring>

#include "orlith/cli.h"
#include "orlith/nnt_reader.h"
#include "orlith/pack_files.h"
#include "orlith/packed_rollup.h"
#include "orlith/signals.h"

namespace {

std::string damage_text(const NntReader &reader, uint64_t slot, const std::string &fault,
                        const Session &session) {
  return fmt::format("damaged record at offset {} (slot {}, {}): {}; `orlith nnt verify` counts them",
                     NntReader::offset_bytes(slot), slot, session.time_text(reader.slot_time_s(slot)), fault);
}

// The whole file; holes are absent slots.
Problem read_rollup(const std::string &path, const Session &session, Rollup *rollup) {
  Problem problem;
  const auto reader = NntReader::open(path, &problem);
  if (!reader) return problem;
  if (reader->tail_bytes() != 0)
    return {fmt::format("{} bytes after the last whole record, at offset {}; expected none",
                        reader->tail_bytes(), NntReader::offset_bytes(reader->slot_count())),
            exit_damaged};
  if (reader->slot_count() > kMostPackedSlots)
    return {
        fmt::format("too many slots: found {}, expected at most {}", reader->slot_count(), kMostPackedSlots),
        exit_damaged};
  memcpy(rollup->header.version, NNT_V1_MAGIC, sizeof rollup->header.version);
  rollup->header.period = static_cast<uint32_t>(reader->period_s());
  rollup->header.epoch = reader->epoch_s();
  rollup->records.resize(reader->slot_count());
  std::string damage;
  problem = reader->read(0, reader->slot_count(), [&](uint64_t slot, std::span<const nnt_datum_v1> records) {
    nnt_multitype value;
    for (size_t i = 0; i < records.size() && damage.empty(); ++i) {
      const std::string fault = check_record(records[i], &value);
      if (!fault.empty()) damage = damage_text(*reader, slot + i, fault, session);
      rollup->records[slot + i] = records[i];
    }
    return damage.empty() && !interrupted();
  });
  return damage.empty() ? problem : Problem{damage, exit_damaged};
}

int run(const PackFiles &files, Session &session) {
  if (const int code = check_names(files, session); code != exit_fine) return code;
  Rollup rollup;
  if (const Problem problem = read_rollup(files.from, session, &rollup); !problem.text.empty()) {
    session.error(fmt::format("{}: {}", escaped(files.from), problem.text));
    return problem.code;
  }
  if (interrupted()) return exit_interrupted;
  const std::vector<uint8_t> stream = pack_rollup(rollup);
  if (stream.empty()) {
    session.error(fmt::format("{}: does not come back as it is; nothing was written", escaped(files.from)));
    return exit_failed;
  }
  if (const int code = write_whole(files.to, {{stream.data(), stream.size()}}, session); code != exit_fine)
    return code;
  report_sizes(files, rollup, stream.size(), session);
  return exit_fine;
}

Run configure(CLI::App &app) {
  auto files = std::make_shared<PackFiles>();
  add_file_options(app, *files, "NNT file to pack");
  return [files](Session &session) { return run(*files, session); };
}

}  // namespace

extern const Command pack_command = {
    .name = "pack",
    .summary = "write a rollup file as a packed stream",
    .description =
        "Writes each slot by its differences to the one before, with a hash over the file, and tells how "
        "much "
        "that takes. "
        "Of two ways to write values the shorter is taken. Before anything is written the stream is decoded "
        "and compared: `orlith unpack` gives back the same file, byte for byte.\n\n"
        "A file with damage is refused with exit code 2, since a packed stream has no checksum for each "
        "record. An older file "
        "under the output's name is replaced.",
    .examples = {{{"orlith pack cpu.nnt -o cpu.cfssz", "how much shorter it is"},
                  {"orlith pack --json cpu.nnt -o cpu.cfssz", "the same as JSON"}}},
    .formats = format_json | format_iso,
    .configure = configure,
};
