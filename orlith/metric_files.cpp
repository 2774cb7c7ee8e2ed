#include "orlith/metric_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "orlith/data_path.h"
#include "ruxo/uuid.h"

namespace {

// A value in an image: a head, then the places one behind the other. Little-endian.
struct StoredHead {
  uint8_t path_form;  // how a path is made of a key: 1, as data_path.h does
  uint8_t zero;
  uint16_t count;
};
struct StoredPlace {
  uint8_t node[16];
  uint32_t period_s;
  uint8_t below_node;
  uint8_t kinds;
  uint16_t zero;
};
static_assert(sizeof(StoredHead) == 4 && sizeof(StoredPlace) == 24);

constexpr uint8_t kPathForm = 1;
constexpr uint8_t kAllKinds = kind_rollup | kind_histograms;

bool same_tree(const MetricPlace &a, const MetricPlace &b) {
  return a.below_node == b.below_node && a.node == b.node && a.period_s == b.period_s;
}

std::string place_fault(const StoredPlace &stored) {
  if (stored.period_s == 0) return "a period of 0 seconds";
  if (stored.below_node > 1) return fmt::format("found {} where 0 or 1 is expected", stored.below_node);
  if (stored.kinds == 0 || stored.kinds > kAllKinds) return fmt::format("unknown kinds {}", stored.kinds);
  if (stored.zero != 0) return "bytes that are not used are not zero";
  const auto is_zero = [](uint8_t byte) { return byte == 0; };
  if (stored.below_node == 0 && !std::all_of(std::begin(stored.node), std::end(stored.node), is_zero))
    return "a node where none is expected";
  return "";
}

}  // namespace

void add_place(MetricFiles *files, const MetricPlace &place) {
  MetricPlace least = place;
  least.kinds = 0;
  const auto at = std::lower_bound(files->begin(), files->end(), least);
  if (at != files->end() && same_tree(*at, place)) {
    at->kinds |= place.kinds;
  } else {
    files->insert(at, place);
  }
}

bool has_place(const MetricFiles &files, const MetricPlace &place) {
  return std::any_of(files.begin(), files.end(), [&](const MetricPlace &known) {
    return same_tree(known, place) && (known.kinds | place.kinds) == known.kinds;
  });
}

std::string encode_files(const MetricFiles &files) {
  const StoredHead head = {kPathForm, 0, static_cast<uint16_t>(files.size())};
  std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
  for (const MetricPlace &place : files) {
    StoredPlace stored = {};
    memcpy(stored.node, place.node.data(), sizeof stored.node);
    stored.period_s = place.period_s;
    stored.below_node = place.below_node ? 1 : 0;
    stored.kinds = place.kinds;
    bytes.append(reinterpret_cast<const char *>(&stored), sizeof stored);
  }
  return bytes;
}

std::string decode_files(std::string_view bytes, MetricFiles *files) {
  files->clear();
  StoredHead head;
  if (bytes.size() < sizeof head) return fmt::format("{} bytes are left for a head of 4", bytes.size());
  memcpy(&head, bytes.data(), sizeof head);
  if (head.path_form != kPathForm) return fmt::format("unknown path form {}, expected 1", head.path_form);
  if (head.zero != 0 || head.count == 0)
    return head.count == 0 ? "a metric without files" : "bytes that are not used are not zero";
  bytes.remove_prefix(sizeof head);
  if (bytes.size() < head.count * sizeof(StoredPlace))
    return fmt::format("{} bytes are left for {} places of 24", bytes.size(), head.count);
  files->reserve(head.count);
  for (size_t i = 0; i < head.count; ++i) {
    StoredPlace stored;
    memcpy(&stored, bytes.data() + i * sizeof stored, sizeof stored);
    if (const std::string fault = place_fault(stored); !fault.empty())
      return fmt::format("place {}: {}", i, fault);
    MetricPlace place;
    memcpy(place.node.data(), stored.node, sizeof stored.node);
    place.below_node = stored.below_node == 1;
    place.period_s = stored.period_s;
    place.kinds = stored.kinds;
    if (i > 0 && (same_tree(files->back(), place) || place < files->back()))
      return fmt::format("place {}: not behind the one before it", i);
    files->push_back(place);
  }
  return "";
}

bool is_uuid_text(std::string_view text) {
  ruxo_uuid_t ignored;
  const auto is_upper = [](char c) { return c >= 'A' && c <= 'F'; };
  return ruxo_uuid_parse_n(text.data(), text.size(), ignored) == 0 &&
         std::none_of(text.begin(), text.end(), is_upper);
}

bool is_metric_key(std::string_view key) {
  return key.size() > kKeyUuidBytes && is_uuid_text(check_of_key(key)) && key[kKeyUuidBytes] == '-' &&
         memchr(key.data(), '\0', key.size()) == nullptr;
}

std::string uuid_text(const std::array<uint8_t, 16> &uuid) {
  char text[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(uuid.data(), text);
  return text;
}

bool parse_uuid(std::string_view text, std::array<uint8_t, 16> *uuid) {
  return ruxo_uuid_parse_n(text.data(), text.size(), uuid->data()) == 0;
}

std::vector<MetricFile> files_of(std::string_view key, const MetricFiles &files) {
  const std::string encoded = encoded_name(name_of_key(key));
  std::vector<MetricFile> result;
  for (const MetricPlace &place : files) {
    const std::string node = place.below_node ? uuid_text(place.node) : "";
    const std::string tree = (node.empty() ? "" : node + "/") + std::to_string(place.period_s) + "/";
    for (const FileKind kind : {kind_rollup, kind_histograms}) {
      if ((place.kinds & kind) == 0) continue;
      const std::string_view suffix = kind == kind_rollup ? kNntSuffix : kHistSuffix;
      result.push_back(
          {node, place.period_s, kind, tree + metric_file_path(check_of_key(key), encoded, suffix)});
    }
  }
  return result;
}
