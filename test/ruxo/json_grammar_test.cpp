#include "ruxo/json_grammar_private.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "ruxo/json.h"
#include "test/support/json_model.h"

namespace {

std::string nested(int depth, const char *open, const char *inside, const char *close) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += open;
  text += inside;
  for (int i = 0; i < depth; ++i) text += close;
  return text;
}

}  // namespace

TEST(JsonGrammar, TakesEveryFormOfRfc8259) {
  const char *const good[] = {"null",
                              "true",
                              "false",
                              "0",
                              "-0",
                              "1",
                              "-1",
                              "10",
                              "1.5",
                              "-0.5",
                              "0e0",
                              "1E5",
                              "1e+5",
                              "1e-5",
                              "1.25e10",
                              "\"\"",
                              "\"a\"",
                              R"("\"\\\/\b\f\n\r\t")",
                              R"("\u0000\u00e9\uFFFF")",
                              R"("\ud83d\ude00")",
                              "\"\x7f\"",
                              "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\"",
                              "[]",
                              "[ ]",
                              "[1]",
                              "[1,2]",
                              " [ 1 , [ ] ] ",
                              "{}",
                              "{ }",
                              "{\"a\":1}",
                              "\t{ \"a\" : 1 , \"b\" : {} }\r\n",
                              "{\"\":1}",
                              "{\"a\":1,\"a\":2}",
                              "18446744073709551615",
                              "-9223372036854775808"};
  for (const char *text : good) EXPECT_TRUE(ruxo::json_is_well_formed(text)) << text;
}

TEST(JsonGrammar, RefusesEverythingElse) {
  const char *const bad[] = {"",
                             " ",
                             "nul",
                             "nullx",
                             "NULL",
                             "True",
                             "NaN",
                             "nan",
                             "Infinity",
                             "-Infinity",
                             "-",
                             "+1",
                             "01",
                             "-01",
                             "00",
                             "1.",
                             ".5",
                             "-.5",
                             "1.e1",
                             "1e",
                             "1e+",
                             "1e5.5",
                             "1.5.5",
                             "0x10",
                             "1 2",
                             "--1",
                             "1-2",
                             "\"",
                             "\"a",
                             "a\"",
                             "'a'",
                             "\"a\tb\"",
                             "\"a\nb\"",
                             "\"\x01\"",
                             "\"\x1f\"",
                             R"("\x41")",
                             R"("\u12")",
                             R"("\u12g4")",
                             R"("\u+123")",
                             R"("\)",
                             "[",
                             "]",
                             "[1",
                             "[1,",
                             "[1,]",
                             "[,1]",
                             "[,]",
                             "[1 2]",
                             "[1,,2]",
                             "[}",
                             "{",
                             "}",
                             "{\"a\"}",
                             "{\"a\":}",
                             "{\"a\":1",
                             "{\"a\":1,}",
                             "{,}",
                             "{a:1}",
                             "{1:1}",
                             "{\"a\" 1}",
                             "{\"a\":1]",
                             "/**/1",
                             "1//",
                             "\v1",
                             "\f1",
                             "\xef\xbb\xbf"
                             "1",
                             "1,",
                             "[]]",
                             "null null",
                             "\xc2\xa0"
                             "1"};
  for (const char *text : bad) EXPECT_FALSE(ruxo::json_is_well_formed(text)) << text;
  EXPECT_FALSE(ruxo::json_is_well_formed(std::string_view("1\0", 2)));
  EXPECT_FALSE(ruxo::json_is_well_formed(std::string_view("\"\0\"", 3)));
}

TEST(JsonGrammar, RefusesBytesThatAreNoUtf8) {
  for (const char *text : {"\"\xff\"", "{\"\xff\":1}", "\"\xed\xa0\x80\"", "\"\xc0\x80\"",
                           "\"\xf4\x90\x80\x80\"", "\"\xe2\x82\""}) {
    EXPECT_FALSE(ruxo::json_is_well_formed(text)) << text;
  }
}

TEST(JsonGrammar, RefusesSurrogatesThatAreNoPair) {
  for (const char *text : {R"("\ud800")", R"("\udc00")", R"("\udc00\ud800")", R"("\ud800x")", R"("\ud800\n")",
                           R"("\ud800\ud800")"}) {
    EXPECT_FALSE(ruxo::json_is_well_formed(text)) << text;
  }
}

TEST(JsonGrammar, RefusesANulInAName) {
  EXPECT_FALSE(ruxo::json_is_well_formed(R"({"a\u0000b":1})"));
  EXPECT_TRUE(ruxo::json_is_well_formed(R"({"a":"\u0000"})"));
}

TEST(JsonGrammar, RefusesIntegersBeyond64Bits) {
  EXPECT_FALSE(ruxo::json_is_well_formed("18446744073709551616"));
  EXPECT_FALSE(ruxo::json_is_well_formed("-9223372036854775809"));
  EXPECT_FALSE(ruxo::json_is_well_formed("[123456789012345678901234567890]"));
  EXPECT_TRUE(ruxo::json_is_well_formed("18446744073709551616.0"));
}

TEST(JsonGrammar, NestsUpToItsLimit) {
  const int limit = RUXO_JSON_MAX_DEPTH;
  EXPECT_TRUE(ruxo::json_is_well_formed(nested(limit, "[", "", "]")));
  EXPECT_TRUE(ruxo::json_is_well_formed(nested(limit, "{\"a\":", "1", "}")));
  EXPECT_FALSE(ruxo::json_is_well_formed(nested(limit + 1, "[", "", "]")));
  EXPECT_FALSE(ruxo::json_is_well_formed(nested(limit + 1, "{\"a\":", "1", "}")));
  EXPECT_FALSE(ruxo::json_is_well_formed(std::string(1000000, '[')));
  EXPECT_TRUE(ruxo::json_is_well_formed("[" + nested(limit - 1, "[", "", "]") + "," +
                                        nested(limit - 1, "[", "", "]") + "]"))
      << "depth, not number";
}

// Small texts over the characters that the grammar is made of, judged by both.
TEST(JsonGrammar, AgreesWithTheModelOnRandomTexts) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const char *const pieces[] = {
      "[",  "]",  "{",     "}",      ",",    ":",    " ",  "\n",  "0",   "1",       "-", ".", "e", "+",
      "\"", "\\", "\"a\"", "\"a\":", "true", "null", "12", "1.5", "\\n", "\\u0041", "/", "x", "\t"};
  int accepted = 0;
  for (int i = 0; i < 60000; ++i) {
    std::string text;
    for (size_t n = 1 + random() % 8; n > 0; --n) text += pieces[random() % std::size(pieces)];
    const bool expected = json_model::is_ascii_json(text);
    ASSERT_EQ(ruxo::json_is_well_formed(text), expected) << text;
    accepted += expected;
  }
  EXPECT_GT(accepted, 500);
}
