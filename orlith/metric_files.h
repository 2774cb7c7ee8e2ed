// Which files of one metric lie in a data folder, and how an index stores that: doc/metric-index.md.
#ifndef ORLITH_METRIC_FILES_H
#define ORLITH_METRIC_FILES_H

#include <array>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What a metric may have in one place; bits.
enum FileKind : uint8_t { kind_rollup = 1, kind_histograms = 2 };

// One tree of files, that of a period, in which a metric has some.
struct MetricPlace {
  bool below_node = false;            // the tree is that of a node (`--me all`)
  std::array<uint8_t, 16> node = {};  // then whose; zeros otherwise
  uint32_t period_s = 0;
  uint8_t kinds = 0;  // FileKind bits

  auto operator<=>(const MetricPlace &) const = default;
};

// Ascending by node and period, of which no pair stands twice.
using MetricFiles = std::vector<MetricPlace>;

// Adds what is not there yet.
void add_place(MetricFiles *files, const MetricPlace &place);
// Whether nothing would be added.
bool has_place(const MetricFiles &files, const MetricPlace &place);

constexpr size_t kMostPlaces = 65535;
// At most kMostPlaces.
std::string encode_files(const MetricFiles &files);
// Reads what stands at the beginning of `bytes`, however long they are. What is wrong with it; empty if nothing.
std::string decode_files(std::string_view bytes, MetricFiles *files);

// A metric's key is its check's UUID, a dash and its canonical name.
constexpr size_t kKeyUuidBytes = 36;
inline std::string_view check_of_key(std::string_view key) {
  return key.substr(0, kKeyUuidBytes);
}
inline std::string_view name_of_key(std::string_view key) {
  return key.substr(kKeyUuidBytes + 1);
}
// Whether the bytes have a key's form; the name may be any but for a NUL.
bool is_metric_key(std::string_view key);
// 36 lower-case characters, as a folder is named.
bool is_uuid_text(std::string_view text);
std::string uuid_text(const std::array<uint8_t, 16> &uuid);
bool parse_uuid(std::string_view text, std::array<uint8_t, 16> *uuid);

struct MetricFile {
  std::string node;  // its UUID; empty where the tree is no node's
  uint32_t period_s;
  FileKind kind;
  std::string path;  // below the data folder; of histograms, the folder of their files
};
// In the order of `files`. `key` has the form of one.
std::vector<MetricFile> files_of(std::string_view key, const MetricFiles &files);

#endif
