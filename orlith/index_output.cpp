#include "orlith/index_output.h"

#include <fmt/format.h>

std::unique_ptr<MetricIndex> open_index(const std::string &file, Session &session, int *code) {
  Problem problem;
  std::unique_ptr<MetricIndex> index = MetricIndex::open(file, &problem);
  *code = problem.code;
  if (index == nullptr) session.error(fmt::format("{}: {}", escaped(file), problem.text));
  return index;
}

int say_damage(const std::string &file, const std::string &fault, Session &session) {
  session.error(fmt::format("{}: {}", escaped(file), escaped(fault)));
  return exit_damaged;
}

const char *kind_word(FileKind kind) {
  return kind == kind_rollup ? "rollup" : "histograms";
}

Json metric_json(std::string_view key, const std::vector<MetricFile> &files, const std::string &folder) {
  Json list = Json::array();
  for (const MetricFile &file : files) {
    Json entry = Json::object();
    entry.set("node", file.node.empty() ? Json() : Json(file.node))
        .set("period", file.period_s)
        .set("kind", kind_word(file.kind))
        .set("path", folder + file.path);
    list.add(std::move(entry));
  }
  Json json = Json::object();
  json.set("key", key).set("check_uuid", check_of_key(key)).set("metric_name", name_of_key(key));
  json.set("files", std::move(list));
  return json;
}

// An array is written as it grows: a prefix may stand for a million metrics.
void MetricPrinter::add(std::string_view key, const MetricFiles &files) {
  if (session_.settings.json) {
    session_.out << (is_empty_ ? "[" : ",") << metric_json(key, files_of(key, files)).text();
  } else if (session_.settings.jsonl) {
    session_.out << metric_json(key, files_of(key, files)).text() << "\n";
  } else {
    session_.out << escaped(key) << "\n";
  }
  is_empty_ = false;
}

int MetricPrinter::finish() {
  if (session_.settings.json) session_.out << (is_empty_ ? "[]\n" : "]\n");
  return is_empty_ ? exit_not_found : exit_fine;
}
