// `orlith hist show`: histograms in the terminal.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "orlith/cli.h"
#include "orlith/hist_input.h"
#include "orlith/hist_plot.h"
#include "orlith/histogram_line.h"

namespace {

struct Options {
  std::string input, at;
  std::vector<double> quantiles;
  bool with_source = false, ascii = false;
  int width = 0, height = 0;  // 0: as the terminal is
};

constexpr double kUsualQuantiles[] = {0.5, 0.9, 0.99, 0.999};

struct Bounds {
  double lower = std::nan(""), upper = std::nan("");
};

// Of the values that were counted and are numbers.
Bounds bounds_of(const histogram_t *histogram) {
  Bounds bounds;
  hist_bucket_t bucket;
  uint64_t count = 0;
  for (int i = 0; hist_bucket_at(histogram, i, &bucket, &count) == 0; ++i) {
    const double lower = hist_bucket_lower(bucket);
    if (count == 0 || std::isnan(lower)) continue;
    if (std::isnan(bounds.lower)) bounds.lower = lower;
    bounds.upper = hist_bucket_upper(bucket);
  }
  return bounds;
}

HistPlotStyle style_of(const Options &options, const Session &session) {
  constexpr int kLinesAround = 6;
  const Terminal &terminal = session.terminal;
  HistPlotStyle style;
  style.columns = options.width > 0 ? options.width : terminal.columns;
  style.rows = options.height > 0 ? options.height : std::clamp(terminal.rows - kLinesAround, 8, 40);
  style.blocks = terminal.utf8 && !options.ascii;
  style.color = session.color_out();
  return style;
}

std::string counted(uint64_t count, const char *one, const char *many) {
  return fmt::format("{} {}", human_count(count), count == 1 ? one : many);
}

std::string title_of(const HistSamples &metric, const Options &options) {
  std::string title = escaped(metric.key);
  if (title.empty()) title = metric.has_times ? escaped(options.input) : "histogram";
  if (!metric.has_times) return title;
  title += "  " + iso_time(metric.first_ms / 1000);
  if (metric.last_ms / 1000 > metric.first_ms / 1000) title += " to " + iso_time(metric.last_ms / 1000);
  return title;
}

void show_text(const HistSamples &metric, const Options &options, Session &session) {
  const histogram_t *histogram = metric.sum.get();
  session.out << styled(title_of(metric, options), Style::bold, session.color_out()) << "\n";
  std::string facts = counted(hist_sample_count(histogram), "value", "values") + " in " +
                      counted(metric.samples, "sample", "samples");
  if (metric.null_samples > 0) facts += fmt::format(", {} null", human_count(metric.null_samples));
  if (hist_number_count(histogram) > 0) {
    const Bounds bounds = bounds_of(histogram);
    facts += fmt::format("; mean {:.4g}, from {} to {}", hist_approx_mean(histogram), shortest(bounds.lower),
                         shortest(bounds.upper));
  }
  session.out << facts << "\n";
  if (hist_number_count(histogram) > 0) {
    std::string line;
    for (const double quantile : options.quantiles) {
      line += fmt::format("{}{} {:.4g}", line.empty() ? "" : "   ", quantile_name(quantile),
                          quantile_of(histogram, quantile));
    }
    session.out << line << "\n";
  }
  session.out << render_histogram(histogram, style_of(options, session));
}

Json buckets_json(const histogram_t *histogram) {
  Json buckets = Json::array();
  hist_bucket_t bucket;
  uint64_t count = 0;
  for (int i = 0; hist_bucket_at(histogram, i, &bucket, &count) == 0; ++i) {
    Json entry = Json::object();  // both bounds of the bin of no number are null
    entry.set("lower", hist_bucket_lower(bucket)).set("upper", hist_bucket_upper(bucket)).set("count", count);
    buckets.add(std::move(entry));
  }
  return buckets;
}

Json metric_json(const HistSamples &metric, const Options &options, const Session &session) {
  const histogram_t *histogram = metric.sum.get();
  const auto time = [&](uint64_t time_ms) {
    return metric.has_times ? session.time_json(time_ms / 1000) : Json();
  };
  const Bounds bounds = bounds_of(histogram);
  Json quantiles = Json::array();
  for (const double quantile : options.quantiles) {
    Json entry = Json::object();
    entry.set("quantile", quantile).set("value", quantile_of(histogram, quantile));
    quantiles.add(std::move(entry));
  }
  Json result = Json::object();
  result.set("metric", metric.key.empty() ? Json() : Json(metric.key))
      .set("first", time(metric.first_ms))
      .set("last", time(metric.last_ms))
      .set("samples", metric.samples)
      .set("null_samples", metric.null_samples)
      .set("count", hist_sample_count(histogram))
      .set("numbers", hist_number_count(histogram))
      .set("mean", hist_approx_mean(histogram))
      .set("stddev", hist_approx_stddev(histogram))
      .set("lower", bounds.lower)
      .set("upper", bounds.upper)
      .set("quantiles", std::move(quantiles))
      .set("buckets", buckets_json(histogram));
  return result;
}

void show(const HistInput &input, const Options &options, Session &session) {
  if (session.settings.json) {
    Json array = Json::array();
    for (const HistSamples &metric : input.metrics()) array.add(metric_json(metric, options, session));
    session.out << array.text() << "\n";
    return;
  }
  bool is_first = true;
  for (const HistSamples &metric : input.metrics()) {
    if (!is_first) session.out << "\n";
    is_first = false;
    show_text(metric, options, session);
  }
}

int run(Options &options, Session &session) {
  if (options.quantiles.empty())
    options.quantiles.assign(std::begin(kUsualQuantiles), std::end(kUsualQuantiles));
  for (const double quantile : options.quantiles) {
    if (quantile >= 0 && quantile <= 1) continue;
    session.error(fmt::format("--quantile must be from 0 to 1, not {}", quantile));
    return exit_usage;
  }
  HistInputOptions input_options;
  input_options.with_source = options.with_source;
  if (!options.at.empty()) {
    input_options.at_s = parse_time(options.at);
    if (!input_options.at_s) {
      session.error(fmt::format("--at: found {}, expected epoch seconds or ISO 8601", in_quotes(options.at)));
      return exit_usage;
    }
  }
  start_library();
  HistInput input(input_options, session);
  const int code = input.read(options.input);
  if (code != exit_fine && code != exit_damaged) return code;
  if (!input.metrics().empty()) show(input, options, session);
  if (code != exit_fine || !input.metrics().empty()) return code;
  session.error(fmt::format("{}: there is no histogram{}", escaped(options.input),
                            input_options.at_s ? " at or before " + iso_time(*input_options.at_s) : ""));
  return exit_not_found;
}

Run configure(CLI::App &app) {
  auto options = std::make_shared<Options>();
  app.add_option("FILE", options->input,
                 "a file of histogram lines, a series file, - for lines on standard input, a line, or a "
                 "histogram in base64")
      ->type_name("FILE")
      ->required();
  app.add_option("--quantile", options->quantiles,
                 "a quantile to show, from 0 to 1; may be repeated; 0.5, 0.9, 0.99 and 0.999 unless given")
      ->type_name("QUANTILE")
      ->allow_extra_args(false);
  app.add_option("--at", options->at, "only the last sample that is not later than this")->type_name("TIME");
  app.add_flag("--with-source", options->with_source, "the lines carry the source field");
  app.add_flag("--ascii", options->ascii, "draw with ASCII characters, as where the locale is not UTF-8");
  app.add_option("--width", options->width, "characters across")
      ->type_name("COUNT")
      ->check(CLI::Range(1, 10000));
  app.add_option("--height", options->height, "bars at most")->type_name("COUNT")->check(CLI::Range(1, 1000));
  return [options](Session &session) { return run(*options, session); };
}

}  // namespace

extern const Command hist_show_command = {
    .name = "hist show",
    .summary = "draw histograms and their quantiles in the terminal",
    .description =
        "Reads histogram lines (other lines, such as M lines, are passed over), a series file of 'orlith "
        "ingest', or "
        "one line or one histogram in base64 given as the argument itself. The samples of each metric are "
        "merged.\n\n"
        "A bar is a range of values with its count. Where there are more buckets than lines, neighbours "
        "share a bar; "
        "several empty ranges next to each other are one gap. Mean and quantiles are exact to half a bucket, "
        "5 % "
        "of the value at most. With --json: all buckets.",
    .examples = {{{"orlith hist show histograms.txt", "every metric of a file of lines"},
                  {"orlith hist show aBACCsABCgI= --ascii --quantile 0.5", "one histogram, its median"}}},
    .formats = format_json | format_iso,
    .configure = configure,
};
