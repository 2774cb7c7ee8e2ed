#include "ruxo/b64.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

std::string encode(const std::string &bytes) {
  std::string text(ruxo_b64_encode_len(bytes.size()), '!');
  text.resize(ruxo_b64_encode(bytes.data(), bytes.size(), text.data(), text.size()));
  return text;
}

// "(refused)" for 0.
std::string decode(const std::string &text) {
  std::string bytes(ruxo_b64_max_decode_len(text.size()), '!');
  const size_t len = ruxo_b64_decode(text.data(), text.size(), bytes.data(), bytes.size());
  return len == 0 ? "(refused)" : bytes.substr(0, len);
}

// Six bits at a time, as RFC 4648 section 4 describes it.
std::string model_encode(const std::string &bytes) {
  static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  unsigned bits = 0, count = 0;
  for (const char c : bytes) {
    bits = bits << 8 | static_cast<unsigned char>(c);
    for (count += 8; count >= 6; count -= 6) text += alphabet[bits >> (count - 6) & 63];
  }
  if (count > 0) text += alphabet[bits << (6 - count) & 63];
  while (text.size() % 4 != 0) text += '=';
  return text;
}

}  // namespace

// RFC 4648, section 10.
TEST(B64, PublishedVectors) {
  const std::pair<std::string, std::string> vectors[] = {{"f", "Zg=="},         {"fo", "Zm8="},
                                                         {"foo", "Zm9v"},       {"foob", "Zm9vYg=="},
                                                         {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"}};
  for (const auto &[bytes, text] : vectors) {
    EXPECT_EQ(encode(bytes), text);
    EXPECT_EQ(decode(text), bytes);
  }
  EXPECT_EQ(encode(""), "");
}

TEST(B64, Lengths) {
  const size_t encoded[] = {0, 4, 4, 4, 8, 8, 8, 12};
  for (size_t len = 0; len < 8; ++len) EXPECT_EQ(ruxo_b64_encode_len(len), encoded[len]);
  EXPECT_EQ(ruxo_b64_encode_len(SIZE_MAX), SIZE_MAX);
  EXPECT_EQ(ruxo_b64_max_decode_len(0), 0u);
  EXPECT_EQ(ruxo_b64_max_decode_len(4), 3u);
  EXPECT_EQ(ruxo_b64_max_decode_len(5), 6u);
  EXPECT_GE(ruxo_b64_max_decode_len(SIZE_MAX), SIZE_MAX / 4 * 3);
}

TEST(B64, EncodingNeedsNoRoomForANulAndRefusesLess) {
  char exact[8];
  EXPECT_EQ(ruxo_b64_encode("foobar", 6, exact, 8), 8u);
  EXPECT_EQ(std::string(exact, 8), "Zm9vYmFy");
  char longer[9];
  longer[8] = '!';
  EXPECT_EQ(ruxo_b64_encode("foobar", 6, longer, 9), 8u);
  EXPECT_EQ(longer[8], '!');
  EXPECT_EQ(ruxo_b64_encode("foobar", 6, exact, 7), 0u);
}

TEST(B64, DecodingRefusesLessRoomThanItNeeds) {
  char dest[6];
  EXPECT_EQ(ruxo_b64_decode("Zm9vYmFy", 8, dest, 5), 0u);
  EXPECT_EQ(ruxo_b64_decode("Zm9vYmFy", 8, dest, 6), 6u);
  EXPECT_EQ(ruxo_b64_decode("Zm9vYg==", 8, dest, 4), 4u);
  EXPECT_EQ(ruxo_b64_decode("Zm9vYg==", 8, dest, 3), 0u);
}

TEST(B64, RefusesWhatIsNotStrict) {
  const std::string refused[] = {
      "",          "Z",     "Zg",       "Zg=",      "Zm9vY",    "=",
      "==",        "===",   "====",     "Z===",     "Zg==Zg==", "Zg=v",
      "Z=9v",      "=m9v",  "Zm9v=",    "Zm9v====", "Zm9v\n",   " Zm9v",
      "Zm9v Zm9v", "Zm9\n", "Zm\n9v",   "Zm9-",     "Zm9_",     "Zm9vZg=",
      "Zh==",      "Zm9=",  "Zm9vYmF=", "Zm9vYh==", "Zm9\xff",  std::string("Zm9\0", 4),
      "Zm9vZ===",
  };
  for (const std::string &text : refused) EXPECT_EQ(decode(text), "(refused)") << text;
}

TEST(B64, EachCharacterOfTheAlphabetAndNoOther) {
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = {'A', static_cast<char>(byte), 'A', 'A'};
    const bool in_alphabet = isalnum(byte) || byte == '+' || byte == '/';
    EXPECT_EQ(decode(text) != "(refused)", byte < 128 && in_alphabet) << byte;
  }
}

TEST(B64, AgreesWithTheModelOnRandomBytes) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int i = 0; i < 5000; ++i) {
    std::string bytes(1 + random() % 200, '\0');
    for (char &c : bytes) c = static_cast<char>(random());
    const std::string text = encode(bytes);
    ASSERT_EQ(text, model_encode(bytes));
    ASSERT_EQ(decode(text), bytes);
  }
}

TEST(B64, TextsLongerThanOnePieceOfTheEncoder) {
  for (const size_t len : {(3u << 20) - 1, 3u << 20, (3u << 20) + 1, (6u << 20) + 4}) {
    std::string bytes(len, '\0');
    for (size_t i = 0; i < len; ++i) bytes[i] = static_cast<char>(i * 131 >> 3);
    const std::string text = encode(bytes);
    ASSERT_TRUE(text == model_encode(bytes)) << len;
    ASSERT_TRUE(decode(text) == bytes) << len;
  }
}
