#include "pobe/base64_private.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "test/pobe/naive_metric_name.h"

namespace {

std::optional<std::string> decode(const std::string &text) {
  std::string out(pobe::base64_decoded_capacity(text.size()), '#');
  const std::optional<size_t> size = pobe::base64_decode(text, out.data());
  if (!size) return std::nullopt;
  EXPECT_LE(*size, out.size());
  return out.substr(0, *size);
}

// RFC 4648, section 10.
TEST(Base64, DecodesThePublishedVectors) {
  EXPECT_EQ(decode(""), "");
  EXPECT_EQ(decode("Zg=="), "f");
  EXPECT_EQ(decode("Zm8="), "fo");
  EXPECT_EQ(decode("Zm9v"), "foo");
  EXPECT_EQ(decode("Zm9vYg=="), "foob");
  EXPECT_EQ(decode("Zm9vYmE="), "fooba");
  EXPECT_EQ(decode("Zm9vYmFy"), "foobar");
}

TEST(Base64, EveryTwoBytesHaveOneSpelling) {
  for (unsigned i = 0; i < 65536; ++i) {
    const std::string bytes{static_cast<char>(i >> 8), static_cast<char>(i)};
    ASSERT_EQ(decode(naive::base64_encode(bytes)), bytes);
  }
}

TEST(Base64, AgreesWithTheModelOnEveryByteAtEveryPlace) {
  for (const std::string base : {"QUJD", "QUI=", "QQ==", "QUJDQUI=", "QUJDQQ=="})
    for (size_t at = 0; at < base.size(); ++at)
      for (unsigned byte = 0; byte < 256; ++byte) {
        std::string text = base;
        text[at] = static_cast<char>(byte);
        ASSERT_EQ(decode(text), naive::base64_decode(text)) << text;
      }
}

TEST(Base64, RefusesOtherSpellings) {
  for (const std::string text : {"Z", "Zg", "Zg=", "Zg===", "Zh==", "Zm9=", "=",
                                 "====", "Z===", "Zg==Zg==", "Zm 8=", "Zm8=\n", "-_8=", "Zm9v="})
    EXPECT_EQ(decode(text), std::nullopt) << text;
}

TEST(Base64, BytesOfTheAlphabetAreKnown) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool expected = c == '=' || std::string(naive::kBase64Alphabet).find(c) != std::string::npos;
    EXPECT_EQ(pobe::is_base64_byte(c), expected) << byte;
  }
}

}  // namespace
