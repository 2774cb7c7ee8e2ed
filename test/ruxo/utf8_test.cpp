#include "ruxo/utf8_private.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace {

// A code point's UTF-8, by the table of RFC 3629 section 3 and without a look at what is allowed.
std::string encode(uint32_t code) {
  const auto tail = [&](int shift) { return static_cast<char>(0x80 | (code >> shift & 0x3f)); };
  if (code < 0x80) return {static_cast<char>(code)};
  if (code < 0x800) return {static_cast<char>(0xc0 | code >> 6), tail(0)};
  if (code < 0x10000) return {static_cast<char>(0xe0 | code >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xf0 | code >> 18), tail(12), tail(6), tail(0)};
}

}  // namespace

TEST(Utf8, EveryCodePointButSurrogatesIsACharacter) {
  for (uint32_t code = 0; code < 0x110000; ++code) {
    const std::string text = encode(code) + "x";
    const bool surrogate = code >= 0xd800 && code < 0xe000;
    ASSERT_EQ(ruxo::utf8_character_len(text), surrogate ? 0 : text.size() - 1) << code;
  }
}

TEST(Utf8, RefusesWhatIsTooHighOverlongCutOffOrAlone) {
  EXPECT_EQ(ruxo::utf8_character_len(encode(0x110000)), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xf8\x88\x80\x80\x80"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xc0\x80"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xc1\xbf"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xe0\x9f\xbf"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xf0\x8f\xbf\xbf"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\x80"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xe2\x82"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xe2\x82("), 0u);
  EXPECT_EQ(ruxo::utf8_character_len("\xf0\x9f\x98"), 0u);
  EXPECT_EQ(ruxo::utf8_character_len(""), 0u);
}

TEST(Utf8, ATextIsValidWhenAllOfItIs) {
  EXPECT_TRUE(ruxo::utf8_is_valid(""));
  EXPECT_TRUE(ruxo::utf8_is_valid("gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"));
  EXPECT_FALSE(ruxo::utf8_is_valid("gr\xc3\xbc\xc3"));
  EXPECT_FALSE(
      ruxo::utf8_is_valid("a\xff"
                          "b"));
}

TEST(Utf8, RepairReplacesEachBadByte) {
  EXPECT_EQ(ruxo::utf8_repaired("good \xe2\x82\xac"), "good \xe2\x82\xac");
  EXPECT_EQ(ruxo::utf8_repaired("a\xff"
                                "b\xe2\x82"),
            "a\xef\xbf\xbd"
            "b\xef\xbf\xbd\xef\xbf\xbd");
}
