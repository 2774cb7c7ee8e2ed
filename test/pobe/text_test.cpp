#include "pobe/text_private.h"

#include <gtest/gtest.h>

#include <string>

#include "pobe/pobe.h"
#include "test/pobe/naive_metric_name.h"

namespace {

TEST(Text, EmptyTextIsFine) {
  EXPECT_EQ(pobe::check_text({}), 0);
}

TEST(Text, EveryCodePointIsJudgedByItsKind) {
  for (uint32_t c = 0; c <= 0x10ffff; ++c) {
    const bool is_control = c < 0x20 || (c >= 0x7f && c <= 0x9f);
    const bool is_surrogate = c >= 0xd800 && c <= 0xdfff;
    const int expected = is_control ? int{POBE_E_CONTROL} : is_surrogate ? int{POBE_E_UTF8} : 0;
    ASSERT_EQ(pobe::check_text(naive::utf8_of(c)), expected) << std::hex << c;
  }
}

TEST(Text, EveryByteAndPairAgreesWithTheModel) {
  for (unsigned first = 0; first < 256; ++first) {
    const std::string one(1, static_cast<char>(first));
    ASSERT_EQ(pobe::check_text(one) == 0, naive::is_clean_text(one)) << first;
    for (unsigned second = 0; second < 256; ++second) {
      const std::string two = one + static_cast<char>(second);
      ASSERT_EQ(pobe::check_text(two) == 0, naive::is_clean_text(two)) << first << " " << second;
    }
  }
}

TEST(Text, LongSequencesAgreeWithTheModelAtEveryEdge) {
  const std::string edges = "\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0";
  for (unsigned lead = 0xe0; lead < 0x100; ++lead)
    for (unsigned second = 0x70; second < 0x100; ++second)
      for (const char third : edges)
        for (const char fourth : edges) {
          const std::string four{static_cast<char>(lead), static_cast<char>(second), third, fourth};
          ASSERT_EQ(pobe::check_text(four) == 0, naive::is_clean_text(four)) << lead << " " << second;
          const std::string three = four.substr(0, 3);
          ASSERT_EQ(pobe::check_text(three) == 0, naive::is_clean_text(three)) << lead << " " << second;
        }
}

TEST(Text, OverlongFormsSurrogatesAndLargeNumbersAreInvalid) {
  for (const char *text :
       {"\xc0\x80", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf", "\xf0\x80\x80\xaf", "\xf0\x8f\xbf\xbf",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff", "\x80"})
    EXPECT_EQ(pobe::check_text(text), POBE_E_UTF8) << text;
}

// Eight bytes are judged at once: the offence has to be seen at each of their places, and in a shorter rest.
TEST(Text, OffenceIsFoundAtEveryPosition) {
  for (size_t size = 1; size <= 33; ++size)
    for (size_t at = 0; at < size; ++at)
      for (const char offence : {'\0', '\x01', '\x1f', '\x7f', '\x80', '\xff'}) {
        std::string text(size, '~');
        ASSERT_EQ(pobe::check_text(text), 0);
        text[at] = offence;
        ASSERT_EQ(pobe::check_text(text), static_cast<uint8_t>(offence) < 0x80 ? POBE_E_CONTROL : POBE_E_UTF8)
            << "byte " << at << " of " << size;
      }
}

TEST(Text, LongCharactersAreFollowedAcrossTheEightBytes) {
  for (size_t lead_in = 0; lead_in < 16; ++lead_in)
    for (const uint32_t c : {0xe9u, 0x20acu, 0x1f4a9u}) {
      const std::string text = std::string(lead_in, ' ') + naive::utf8_of(c) + "0123456789";
      ASSERT_EQ(pobe::check_text(text), 0) << lead_in;
      const std::string cut = text.substr(0, lead_in + naive::utf8_of(c).size() - 1);
      ASSERT_EQ(pobe::check_text(cut), POBE_E_UTF8) << lead_in;
    }
}

TEST(Text, FirstOffenceIsReported) {
  EXPECT_EQ(pobe::check_text("a\x01\xff"), POBE_E_CONTROL);
  EXPECT_EQ(pobe::check_text("a\xff\x01"), POBE_E_UTF8);
}

}  // namespace
