#include "orlith/table.h"

#include <fmt/format.h>
#include <libsmartcols.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>

namespace {

struct UnrefTable {
  void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using TablePointer = std::unique_ptr<libscols_table, UnrefTable>;

// The library reports failures of its own only when memory is out.
void require(bool ok) {
  if (!ok) throw std::bad_alloc();
}

const char *color_name(Style style) {
  static constexpr const char *names[] = {nullptr, "bold", "darkgray", "red", "green", "brown", "cyan"};
  return names[static_cast<int>(style)];
}

TablePointer new_table(const Session &session, bool with_heading) {
  TablePointer table(scols_new_table());
  require(table != nullptr);
  scols_table_enable_noencoding(table.get(), 1);  // the cells are escaped already
  scols_table_enable_noheadings(table.get(), with_heading ? 0 : 1);
  scols_table_enable_colors(table.get(), session.color_out() ? 1 : 0);
  const bool fitted = session.terminal.out_is_terminal;
  scols_table_set_termforce(table.get(), fitted ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER);
  // Elsewhere nothing is squeezed: the library would fit the table into 80 columns.
  constexpr size_t unlimited = 1 << 20;
  scols_table_set_termwidth(table.get(), fitted ? static_cast<size_t>(session.terminal.columns) : unlimited);
  return table;
}

// The library never returns from text that the locale's encoding cannot read, such as UTF-8 in the C locale.
std::string readable(const std::string &text) {
  if (mbstowcs(nullptr, text.c_str(), 0) != static_cast<size_t>(-1)) return text;
  std::string out;
  for (const char byte : text)
    out += static_cast<uint8_t>(byte) < 0x80 ? std::string(1, byte)
                                             : fmt::format("\\x{:02x}", static_cast<uint8_t>(byte));
  return out;
}

// The library takes a width as a hint only; blanks it keeps. Characters are counted as one column each.
std::string padded(std::string text, const Column &column) {
  const auto is_start = [](char byte) { return (static_cast<uint8_t>(byte) & 0xC0) != 0x80; };
  const auto shown = static_cast<size_t>(std::count_if(text.begin(), text.end(), is_start));
  if (shown >= column.width) return text;
  const std::string blanks(column.width - shown, ' ');
  return column.align == Align::right ? blanks + text : text + blanks;
}

void add_column(libscols_table *table, const Column &column) {
  const int flags = (column.align == Align::right ? SCOLS_FL_RIGHT : 0) | (column.wraps ? SCOLS_FL_WRAP : 0);
  require(scols_table_new_column(table, padded(readable(column.title), column).c_str(), 0, flags) != nullptr);
}

void add_line(libscols_table *table, const std::vector<Column> &columns, const std::vector<Cell> &row) {
  libscols_line *line = scols_table_new_line(table, nullptr);
  require(line != nullptr);
  for (size_t i = 0; i < row.size(); ++i) {
    require(scols_line_set_data(line, i, padded(readable(row[i].text), columns[i]).c_str()) == 0);
    if (const char *color = color_name(row[i].style))
      require(scols_cell_set_color(scols_line_get_cell(line, i), color) == 0);
  }
}

}  // namespace

std::string Table::text(const Session &session, bool with_heading) const {
  const TablePointer table = new_table(session, with_heading);
  for (const Column &column : columns_) add_column(table.get(), column);
  for (const auto &row : rows_) add_line(table.get(), columns_, row);
  // A table without rows would print nothing at all, not even its heading.
  if (rows_.empty()) add_line(table.get(), columns_, {});
  char *printed = nullptr;
  require(scols_print_table_to_string(table.get(), &printed) == 0);
  const std::unique_ptr<char, decltype(&free)> owner(printed, free);
  std::string out = printed != nullptr ? printed : "";
  if (!out.empty() && out.back() != '\n') out += '\n';
  if (rows_.empty()) out.resize(with_heading ? out.find('\n') + 1 : 0);
  return out;
}

Json Table::take_row_json(std::vector<Cell> &row) {
  Json object = Json::object();
  for (size_t i = 0; i < row.size(); ++i) object.set(columns_[i].key, std::move(row[i].json));
  return object;
}

Json Table::take_json() {
  Json array = Json::array();
  for (auto &row : rows_) array.add(take_row_json(row));
  rows_.clear();
  return array;
}

std::string Table::take_json_lines() {
  std::string out;
  for (auto &row : rows_) out += take_row_json(row).text() + "\n";
  rows_.clear();
  return out;
}

void print(Session &session, Table table) {
  if (session.settings.json) {
    session.out << table.take_json().text() << "\n";
  } else if (session.settings.jsonl) {
    session.out << table.take_json_lines();
  } else {
    session.out << table.text(session);
  }
}
