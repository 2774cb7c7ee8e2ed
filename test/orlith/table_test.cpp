#include "orlith/table.h"

#include <gtest/gtest.h>

#include <cmath>

#include "test/orlith/tool_fixture.h"

namespace {

Table sample() {
  Table table({{"name", "name"}, {"weight", "weight", Align::right}, {"share", "share", Align::right}});
  table.add("alpha", 7, 0.25);
  table.add("b\x1b\xff", -12345, std::nan(""));
  table.add(std::string("c"), UINT64_MAX, 0.1f);
  return table;
}

TEST(Table, AlignsTextAndEscapesOutsideBytes) {
  ToolSession tool;
  print(tool.session, sample());
  EXPECT_EQ(tool.out.text,
            "name                    weight share\n"
            "alpha                        7  0.25\n"
            "b\\x1b\\xff               -12345   nan\n"
            "c         18446744073709551615   0.1\n");
}

TEST(Table, GivesTheSameRowsAsOneJsonDocument) {
  ToolSession tool;
  tool.session.settings.json = true;
  print(tool.session, sample());
  EXPECT_EQ(tool.out.text,
            "[{\"name\":\"alpha\",\"weight\":7,\"share\":0.25},"
            "{\"name\":\"b\\u001b\\\\xff\",\"weight\":-12345,\"share\":null},"
            "{\"name\":\"c\",\"weight\":18446744073709551615,\"share\":0.1}]\n");
}

TEST(Table, GivesTheSameRowsAsJsonLines) {
  ToolSession tool;
  tool.session.settings.jsonl = true;
  print(tool.session, sample());
  EXPECT_EQ(tool.out.text,
            "{\"name\":\"alpha\",\"weight\":7,\"share\":0.25}\n"
            "{\"name\":\"b\\u001b\\\\xff\",\"weight\":-12345,\"share\":null}\n"
            "{\"name\":\"c\",\"weight\":18446744073709551615,\"share\":0.1}\n");
}

TEST(Table, WithoutRowsIsTheHeadingOrAnEmptyArray) {
  ToolSession tool;
  Table table({Column{"a", "a"}});
  EXPECT_EQ(table.take_json().text(), "[]");
  EXPECT_EQ(table.take_json_lines(), "");
}

TEST(Table, PrintedInPiecesKeepsItsColumns) {
  ToolSession tool;
  Table table({{"a", "a", Align::right, 6}, {"b", "b"}});
  table.add(1, "x");
  std::string text = table.text(tool.session);
  table.clear();
  table.add(23456, "y");
  text += table.text(tool.session, false);
  EXPECT_EQ(text, "     a b\n     1 x\n 23456 y\n");
}

TEST(Table, ColoursCellsOnlyWhenAsked) {
  ToolSession tool;
  Table table({Column{"state", "state"}});
  table.add_row([] {
    std::vector<Cell> row;
    row.emplace_back("damaged", Json("damaged"), Style::red);
    return row;
  }());
  EXPECT_EQ(table.text(tool.session), "state\ndamaged\n");
  tool.session.settings.color = ColorMode::always;
  EXPECT_EQ(table.text(tool.session), "state\n\033[31mdamaged\033[0m\n");
}

TEST(Table, ShowsOutsideTextThatTheLocaleCannotReadAsBytes) {
  // The tests run in the C locale, where a two-byte character is nothing.
  ToolSession tool;
  Table table({Column{"k", "k"}, Column{"v", "v"}});
  table.add("Z\u00fcrich", 1);
  EXPECT_EQ(table.text(tool.session), "k             v\nZ\\xc3\\xbcrich 1\n");
}

TEST(Table, WithoutRowsIsItsHeading) {
  ToolSession tool;
  const Table table({Column{"k", "key"}, Column{"v", "value", Align::right, 8}});
  EXPECT_EQ(table.text(tool.session), "key    value\n");
  EXPECT_EQ(table.text(tool.session, false), "");
}

TEST(Table, IsNotSqueezedWhereThereIsNoTerminal) {
  ToolSession tool;
  Table table({Column{"a", "a"}, Column{"b", "b"}});
  table.add(std::string(200, 'x'), std::string(200, 'y'));
  EXPECT_EQ(table.text(tool.session).size(), 2 * 401u + 1 - 198);
}

TEST(Table, BreaksAWrappingColumnToFitTheTerminal) {
  ToolSession tool;
  tool.session.terminal.out_is_terminal = true;
  tool.session.terminal.columns = 20;
  Table table({{"k", "k"}, {"text", "text", Align::left, 0, true}});
  table.add("key", "abcdefghijklmnopqrstuvwxyz");
  for (const std::string &line : CLI::detail::split(table.text(tool.session), '\n'))
    EXPECT_LE(line.size(), 20u) << line;
}

}  // namespace
