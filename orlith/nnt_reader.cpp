#include "orlith/nnt_reader.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "liborlith/nnt/nnt.h"
#include "orlith/data_path.h"
#include "orlith/text.h"

namespace {

constexpr uint64_t record_bytes = sizeof(nnt_datum_v1);
static_assert(record_bytes == 32);

// Reads until `size` bytes are there or the file ends. The count, or -1 with errno.
ssize_t read_fully(int fd, void *to, size_t size, uint64_t offset_bytes) {
  size_t done = 0;
  while (done < size) {
    const ssize_t count =
        pread(fd, static_cast<char *>(to) + done, size - done, static_cast<off_t>(offset_bytes + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

Problem system_problem(int error) {
  const bool gone = error == ENOENT || error == ENOTDIR;
  return {strerror(error), gone ? exit_not_found : exit_failed};
}

std::unique_ptr<NntReader> NntReader::open(const std::string &path, Problem *problem) {
  // Without O_NONBLOCK, a pipe without a writer would stop us here.
  const ReachablePath reachable(path, false);
  const int fd = ::open(reachable.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  const auto refuse = [&](Problem why) {
    *problem = std::move(why);
    if (fd >= 0) close(fd);
    return nullptr;
  };
  struct stat info {};
  nnt_hdr header;
  if (fd < 0 || fstat(fd, &info) != 0) return refuse(system_problem(errno));
  if (S_ISDIR(info.st_mode)) return refuse({"is a folder, expected a file", exit_damaged});
  if (!S_ISREG(info.st_mode)) return refuse({"is no regular file", exit_damaged});
  const ssize_t count = read_fully(fd, &header, sizeof header, 0);
  if (count < 0) return refuse(system_problem(errno));
  if (count < static_cast<ssize_t>(sizeof header))
    return refuse({fmt::format("could not read header: found {} bytes, expected {}", count, sizeof header),
                   exit_damaged});
  if (std::string fault = nnt_header_fault(header); !fault.empty())
    return refuse({std::move(fault), exit_damaged});
  *problem = {};
  return std::unique_ptr<NntReader>(new NntReader(fd, header, static_cast<uint64_t>(info.st_size)));
}

NntReader::NntReader(int fd, nnt_hdr header, uint64_t size_bytes)
    : fd_(fd),
      header_(header),
      size_bytes_(std::max<uint64_t>(size_bytes, NNT_V1_START)),
      slot_count_((size_bytes_ - NNT_V1_START) / record_bytes) {}

NntReader::~NntReader() {
  close(fd_);
}

uint64_t NntReader::slot_time_s(uint64_t slot) const {
  uint64_t offset_s, time_s;
  if (__builtin_mul_overflow(slot, period_s(), &offset_s)) return UINT64_MAX;
  if (__builtin_add_overflow(epoch_s(), offset_s, &time_s)) return UINT64_MAX;
  return time_s;
}

uint64_t NntReader::slot_at(uint64_t time_s) const {
  if (time_s <= epoch_s()) return 0;
  return std::min((time_s - epoch_s()) / period_s(), slot_count_);
}

uint64_t NntReader::slot_from(uint64_t time_s) const {
  if (time_s <= epoch_s()) return 0;
  return std::min((time_s - epoch_s() - 1) / period_s() + 1, slot_count_);
}

uint64_t NntReader::skip_hole(uint64_t slot) const {
  const off_t data = lseek(fd_, static_cast<off_t>(offset_bytes(slot)), SEEK_DATA);
  if (data < 0) return errno == ENXIO ? slot_count_ : slot;  // nothing but a hole; or a system without holes
  return std::max(slot, (static_cast<uint64_t>(data) - NNT_V1_START) / record_bytes);
}

Problem NntReader::read(uint64_t first, uint64_t end, const OnRecords &on_records) const {
  std::vector<nnt_datum_v1> chunk(chunk_records);
  end = std::min(end, slot_count_);
  for (uint64_t slot = skip_hole(first); slot < end;) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(chunk_records, end - slot));
    const ssize_t count = read_fully(fd_, chunk.data(), wanted * record_bytes, offset_bytes(slot));
    if (count < 0) return {fmt::format("at offset {}: {}", offset_bytes(slot), strerror(errno)), exit_failed};
    const size_t records = static_cast<size_t>(count) / record_bytes;
    if (records > 0 && !on_records(slot, {chunk.data(), records})) return {};
    if (records < wanted) return {"became shorter while it was read", exit_failed};
    slot = skip_hole(slot + records);
  }
  return {};
}

// The library's own checks of a header.
std::string nnt_header_fault(const nnt_hdr &header) {
  if (memcmp(header.version, NNT_V1_MAGIC, sizeof header.version) != 0)
    return fmt::format("unknown version: found {}, expected 'NNT1'",
                       in_quotes({header.version, sizeof header.version}));
  if (header.period == 0) return "invalid period: found 0, expected at least 1";
  if (header.epoch % header.period != 0)
    return fmt::format("epoch misaligned: {} is no multiple of the period {}", header.epoch, header.period);
  if (header.epoch > NNT_MAX_EPOCH)
    return fmt::format("bad epoch: found {}, expected at most {}", header.epoch, NNT_MAX_EPOCH);
  return {};
}

std::string check_record(const nnt_datum_v1 &record, nnt_multitype *value) {
  *value = {};
  if (v1_decode(&record, value) == 0) return {};
  const auto *bytes = reinterpret_cast<const uint8_t *>(&record);
  uint8_t expected = 0;
  for (size_t i = 1; i < record_bytes; ++i) expected ^= bytes[i];
  if (bytes[0] != expected) return fmt::format("checksum 0x{:02x}, expected 0x{:02x}", bytes[0], expected);
  return fmt::format("type code {} in a record with data, expected 1 to 6",
                     record.typeinfo & NNT_V1_TYPE_MASK);
}

const char *nnt_type_name(nnt_type_t type) {
  static constexpr const char *names[] = {"absent", "null",   "int32",  "uint32",
                                          "int64",  "uint64", "double", "string"};
  return type < std::size(names) ? names[type] : "unknown";
}

double nnt_number(const nnt_multitype &value) {
  switch (value.type) {
    case NNT_TYPE_INT32:
      return value.value.v_int32;
    case NNT_TYPE_UINT32:
      return value.value.v_uint32;
    case NNT_TYPE_INT64:
      return static_cast<double>(value.value.v_int64);
    case NNT_TYPE_UINT64:
      return static_cast<double>(value.value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return value.value.v_double;
    default:
      return std::numeric_limits<double>::quiet_NaN();
  }
}

bool parse_time_option(const std::string &text, uint64_t *time_s) {
  const auto parsed = parse_time(text);
  if (parsed) *time_s = *parsed;
  return parsed.has_value();
}
