#include "orlith/metric_index.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "liborlith/util/metric_name.h"

namespace {

bool read_at(int fd, void *bytes, size_t len, uint64_t offset) {
  auto *at = static_cast<char *>(bytes);
  while (len > 0) {
    const ssize_t got = pread(fd, at, len, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = EIO;  // became shorter meanwhile
    if (got <= 0) return false;
    at += got;
    len -= static_cast<size_t>(got);
    offset += static_cast<uint64_t>(got);
  }
  return true;
}

std::string header_fault(const vask_art_ser_hdr &header) {
  static constexpr vask_art_ser_hdr kTemplate = VASK_ART_SER_HDR;
  if (memcmp(header.hdr_ver, kTemplate.hdr_ver, sizeof header.hdr_ver) != 0)
    return "no index: it does not begin with \"ART\" and a zero byte";
  if (header.version != kIndexImageVersion)
    return fmt::format("image version {} at offset 4, expected {}", header.version, kIndexImageVersion);
  if ((header.flags & VASK_ART_SER_COMPLETE) == 0)
    return "not complete: bit 0 of the flags at offset 6 is clear";
  return "";
}

std::string root_fault(const char *what, uint64_t root, uint64_t count, uint64_t end) {
  if ((root == 0) != (count == 0)) return fmt::format("{} {}, and a root at offset {}", count, what, root);
  if (root < end) return "";
  return fmt::format("the root of the {} at offset {} is not within the first {} bytes", what, root, end);
}

std::string directory_fault(const IndexDirectory &directory, uint64_t file_bytes) {
  if (memcmp(directory.magic, kIndexMagic, sizeof directory.magic) != 0)
    return "does not begin with \"MIDX\"";
  if (directory.version != kIndexVersion)
    return fmt::format("version {}, expected {}", directory.version, kIndexVersion);
  if (directory.zero != 0) return "bytes that are not used are not zero";
  if (directory.file_bytes != file_bytes)
    return fmt::format("found a file of {} bytes, expected {}", file_bytes, directory.file_bytes);
  const uint64_t end = file_bytes - sizeof directory;
  std::string fault = root_fault("metrics", directory.metrics_root, directory.metric_count, end);
  return !fault.empty() ? fault : root_fault("tags", directory.tags_root, directory.tag_count, end);
}

// The first of an ascending list, from `begin` on, that is not below `wanted`: in steps that double, since lists of
// tags that are asked for together often run side by side.
const LeafUnits *gallop(const LeafUnits *begin, const LeafUnits *end, LeafUnits wanted) {
  ptrdiff_t step = 1;
  const LeafUnits *low = begin;
  while (end - low > step && low[step] < wanted) {
    low += step;
    step *= 2;
  }
  return std::lower_bound(low, end - low > step ? low + step + 1 : end, wanted);
}

}  // namespace

std::string MetricIndex::FilesReader::read(const ImageLeaf &leaf) {
  if (offset_ != 0 && leaf.value == offset_) return "";
  offset_ = 0;
  const uint64_t end = index_.end_of_trees();
  if (leaf.value < ART_DEFAULT_OFFSET || leaf.value >= end)
    return fmt::format("leaf at offset {}: its files at offset {} are not within the first {} bytes",
                       leaf.offset, leaf.value, end);
  const std::string fault = decode_files(index_.image_.substr(leaf.value, end - leaf.value), &files_);
  if (!fault.empty()) return fmt::format("files at offset {}: {}", leaf.value, fault);
  offset_ = leaf.value;
  return "";
}

MetricIndex::MetricIndex(std::string_view image, const IndexDirectory &directory,
                         const struct timespec &as_of)
    : image_(image),
      directory_(directory),
      as_of_(as_of),
      metrics_(image, end_of_trees(), directory.metrics_root),
      tags_(image, end_of_trees(), directory.tags_root) {}

MetricIndex::~MetricIndex() {
  munmap(const_cast<char *>(image_.data()), image_.size());
}

std::unique_ptr<MetricIndex> MetricIndex::open(const std::string &path, Problem *problem) {
  // Opening a pipe would wait for its writer.
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    *problem = {strerror(errno), errno == ENOENT || errno == ENOTDIR ? exit_not_found : exit_failed};
    return nullptr;
  }
  std::unique_ptr<MetricIndex> index = open(fd, problem);
  close(fd);
  return index;
}

