// `orlith nnt dump`: the slots of a file, one row each, a chunk at a time.
#include <fmt/format.h>

#include "orlith/cli.h"
#include "orlith/nnt_range.h"
#include "orlith/nnt_reader.h"
#include "orlith/progress.h"
#include "orlith/signals.h"
#include "orlith/table.h"

namespace {

struct Options {
  std::string file;
  NntRangeOptions range;
  bool all = false;
};

Cell number_cell(const nnt_multitype &value) {
  switch (value.type) {
    case NNT_TYPE_INT32:
      return value.value.v_int32;
    case NNT_TYPE_UINT32:
      return value.value.v_uint32;
    case NNT_TYPE_INT64:
      return value.value.v_int64;
    case NNT_TYPE_UINT64:
      return value.value.v_uint64;
    case NNT_TYPE_DOUBLE:
      return value.value.v_double;
    default:
      return {"-", nullptr};
  }
}

// Writes rows in the chosen form. Holds one chunk of rows.
class SlotWriter {
 public:
  SlotWriter(const Options &options, const NntReader &reader, Session &session)
      : reader_(reader), session_(session), all_(options.all), table_(columns(session)) {
    if (!session.settings.json) return;
    Json head = Json::object();
    head.set("file", options.file)
        .set("period", reader.period_s())
        .set("epoch", session.time_json(reader.epoch_s()));
    std::string text = head.text();
    text.pop_back();  // the object stays open for the slots
    session.out << text << ",\"slots\":[";
  }

  // Absent slots that were not read because they lie in a hole, up to but without `slot`.
  void fill_up_to(uint64_t slot) {
    for (; all_ && next_ < slot && go_on(); ++next_) add_absent(next_);
    next_ = slot;
  }
  void add(uint64_t slot, const nnt_datum_v1 &record) {
    nnt_multitype value;
    const std::string fault = check_record(record, &value);
    next_ = slot + 1;
    if (!fault.empty()) {
      ++damaged;
      add_row(slot, Cell("damaged", "damaged", Style::red), nullptr);
    } else if (value.type != NNT_TYPE_ABSENT) {
      add_row(slot, nnt_type_name(value.type), &value);
    } else if (all_) {
      add_absent(slot);
    }
  }
  void start_at(uint64_t slot) { next_ = slot; }
  bool go_on() const { return !interrupted() && !session_.out.failed(); }

  void flush() {
    if (session_.settings.jsonl) {
      session_.out << table_.take_json_lines();
    } else if (session_.settings.json) {
      // One document, written as it comes: the rows of a chunk go in between the brackets.
      const bool any = table_.size() > 0;
      const std::string rows = table_.take_json().text();
      if (any) session_.out << (first_chunk_ ? "" : ",") << std::string_view(rows).substr(1, rows.size() - 2);
      first_chunk_ = first_chunk_ && !any;
      return;
    } else if (table_.size() > 0 || first_chunk_) {
      session_.out << table_.text(session_, first_chunk_);
      table_.clear();
    }
    first_chunk_ = false;
  }
  void finish() {
    if (session_.settings.json || table_.size() > 0 || (first_chunk_ && !session_.settings.jsonl)) flush();
    if (session_.settings.json) session_.out << "]}\n";
  }

  uint64_t damaged = 0;

 private:
  static std::vector<Column> columns(const Session &session) {
    // Widths that hold any value: the columns of all chunks line up.
    const size_t time_width = session.settings.iso ? 20 : 10;
    return {{"time", "time", Align::right, time_width},
            {"type", "type", Align::left, 7},
            {"count", "count", Align::right, 5},
            {"value", "value", Align::right, 22},
            {"stddev", "stddev", Align::right, 13},
            {"derivative", "derivative", Align::right, 13},
            {"derivative_stddev", "d.stddev", Align::right, 13},
            {"counter", "counter", Align::right, 13},
            {"counter_stddev", "c.stddev", Align::right, 13}};
  }
  void add_absent(uint64_t slot) { add_row(slot, nnt_type_name(NNT_TYPE_ABSENT), nullptr); }
  void add_row(uint64_t slot, Cell type, const nnt_multitype *value) {
    const auto none = [] { return Cell("-", nullptr); };
    const uint64_t time_s = reader_.slot_time_s(slot);
    std::vector<Cell> row;
    row.emplace_back(session_.time_text(time_s), session_.time_json(time_s));
    row.push_back(std::move(type));
    row.push_back(value != nullptr ? Cell(value->count) : none());
    row.push_back(value != nullptr ? number_cell(*value) : none());
    row.push_back(value != nullptr && value->stddev_present != 0 ? Cell(value->stddev) : none());
    row.push_back(value != nullptr ? Cell(value->derivative) : none());
    row.push_back(value != nullptr ? Cell(value->derivative_stddev) : none());
    row.push_back(value != nullptr ? Cell(value->counter) : none());
    row.push_back(value != nullptr ? Cell(value->counter_stddev) : none());
    table_.add_row(std::move(row));
    if (table_.size() >= NntReader::chunk_records) flush();
  }

  const NntReader &reader_;
  Session &session_;
  bool all_;
  Table table_;
  uint64_t next_ = 0;
  bool first_chunk_ = true;
};

int run(const Options &options, Session &session) {
  SlotRange range{};
  int code = exit_fine;
  const auto reader = open_range(options.file, options.range, session, &range, &code);
  if (!reader) return code;
  SlotWriter writer(options, *reader, session);
  Progress progress(session, "dumping", range.size(), Progress::items, "slots");
  writer.start_at(range.first);
  const Problem problem =
      reader->read(range.first, range.end, [&](uint64_t slot, std::span<const nnt_datum_v1> records) {
        writer.fill_up_to(slot);
        for (size_t i = 0; i < records.size(); ++i) writer.add(slot + i, records[i]);
        progress.advance(records.size());
        return writer.go_on();
      });
  if (problem.text.empty()) writer.fill_up_to(range.end);
  // Also after an interrupt the document is closed: what was written can be read.
  writer.finish();
  progress.finish();
  if (interrupted()) return exit_interrupted;
  if (!problem.text.empty()) {
    session.error(fmt::format("{}: {}", escaped(options.file), problem.text));
    return problem.code;
  }
  if (writer.damaged == 0) return code;
  session.error(fmt::format("{}: {} damaged record(s); 'orlith nnt verify' tells more", escaped(options.file),
                            writer.damaged));
  return exit_damaged;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "NNT file")->type_name("FILE")->required();
  add_range_options(app, options->range);
  app.add_flag("-a,--all", options->all, "also the slots without data");
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command nnt_dump_command = {
    .name = "nnt dump",
    .summary = "print the slots of an NNT file",
    .description =
        "One row a slot that has data: when it begins, the type of its value, how many samples it holds, "
        "their mean "
        "and standard deviation, and the two rates (derivative, and counter for values that only grow) with "
        "theirs, "
        "per second. A slot whose record is damaged is shown as such, and the exit code is 2.\n\n"
        "Times are epoch seconds or ISO 8601, read as UTC without a zone. In JSON, what is not a number is "
        "null.",
    .examples = {{{"orlith nnt dump cpu.nnt --from 2023-11-14T06:00 --to 2023-11-14T07:00 --iso", "one hour"},
                  {"orlith nnt dump cpu.nnt --jsonl | head -2", "as JSON, a document a slot"}}},
    .formats = format_json | format_jsonl | format_iso,
    .configure = configure,
};
