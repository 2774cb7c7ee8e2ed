// Tables: aligned text for people, and the same rows as JSON.
//   Table table({{"id", "node"}, {"weight", "weight", Align::right}});
//   table.add(node.id, node.weight);
//   print(session, std::move(table));      // text, or one JSON array with --json, or lines with --jsonl
#ifndef ORLITH_TABLE_H
#define ORLITH_TABLE_H

#include <concepts>
#include <string>
#include <utility>
#include <vector>

#include "orlith/session.h"

enum class Align { left, right };

struct Column {
  const char *key;    // the JSON member
  const char *title;  // the heading
  Align align = Align::left;
  size_t width = 0;    // at least so many columns, so that tables printed in pieces stay aligned
  bool wraps = false;  // may be broken into lines when the terminal is too narrow
};

// One value in both its forms.
struct Cell {
  Cell(std::string shown, Json value, Style look = Style::plain)
      : text(std::move(shown)), json(std::move(value)), style(look) {}
  // Text from outside: shown escaped.
  Cell(std::string_view outside) : text(escaped(outside)), json(outside) {}
  Cell(const std::string &outside) : Cell(std::string_view(outside)) {}
  Cell(const char *outside) : Cell(std::string_view(outside)) {}
  Cell(std::integral auto number) : text(std::to_string(number)), json(number) {}
  Cell(double number) : text(shortest(number)), json(number) {}
  Cell(float number) : text(shortest(number)), json(Json::of_float(number)) {}

  std::string text;
  Json json;
  Style style = Style::plain;
};

class Table {
 public:
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // One cell a column.
  template <typename... Values>
  void add(Values &&...values) {
    std::vector<Cell> row;
    row.reserve(sizeof...(values));
    (row.emplace_back(Cell(std::forward<Values>(values))), ...);
    add_row(std::move(row));
  }
  void add_row(std::vector<Cell> row) { rows_.push_back(std::move(row)); }
  size_t size() const { return rows_.size(); }
  void clear() { rows_.clear(); }

  // The aligned text, fitted to the terminal when the results go to one.
  std::string text(const Session &session, bool with_heading = true) const;
  // Both hand out the cells' JSON: the rows are gone afterwards.
  Json take_json();
  std::string take_json_lines();

 private:
  Json take_row_json(std::vector<Cell> &row);
  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

// Writes the table in the form the user asked for.
void print(Session &session, Table table);

#endif
