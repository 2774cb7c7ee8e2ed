// `orlith nnt plot`: a chart of a file in the terminal.
#include <fmt/format.h>

#include <cmath>

#include "orlith/cli.h"
#include "orlith/nnt_range.h"
#include "orlith/nnt_reader.h"
#include "orlith/plot.h"
#include "orlith/progress.h"
#include "orlith/signals.h"
#include "orlith/wide.h"

namespace {

struct Options {
  std::string file;
  NntRangeOptions range;
  bool rate = false, counter = false, ascii = false;
  int width = 0, height = 0;  // 0: as the terminal is
};

// Mean, least and greatest of the slots that share a dot column.
class Buckets {
 public:
  Buckets(SlotRange range, size_t most)
      : range_(range), sums_(std::min<uint64_t>(most, range.size())), points_(sums_.size()) {}

  void add(uint64_t slot, double value) {
    if (!std::isfinite(value)) return;
    const auto wide = static_cast<uint128>(slot - range_.first) * points_.size();
    const auto i = static_cast<size_t>(wide / range_.size());
    PlotPoint &point = points_[i];
    Sum &sum = sums_[i];
    point.low = point.present ? std::min(point.low, value) : value;
    point.high = point.present ? std::max(point.high, value) : value;
    point.present = true;
    // A plain sum could overflow, and so can the distance from the mean: then its two ends are divided one by one.
    const auto count = static_cast<double>(++sum.count);
    const double away = value - sum.mean;
    sum.mean += std::isfinite(away) ? away / count : value / count - sum.mean / count;
    point.value = std::clamp(sum.mean, point.low, point.high);
  }
  std::vector<PlotPoint> take() { return std::move(points_); }

 private:
  struct Sum {
    double mean = 0;
    uint64_t count = 0;
  };
  SlotRange range_;
  std::vector<Sum> sums_;
  std::vector<PlotPoint> points_;
};

double chosen_number(const Options &options, const nnt_multitype &value) {
  if (value.type == NNT_TYPE_ABSENT) return std::nan("");
  if (options.rate) return static_cast<double>(value.derivative);
  if (options.counter) return static_cast<double>(value.counter);
  return nnt_number(value);
}

const char *chosen_name(const Options &options) {
  return options.rate ? "derivative, per second" : options.counter ? "counter, per second" : "value";
}

PlotStyle style_of(const Options &options, const Session &session) {
  const Terminal &terminal = session.terminal;
  PlotStyle style;
  style.columns = options.width > 0 ? options.width : terminal.columns;
  style.rows = options.height > 0 ? options.height : std::clamp(terminal.rows - 6, 8, 24);
  style.braille = terminal.utf8 && !options.ascii;
  style.color = session.color_out();
  return style;
}

Json points_json(const std::vector<PlotPoint> &points, const SlotRange &range, const NntReader &reader,
                 const Session &session) {
  Json array = Json::array();
  for (size_t i = 0; i < points.size(); ++i) {
    // The first slot that falls into bucket i: the inverse of the division in Buckets::add.
    const auto wide = static_cast<uint128>(i) * range.size() + points.size() - 1;
    const uint64_t slot = range.first + static_cast<uint64_t>(wide / points.size());
    Json point = Json::object();
    point.set("time", session.time_json(reader.slot_time_s(slot)));
    const PlotPoint &p = points[i];
    point.set("value", p.present ? Json(p.value) : Json());
    point.set("min", p.present ? Json(p.low) : Json());
    point.set("max", p.present ? Json(p.high) : Json());
    array.add(std::move(point));
  }
  return array;
}

std::string legend_of(const Options &options, const NntReader &reader, uint64_t slots, size_t points) {
  std::string legend =
      fmt::format("{}; {} slots of {} s", chosen_name(options), human_count(slots), reader.period_s());
  if (slots > points) legend += "; dotted: least to greatest in a column";
  return legend;
}

int run(const Options &options, Session &session) {
  SlotRange range{};
  int code = exit_fine;
  const auto reader = open_range(options.file, options.range, session, &range, &code);
  if (!reader) return code;
  if (range.size() == 0) {
    session.error(fmt::format("{}: there are no slots in this range; the file has {} from {} to {}",
                              escaped(options.file), reader->slot_count(), iso_time(reader->epoch_s()),
                              iso_time(reader->end_s())));
    return exit_not_found;
  }
  const PlotStyle style = style_of(options, session);
  Buckets buckets(range, plot_point_count(style));
  Progress progress(session, "reading", range.size(), Progress::items, "slots");
  uint64_t damaged = 0;
  const Problem problem =
      reader->read(range.first, range.end, [&](uint64_t slot, std::span<const nnt_datum_v1> records) {
        for (size_t i = 0; i < records.size(); ++i) {
          nnt_multitype value;
          if (check_record(records[i], &value).empty()) {
            buckets.add(slot + i, chosen_number(options, value));
          } else {
            ++damaged;
          }
        }
        progress.advance(records.size());
        return !interrupted();
      });
  progress.finish();
  if (interrupted()) return exit_interrupted;
  if (!problem.text.empty()) {
    session.error(fmt::format("{}: {}", escaped(options.file), problem.text));
    return problem.code;
  }
  Plot plot;
  plot.points = buckets.take();
  plot.start_s = reader->slot_time_s(range.first);
  plot.end_s = reader->slot_time_s(range.end);
  if (session.settings.json) {
    session.out << points_json(plot.points, range, *reader, session).text() << "\n";
  } else {
    plot.title =
        fmt::format("{}  {} to {}", escaped(options.file), iso_time(plot.start_s), iso_time(plot.end_s));
    plot.legend = legend_of(options, *reader, range.size(), plot.points.size());
    session.out << render_plot(plot, style);
  }
  if (damaged == 0) return code;
  session.error(fmt::format("{}: {} damaged record(s) left out; 'orlith nnt verify' tells more",
                            escaped(options.file), damaged));
  return exit_damaged;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->file, "NNT file")->type_name("FILE")->required();
  add_range_options(app, options->range);
  auto *rate = app.add_flag("--rate", options->rate, "the derivative instead of the value");
  app.add_flag("--counter", options->counter, "the rate of growth instead of the value")->excludes(rate);
  app.add_flag("--ascii", options->ascii, "draw with ASCII characters, as where the locale is not UTF-8");
  app.add_option("--width", options->width, "characters across")
      ->type_name("COUNT")
      ->check(CLI::Range(1, 10000));
  app.add_option("--height", options->height, "lines of the drawing")
      ->type_name("COUNT")
      ->check(CLI::Range(1, 1000));
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command nnt_plot_command = {
    .name = "nnt plot",
    .summary = "draw an NNT file as a chart in the terminal",
    .description =
        "The line is the value of each slot. Where there are more slots than dots across, it is the mean of "
        "those that "
        "share a column, and a dotted band shows the least and the greatest of them. Slots without data are "
        "gaps. With "
        "--json: the points drawn.",
    .examples = {{{"orlith nnt plot cpu.nnt", "the whole file"},
                  {"orlith nnt plot cpu.nnt --rate --ascii --width 60 --height 8",
                   "its derivative, small, in ASCII"}}},
    .formats = format_json | format_iso,
    .configure = configure,
};