std::unique_ptr<MetricIndex> MetricIndex::open(int fd, Problem *problem) {
  const auto fail = [&](std::string text, ExitCode code) {
    *problem = {std::move(text), code};
    return nullptr;
  };
  struct stat info {};
  if (fstat(fd, &info) != 0) return fail(strerror(errno), exit_failed);
  if (!S_ISREG(info.st_mode))
    return fail(S_ISDIR(info.st_mode) ? "is a folder" : "is no regular file", exit_failed);
  const auto size = static_cast<uint64_t>(info.st_size);
  constexpr uint64_t kLeast = sizeof(vask_art_ser_hdr) + sizeof(IndexDirectory);
  if (size < kLeast)
    return fail(fmt::format("{} bytes, expected an index of {} or more", size, kLeast), exit_damaged);
  vask_art_ser_hdr header;
  IndexDirectory directory;
  const uint64_t directory_at = size - sizeof directory;
  if (!read_at(fd, &header, sizeof header, 0) || !read_at(fd, &directory, sizeof directory, directory_at))
    return fail(strerror(errno), exit_failed);
  if (const std::string fault = header_fault(header); !fault.empty()) return fail(fault, exit_damaged);
  if (size % WRITEALIGN != 0)
    return fail(fmt::format("{} bytes, expected a multiple of 8", size), exit_damaged);
  if (const std::string fault = directory_fault(directory, size); !fault.empty())
    return fail(fmt::format("directory at offset {}: {}", directory_at, fault), exit_damaged);

  void *image = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (image == MAP_FAILED) return fail(strerror(errno), exit_failed);
  // Cells on a way down lie anywhere: what stands around them is not wanted.
  madvise(image, size, MADV_RANDOM);
  return std::unique_ptr<MetricIndex>(
      new MetricIndex({static_cast<const char *>(image), size}, directory, info.st_mtim));
}

std::string MetricIndex::key_of(const ImageLeaf &leaf, std::string_view *key) const {
  const bool ends_in_zero = !leaf.key.empty() && leaf.key.back() == '\0';
  *key = leaf.key.substr(0, leaf.key.size() - (ends_in_zero ? 1 : 0));
  if (ends_in_zero && is_metric_key(*key)) return "";
  return fmt::format("leaf at offset {}: its key is none of a metric", leaf.offset);
}

std::string MetricIndex::find(std::string_view key, std::optional<MetricFiles> *files) const {
  files->reset();
  std::optional<ImageLeaf> leaf;
  std::string fault = metrics_.find(std::string(key) + '\0', &leaf);
  if (!fault.empty() || !leaf) return fault;
  FilesReader reader(*this);
  fault = reader.read(*leaf);
  if (fault.empty()) *files = reader.files();
  return fault;
}

std::string MetricIndex::each(std::string_view prefix, const Visit &visit) const {
  FilesReader reader(*this);
  std::string own_fault;
  const std::string fault = metrics_.each(prefix, [&](const ImageLeaf &leaf) {
    std::string_view key;
    own_fault = key_of(leaf, &key);
    if (own_fault.empty()) own_fault = reader.read(leaf);
    return own_fault.empty() && visit(key, reader.files());
  });
  return fault.empty() ? own_fault : fault;
}

