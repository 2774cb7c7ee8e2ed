#include "ruxo/uuid.h"

#include <gtest/gtest.h>
#include <string.h>
#include <uuid/uuid.h>

#include <random>
#include <set>
#include <string>

namespace {

constexpr char kText[] = "01234567-89ab-cdef-fedc-ba9876543210";
constexpr uint8_t kBytes[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};

std::string bytes_of(const uint8_t *uuid) {
  return {reinterpret_cast<const char *>(uuid), 16};
}

// -1 must leave `out` as it was.
bool is_refused(const std::string &text) {
  ruxo_uuid_t out;
  memset(out, 0x5a, sizeof out);
  const int result = ruxo_uuid_parse_n(text.data(), text.size(), out);
  return result == -1 && bytes_of(out) == std::string(16, '\x5a');
}

}  // namespace

TEST(Uuid, ParsesEitherCase) {
  ruxo_uuid_t out;
  EXPECT_EQ(ruxo_uuid_parse(kText, out), 0);
  EXPECT_EQ(bytes_of(out), bytes_of(kBytes));
  EXPECT_EQ(ruxo_uuid_parse("01234567-89AB-CDEF-FEDC-BA9876543210", out), 0);
  EXPECT_EQ(bytes_of(out), bytes_of(kBytes));
}

TEST(Uuid, PrintsLowerCaseAndANul) {
  char text[RUXO_UUID_STRING_SIZE + 1];
  memset(text, '!', sizeof text);
  ruxo_uuid_unparse_lower(kBytes, text);
  EXPECT_STREQ(text, kText);
  EXPECT_EQ(text[RUXO_UUID_STRING_SIZE], '!');
}

TEST(Uuid, RefusesEveryOtherLength) {
  const std::string text = kText;
  for (size_t len = 0; len < text.size(); ++len) EXPECT_TRUE(is_refused(text.substr(0, len))) << len;
  EXPECT_TRUE(is_refused(text + "0"));
  EXPECT_TRUE(is_refused(text + std::string(1, '\0')));
  ruxo_uuid_t out;
  EXPECT_EQ(ruxo_uuid_parse("", out), -1);
  EXPECT_EQ(ruxo_uuid_parse((text + " ").c_str(), out), -1);
  EXPECT_EQ(ruxo_uuid_parse(("{" + text + "}").c_str(), out), -1);
}

// Each position with each of the 256 bytes: only the right kind of character is taken.
TEST(Uuid, EveryPositionTakesOnlyItsKindOfCharacter) {
  for (size_t position = 0; position < 36; ++position) {
    const bool hyphen = position == 8 || position == 13 || position == 18 || position == 23;
    for (int byte = 0; byte < 256; ++byte) {
      std::string text = kText;
      text[position] = static_cast<char>(byte);
      const bool digit =
          (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'f') || (byte >= 'A' && byte <= 'F');
      ASSERT_EQ(is_refused(text), hyphen ? byte != '-' : !digit) << position << " " << byte;
    }
  }
}

TEST(Uuid, AgreesWithTheSystemLibrary) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int i = 0; i < 10000; ++i) {
    ruxo_uuid_t uuid, parsed;
    for (uint8_t &byte : uuid) byte = static_cast<uint8_t>(random());
    char expected[37], text[37], upper[37];
    uuid_unparse_lower(uuid, expected);
    ruxo_uuid_unparse_lower(uuid, text);
    ASSERT_STREQ(text, expected);
    uuid_unparse_upper(uuid, upper);
    ASSERT_EQ(ruxo_uuid_parse(upper, parsed), 0);
    ASSERT_EQ(bytes_of(parsed), bytes_of(uuid));
  }
}

TEST(Uuid, GeneratedOnesAreRandomAndDiffer) {
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    ruxo_uuid_t uuid;
    ruxo_uuid_generate(uuid);
    EXPECT_EQ(uuid[6] >> 4, 4) << "version";
    EXPECT_EQ(uuid[8] >> 6, 2) << "variant";
    EXPECT_TRUE(seen.insert(bytes_of(uuid)).second);
  }
}

TEST(Uuid, ComparesBytewise) {
  uint8_t later[16];
  memcpy(later, kBytes, 16);
  EXPECT_EQ(ruxo_uuid_compare(kBytes, later), 0);
  later[15] = 0xff;
  EXPECT_LT(ruxo_uuid_compare(kBytes, later), 0);
  EXPECT_GT(ruxo_uuid_compare(later, kBytes), 0);
}
