// Reads NNT files for looking at them: opened read-only, a chunk at a time, holes skipped, damage reported record by
// record instead of hidden. Nothing in a file can make it fail other than by a Problem.
#ifndef ORLITH_NNT_READER_H
#define ORLITH_NNT_READER_H

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "liborlith/nnt/nnt_v1.h"
#include "orlith/exit_code.h"

// Why a file cannot be used, and the exit code that goes with it.
struct Problem {
  std::string text;  // without the file's name; empty while all is well
  ExitCode code = exit_fine;
};

// For an errno: exit_not_found when the file is not there, else exit_failed.
Problem system_problem(int error);

class NntReader {
 public:
  static constexpr size_t chunk_records = 4096;

  // Null with *problem filled: exit_not_found when the file is not there, exit_failed when it cannot be read,
  // exit_damaged when its header is refused. A file that ends inside a record is opened: see tail_bytes().
  static std::unique_ptr<NntReader> open(const std::string &path, Problem *problem);
  ~NntReader();
  NntReader(const NntReader &) = delete;
  NntReader &operator=(const NntReader &) = delete;

  uint64_t period_s() const { return header_.period; }
  uint64_t epoch_s() const { return header_.epoch; }
  uint64_t slot_count() const { return slot_count_; }
  uint64_t size_bytes() const { return size_bytes_; }
  // Bytes after the last whole record: 0 in a sound file.
  uint64_t tail_bytes() const { return (size_bytes_ - NNT_V1_START) % sizeof(nnt_datum_v1); }
  // When the slot begins; UINT64_MAX where it would lie beyond that.
  uint64_t slot_time_s(uint64_t slot) const;
  uint64_t end_s() const { return slot_time_s(slot_count_); }
  // The slot that covers the time, at most slot_count(); 0 for times before the epoch.
  uint64_t slot_at(uint64_t time_s) const;
  // The first slot that begins at or after the time, at most slot_count().
  uint64_t slot_from(uint64_t time_s) const;
  static uint64_t offset_bytes(uint64_t slot) { return NNT_V1_START + slot * sizeof(nnt_datum_v1); }

  // Hands the stored records of [first, end) over in order, at most chunk_records a call, as they are; `first_slot`
  // belongs to records[0]. Parts of the file that were never written (holes: absent slots) may be left out. Ends
  // early when the callback returns false. The result's text is empty unless reading failed.
  using OnRecords = std::function<bool(uint64_t first_slot, std::span<const nnt_datum_v1> records)>;
  Problem read(uint64_t first, uint64_t end, const OnRecords &on_records) const;

 private:
  NntReader(int fd, nnt_hdr header, uint64_t size_bytes);
  uint64_t skip_hole(uint64_t slot) const;
  int fd_;
  nnt_hdr header_;
  uint64_t size_bytes_;
  uint64_t slot_count_;
};

// What is wrong with a header, the file's size left out of it: the message, or an empty text.
std::string nnt_header_fault(const nnt_hdr &header);

// What is wrong with a record: empty when it is sound, "checksum 0x12, expected 0x34" otherwise. Fills *value (may
// be partly) as stored.
std::string check_record(const nnt_datum_v1 &record, nnt_multitype *value);

// The words for the type codes: "absent", "null", "int32", ...
const char *nnt_type_name(nnt_type_t type);

// The number of a slot as a double; NaN when it has none.
double nnt_number(const nnt_multitype &value);

// Reads a --from or --to; UINT64_MAX and false for text that is no time.
bool parse_time_option(const std::string &text, uint64_t *time_s);

#endif
