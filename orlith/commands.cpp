// The list of commands: a command's one line outside its own file.
#include "orlith/cli.h"

// In the order of the help. A group stands where its first command stands.
#define ORLITH_COMMANDS(X) \
  X(collect)               \
  X(ingest)                \
  X(topo_check)            \
  X(topo_show)             \
  X(topo_place)            \
  X(topo_diff)             \
  X(topo_save)             \
  X(nnt_info)              \
  X(nnt_dump)              \
  X(nnt_plot)              \
  X(nnt_verify)            \
  X(pack)                  \
  X(unpack)                \
  X(find)                  \
  X(index_build)           \
  X(index_get)             \
  X(index_prefix)          \
  X(index_tags)            \
  X(index_stats)           \
  X(index_verify)          \
  X(where)                 \
  X(put)                   \
  X(hist_show)             \
  X(hist_verify)           \
  X(completion)            \
  X(help)

#define ORLITH_DECLARE(name) extern const Command name##_command;
ORLITH_COMMANDS(ORLITH_DECLARE)

CommandTable all_commands() {
#define ORLITH_ENTRY(name) &name##_command,
  static const Command *const commands[] = {ORLITH_COMMANDS(ORLITH_ENTRY)};
  return commands;
}

std::span<const Group> all_groups() {
  static constexpr Group groups[] = {
      {"topo", "compile topologies, see who owns what"},
      {"nnt", "look into numeric time-series files"},
      {"hist", "look into histograms"},
      {"index", "find metrics by name or tag in one file"},
  };
  return groups;
}
