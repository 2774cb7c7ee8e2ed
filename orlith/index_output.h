// What the commands around indexes share: opening one, and metrics as they are shown.
#ifndef ORLITH_INDEX_OUTPUT_H
#define ORLITH_INDEX_OUTPUT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orlith/metric_index.h"
#include "orlith/session.h"

// Null, with a message and *code, when the file is no index that can be used.
std::unique_ptr<MetricIndex> open_index(const std::string &file, Session &session, int *code);
// Says what is wrong with an index that is open; exit_damaged.
int say_damage(const std::string &file, const std::string &fault, Session &session);

// A metric with its files, whose paths begin with `folder` (none, or one with a slash at its end).
Json metric_json(std::string_view key, const std::vector<MetricFile> &files, const std::string &folder = "");
// In a message or a column: "rollup" or "histograms".
const char *kind_word(FileKind kind);

// Prints metrics as they come: their keys, a line each; or as JSON, an array of them, or one a line.
class MetricPrinter {
 public:
  explicit MetricPrinter(Session &session) : session_(session) {}
  void add(std::string_view key, const MetricFiles &files);
  // The end of the document; exit_not_found when nothing was added.
  int finish();

 private:
  Session &session_;
  bool is_empty_ = true;
};

#endif
