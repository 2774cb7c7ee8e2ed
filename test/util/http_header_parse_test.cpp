#include "liborlith/util/http_header_parse.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

using Headers = std::vector<std::pair<std::string, std::string>>;

class HttpHeaderParse : public testing::Test {
 protected:
  HttpHeaderParse() {
    http_header_parse_ctx_init(
        ctx_.get(),
        [](char *key, char *value, void *closure) {
          static_cast<Headers *>(closure)->emplace_back(key, value);
        },
        &headers_);
  }

  // The line lies at the end of its own allocation, so that the sanitizers see a step too far.
  size_t parse(const std::string &line) {
    const auto bytes = std::make_unique<char[]>(line.size());
    line.copy(bytes.get(), line.size());
    return http_header_parse(bytes.get(), 1, line.size(), ctx_.get());
  }

  const std::unique_ptr<http_header_parse_ctx_t> ctx_ = std::make_unique<http_header_parse_ctx_t>();
  Headers headers_;
};

TEST_F(HttpHeaderParse, HandsOnTheLowerCaseKeyAndTheValue) {
  EXPECT_EQ(parse("Content-Type: text/plain\r\n"), 26U);
  EXPECT_THAT(headers_, ElementsAre(Pair("content-type", "text/plain")));
}

TEST_F(HttpHeaderParse, SkipsBlanksBeforeTheKeyAndTheValueOnly) {
  parse(" \tX-A:   b c  \r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("x-a", "b c  ")));
}

TEST_F(HttpHeaderParse, KeepsBlanksBetweenTheKeyAndItsColon) {
  parse("X-A : b\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("x-a ", "b")));
}

TEST_F(HttpHeaderParse, PassesOverTheStatusLineAndTheEmptyLine) {
  EXPECT_EQ(parse("HTTP/1.1 200 OK: fine\r\n"), 23U);
  EXPECT_EQ(parse("\r\n"), 2U);
  EXPECT_EQ(parse(""), 0U);
  EXPECT_THAT(headers_, IsEmpty());
}

TEST_F(HttpHeaderParse, PassesOverAnyLineThatHoldsTheMarkOfAStatusLine) {
  parse("Upgrade: HTTP/2.0\r\n");
  EXPECT_THAT(headers_, IsEmpty());
  parse("Upgrade: http/2.0\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("upgrade", "http/2.0")));
}

TEST_F(HttpHeaderParse, SplitsAtTheFirstColon) {
  parse("Location: http://a:80/\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("location", "http://a:80/")));
}

TEST_F(HttpHeaderParse, PassesOverLinesWithoutAColonOrWithoutAnEnd) {
  for (const char *line : {"no colon\r\n", "a: b", "a: b\n", "a: b\r", ":", "a:"})
    EXPECT_EQ(parse(line), strlen(line));
  EXPECT_THAT(headers_, IsEmpty());
}

TEST_F(HttpHeaderParse, TheValueMayBeEmpty) {
  parse("X-Empty:\r\n");
  // The blanks before a value take its line end with them, and then there is none.
  EXPECT_THAT(headers_, IsEmpty());
  parse("X-Empty:\r\n\r\n");
  EXPECT_THAT(headers_, IsEmpty());
}

TEST_F(HttpHeaderParse, EndsTheValueAtTheFirstLineEnd) {
  parse("a: b\r\nc: d\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("a", "b")));
}

TEST_F(HttpHeaderParse, AKeyMayBeEmpty) {
  parse(": b\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("", "b")));
}

TEST_F(HttpHeaderParse, OnlyAsciiLettersAreLowered) {
  parse("X-\xc3\x84Z[@: \xc3\x84\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("x-\xc3\x84z[@", "\xc3\x84")));
}

TEST_F(HttpHeaderParse, ALineOfAMebibyteIsParsedAndALongerOneIsNot) {
  const std::string head = "a: ";
  const size_t room = HTTP_HEADER_PARSE_MAX_HEADER_SIZE - head.size() - 2;
  EXPECT_EQ(parse(head + std::string(room + 1, 'b') + "\r\n"), size_t{HTTP_HEADER_PARSE_MAX_HEADER_SIZE} + 1);
  EXPECT_THAT(headers_, IsEmpty());
  EXPECT_EQ(parse(head + std::string(room, 'b') + "\r\n"), size_t{HTTP_HEADER_PARSE_MAX_HEADER_SIZE});
  EXPECT_THAT(headers_, ElementsAre(Pair("a", std::string(room, 'b'))));
}

TEST_F(HttpHeaderParse, EachCallIsALineOfItsOwn) {
  parse("a: b");
  parse("\r\n");
  parse("c");
  parse(": d\r\n");
  EXPECT_THAT(headers_, ElementsAre(Pair("", "d")));
}

TEST_F(HttpHeaderParse, BytesOfAnEarlierLongerLineDoNotComeBack) {
  parse("aaaaaaaaaaaaaaaaaaaa: bbbbbbbbbb\r\n");
  headers_.clear();
  parse("c");
  parse("c: d");
  EXPECT_THAT(headers_, IsEmpty());
}

TEST_F(HttpHeaderParse, IsEmptyBetweenLines) {
  const auto is_reset = [&] {
    return ctx_->state == HTTP_HEADER_PARSE_STATE_EMPTY && ctx_->key == nullptr && ctx_->value == nullptr &&
           ctx_->filled == 0;
  };
  EXPECT_TRUE(is_reset());
  parse("a: b\r\n");
  EXPECT_TRUE(is_reset());
  parse("a: b");
  EXPECT_TRUE(is_reset());
}

TEST_F(HttpHeaderParse, SizesAreMultiplied) {
  char line[] = "a: bcd\r\n";
  EXPECT_EQ(http_header_parse(line, 2, 4, ctx_.get()), 8U);
  EXPECT_THAT(headers_, ElementsAre(Pair("a", "bcd")));
}

// The same rules on strings.
Headers model(std::string line) {
  const std::string blanks = " \t\n\v\f\r";
  if (line.find("HTTP/") != std::string::npos) return {};
  line.erase(0, std::min(line.find_first_not_of(blanks), line.size()));
  const size_t colon = line.find(':');
  if (colon == std::string::npos) return {};
  std::string key = line.substr(0, colon);
  for (char &c : key)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
  const size_t value = std::min(line.find_first_not_of(blanks, colon + 1), line.size());
  const size_t end = line.find("\r\n", value);
  if (end == std::string::npos) return {};
  return {{key, line.substr(value, end - value)}};
}

TEST_F(HttpHeaderParse, AgreesWithTheModelOnMadeUpLines) {
  std::mt19937 random(1);
  const std::string alphabet = "aZ: \t\r\n\vHTTP/";
  size_t split = 0;
  for (int n = 0; n < 50000; ++n) {
    std::string line(random() % 16, ' ');
    for (char &c : line) c = alphabet[random() % alphabet.size()];
    if (n % 2 == 0) line += "\r\n";
    headers_.clear();
    ASSERT_EQ(parse(line), line.size());
    ASSERT_EQ(headers_, model(line)) << testing::PrintToString(line);
    split += headers_.size();
  }
  EXPECT_GT(split, 1000U);
}

}  // namespace