std::string MetricIndex::list_of(const ImageLeaf &tag, List *list) const {
  const uint64_t end = end_of_trees();
  const uint64_t at = tag.value;
  if (at % WRITEALIGN != 0 || at < ART_DEFAULT_OFFSET || at >= end)
    return fmt::format("leaf at offset {}: its list at offset {} is none within the first {} bytes",
                       tag.offset, at, end);
  memcpy(&list->count, image_.data() + at, sizeof list->count);
  const uint64_t room = (end - at - kListHeadBytes) / sizeof(LeafUnits);
  if (list->count == 0 || list->count > room)
    return fmt::format("list at offset {}: {} metrics, where there is room for {}", at, list->count, room);
  list->leaves = reinterpret_cast<const LeafUnits *>(image_.data() + at + kListHeadBytes);
  return "";
}

std::string MetricIndex::each_with_tags(std::span<const std::string> tags, const Visit &visit) const {
  std::vector<List> lists;
  for (const std::string &tag : tags) {
    std::optional<ImageLeaf> leaf;
    std::string fault = tags_.find(tag + '\0', &leaf);
    if (!fault.empty() || !leaf) return fault;
    fault = list_of(*leaf, &lists.emplace_back());
    if (!fault.empty()) return fault;
  }
  std::sort(lists.begin(), lists.end(), [](const List &a, const List &b) { return a.count < b.count; });
  std::vector<const LeafUnits *> positions;
  for (const List &list : lists) positions.push_back(list.begin());
  FilesReader reader(*this);
  for (const LeafUnits wanted : lists.front()) {
    bool is_in_all = true;
    for (size_t i = 1; i < lists.size() && is_in_all; ++i) {
      positions[i] = gallop(positions[i], lists[i].end(), wanted);
      if (positions[i] == lists[i].end()) return "";
      is_in_all = *positions[i] == wanted;
    }
    if (!is_in_all) continue;
    ImageLeaf leaf;
    std::string_view key;
    std::string fault = metrics_.leaf_at(uint64_t{wanted} * WRITEALIGN, &leaf);
    if (fault.empty()) fault = key_of(leaf, &key);
    if (fault.empty()) fault = reader.read(leaf);
    if (!fault.empty()) return fault;
    if (!visit(key, reader.files())) return "";
  }
  return "";
}

std::string canonical_tags(const std::string &text, std::vector<std::string> *tags) {
  pobe_metric_tagset_t set{};
  const int code = pobe_metric_tagset_init(&set, text.data(), text.size());
  pobe_metric_tagset_cleanup(&set);
  if (code < 0) return pobe_error_text(code);
  // A tag alone is no name: it is spelled as it would be in one.
  const std::string name = "|ST[" + text + "]";
  std::string key(kKeyUuidBytes + 1 + 4 * name.size() + 16, '-');
  const size_t room = key.size() - kKeyUuidBytes - 1;
  const ssize_t length = pobe_metric_canonicalize_ex(name.data(), name.size(), key.data() + kKeyUuidBytes + 1,
                                                     room, true, true, false);
  if (length < 0) return pobe_error_text(length);
  key.resize(kKeyUuidBytes + 1 + std::min(static_cast<size_t>(length), room));
  const std::vector<std::string_view> found = tags_of_key(key);
  tags->insert(tags->end(), found.begin(), found.end());
  return found.empty() ? "no tag that a metric can have" : "";
}

std::vector<std::string_view> tags_of_key(std::string_view key) {
  const std::string_view name = name_of_key(key);
  mem_reader_t whole{}, plain{};
  whole.input_buffer = reinterpret_cast<const uint8_t *>(name.data());
  whole.input_buffer_size = name.size();
  pobe_metric_tagset_t set{};
  std::vector<std::string_view> tags;
  if (!metric_name_v1_parse(&whole, &plain, &set)) return tags;
  for (int i = 0; i < set.tag_count; ++i) tags.emplace_back(set.tags[i].tag, set.tags[i].total_size);
  pobe_metric_tagset_cleanup(&set);
  return tags;
}
