#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "liborlith/util/metric_locator.h"
#include "ruxo/b64.h"
#include "ruxo/json.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::ElementsAre;

namespace {

struct JsonFree {
  void operator()(ruxo_json_object *o) const { ruxo_json_free(o); }
};
using JsonPtr = std::unique_ptr<ruxo_json_object, JsonFree>;

LocatorPtr from_json(const std::string &text) {
  const JsonPtr obj(ruxo_json_parse(text.c_str()));
  EXPECT_NE(obj, nullptr) << text;
  return LocatorPtr(orlith_metric_locator_from_json(obj.get()));
}

std::string b64_path(const orlith_metric_locator_t *loc) {
  std::string buf(38 + ruxo_b64_encode_len(orlith_metric_locator_get_name_len_with_tags(loc)), '#');
  EXPECT_EQ(orlith_metric_locator_b64_path(loc, buf.data(), buf.size()), 37U);
  return buf.c_str();
}

LocatorPtr from_path(const char *uuid, const std::string &encoded) {
  return LocatorPtr(orlith_metric_locator_from_b64_path(uuid, encoded.c_str()));
}

std::string type_str(unsigned type, size_t len = 64) {
  const LocatorPtr loc = make_locator("cpu", static_cast<orlith_metric_locator_metric_type_e>(type));
  std::string buf(64, '#');
  EXPECT_EQ(orlith_metric_locator_get_type_str(loc.get(), buf.data(), len), buf.data());
  EXPECT_EQ(buf.substr(len), std::string(64 - len, '#')) << "nothing is written beyond the buffer";
  return buf.c_str();
}

// A locator whose name is any bytes, as only given parts can have.
struct RawNamed {
  explicit RawNamed(std::string name) : key(std::move(name)) {
    data.key_mem = key.c_str();
    data.key_len = static_cast<uint32_t>(key.size());
    data.hash = hash.data();
    data.check_uuid = uuid.bytes;
    data.release = [](orlith_metric_locator_immutable_data_t *) {};
    loc.reset(orlith_metric_locator_create_from_parts(&data, 0, METRIC_TYPE_NUMERIC));
  }
  std::string key;
  std::array<uint8_t, 32> hash{};
  Uuid uuid;
  orlith_metric_locator_immutable_data_t data{};
  LocatorPtr loc;
};

// Base64 with "_" for "/" from the second character on, bit by bit.
std::string naive_path_encoding(const std::string &bytes) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bits;
  for (const char c : bytes) {
    for (int bit = 7; bit >= 0; --bit) bits += ((static_cast<uint8_t>(c) >> bit) & 1) != 0 ? '1' : '0';
  }
  while (bits.size() % 6 != 0) bits += '0';
  std::string text;
  for (size_t i = 0; i < bits.size(); i += 6) text += alphabet[std::stoi(bits.substr(i, 6), nullptr, 2)];
  while (text.size() % 4 != 0) text += '=';
  for (size_t i = 1; i < text.size(); ++i) {
    if (text[i] == '/') text[i] = '_';
  }
  return text;
}

}  // namespace

// ---- Key

TEST(MetricLocatorKey, IsUuidDashName) {
  const LocatorPtr loc = make_locator("cpu|ST[b:2,a:1]");
  char buf[128];
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66-cpu|ST[a:1,b:2]");
}

TEST(MetricLocatorKey, NeedsTheNameLengthPlus38Bytes) {
  const LocatorPtr loc = make_locator("cpu");
  std::vector<char> exact(3 + 38);
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), exact.data(), exact.size()), exact.data());
  EXPECT_STREQ(exact.data(), "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66-cpu");
  std::string less(3 + 37, '#');
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), less.data(), less.size()), nullptr);
  EXPECT_EQ(less, std::string(3 + 37, '#')) << "and is left alone";
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), nullptr, 0), nullptr);
}

TEST(MetricLocatorKey, OfAnEmptyNameEndsInADash) {
  const LocatorPtr loc = make_locator("");
  char buf[38];
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), buf, sizeof buf), buf);
  EXPECT_STREQ(buf, "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66-");
  EXPECT_EQ(orlith_metric_locator_get_key(loc.get(), buf, 37), nullptr);
}

TEST(MetricLocatorKey, TheLongestKeyFitsTheDeclaredSize) {
  const LocatorPtr loc = make_locator(std::string(4095, 'x'));
  std::vector<char> buf(ORLITH_METRIC_LOCATOR_MAX_KEY_SIZE);
  EXPECT_NE(orlith_metric_locator_get_key(loc.get(), buf.data(), buf.size()), nullptr);
  EXPECT_EQ(strlen(buf.data()), 36U + 1 + 4095);
}

// ---- UUID text

TEST(MetricLocatorUuidText, FillsABufferOf37BytesAndSetsItsSizeTo36) {
  const LocatorPtr loc = make_locator("cpu", 1, "4C1F2A3B-0011-4D22-8E33-9A44BB55CC66");
  std::string buf(37, '#');
  mem_reader_t out = reader_of(buf);
  orlith_metric_locator_get_check_uuid_str_buf(loc.get(), &out);
  EXPECT_EQ(out.input_buffer_size, 36U);
  EXPECT_EQ(buf, std::string(kTestUuid) + '\0');
}

TEST(MetricLocatorUuidTextDeathTest, ASmallerBufferIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const LocatorPtr loc = make_locator("cpu");
  std::string buf(36, '#');
  mem_reader_t out = reader_of(buf);
  ml_error_ls = ruxo_error;
  EXPECT_DEATH(orlith_metric_locator_get_check_uuid_str_buf(loc.get(), &out),
               "\\[FATAL\\] orlith_metric_locator_get_check_uuid_str_buf caller does not allocate enough "
               "space\\.");
}

// ---- Type text

TEST(MetricLocatorTypeText, NamesEverySet) {
  const struct {
    unsigned type;
    const char *text;
  } cases[] = {{0, "unknown"},
               {1, "numeric"},
               {2, "histogram"},
               {3, "numeric,histogram"},
               {4, "text"},
               {5, "numeric,text"},
               {6, "histogram,text"},
               {7, "invalid: 0x0007"},
               {8, "invalid: 0x0008"},
               {0xFFFE, "invalid: 0xfffe"},
               {65535, "any"}};
  for (const auto &test : cases) EXPECT_EQ(type_str(test.type), test.text) << test.type;
}

TEST(MetricLocatorTypeText, IsCutOneByteBeforeTheBufferEnds) {
  EXPECT_EQ(type_str(0, 0), std::string(64, '#')) << "a length of 0 writes nothing";
  EXPECT_EQ(type_str(0, 1), "");
  EXPECT_EQ(type_str(0, 2), "");
  EXPECT_EQ(type_str(0, 3), "u");
  EXPECT_EQ(type_str(0, 8), "unknow");
  EXPECT_EQ(type_str(0, 9), "unknown");
  EXPECT_EQ(type_str(3, 12), "numeric,hi");
  EXPECT_EQ(type_str(7, 10), "invalid:");
}

// ---- JSON

TEST(MetricLocatorJson, WritesFourMembersInOrder) {
  const LocatorPtr loc = make_locator("cpu|ST[a:1]", METRIC_TYPE_ANY);
  orlith_metric_locator_set_accountid(loc.get(), -5);
  const JsonPtr obj(orlith_metric_locator_to_json(loc.get()));
  EXPECT_STREQ(ruxo_json_text(obj.get()),
               R"({"account_id":-5,"check_uuid":"4c1f2a3b-0011-4d22-8e33-9a44bb55cc66",)"
               R"("metric_name":"cpu|ST[a:1]","metric_type":65535})");
}

TEST(MetricLocatorJson, ReadsWhatItNeeds) {
  const LocatorPtr loc = from_json(R"({"extra":1,"metric_type":4,"metric_name":"cpu|ST[b:2,a:1]",)"
                                   R"("check_uuid":"4C1F2A3B-0011-4d22-8e33-9a44bb55cc66","account_id":17})");
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), 17);
  EXPECT_EQ(orlith_metric_locator_get_type(loc.get()), METRIC_TYPE_TEXT);
  EXPECT_EQ(name_of(loc.get()), "cpu|ST[a:1,b:2]");
  EXPECT_TRUE(orlith_metric_locator_equal(loc.get(), make_locator("cpu|ST[a:1,b:2]").get()));
}

std::string json_with(const std::string &account, const std::string &uuid, const std::string &type,
                      const std::string &name) {
  std::string text = "{";
  for (const auto &[key, value] : {std::pair<std::string, std::string>{"account_id", account},
                                   {"check_uuid", uuid},
                                   {"metric_type", type},
                                   {"metric_name", name}}) {
    if (value.empty()) continue;
    text += (text.size() > 1 ? ",\"" : "\"") + key + "\":" + value;
  }
  return text + "}";
}

TEST(MetricLocatorJson, AnAbsentAccountIsMinusOne) {
  const LocatorPtr loc = from_json(json_with("", '"' + std::string(kTestUuid) + '"', "1", "\"cpu\""));
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), -1);
}

TEST(MetricLocatorJson, RefusesMissingAndMistypedMembers) {
  const std::string uuid = '"' + std::string(kTestUuid) + '"';
  ASSERT_NE(from_json(json_with("1", uuid, "1", "\"cpu\"")), nullptr);
  for (const char *account : {"\"1\"", "null", "1.5", "true", "[1]"}) {
    EXPECT_EQ(from_json(json_with(account, uuid, "1", "\"cpu\"")), nullptr) << account;
  }
  for (const char *bad :
       {"", "null", "7", "\"\"", "\"4c1f2a3b-0011-4d22-8e33-9a44bb55cc6\"",
        "\"4c1f2a3b-0011-4d22-8e33-9a44bb55cc6g\"", "\"4c1f2a3b-0011-4d22-8e33-9a44bb55cc66\\u0000\"",
        "\"4c1f2a3b-0011-4d22-8e33-9a44bb55cc66 \""}) {
    EXPECT_EQ(from_json(json_with("1", bad, "1", "\"cpu\"")), nullptr) << bad;
  }
  for (const char *type : {"", "null", "\"1\"", "1.0", "{}"}) {
    EXPECT_EQ(from_json(json_with("1", uuid, type, "\"cpu\"")), nullptr) << type;
  }
  for (const char *name : {"", "null", "1", "[\"cpu\"]"}) {
    EXPECT_EQ(from_json(json_with("1", uuid, "1", name)), nullptr) << name;
  }
  for (const char *other : {"[]", "\"x\"", "1", "null", "true"})
    EXPECT_EQ(from_json(other), nullptr) << other;
  EXPECT_EQ(orlith_metric_locator_from_json(nullptr), nullptr);
}

TEST(MetricLocatorJson, TypesAreTakenModulo65536) {
  const std::string uuid = '"' + std::string(kTestUuid) + '"';
  EXPECT_EQ(orlith_metric_locator_get_type(from_json(json_with("1", uuid, "65538", "\"cpu\"")).get()), 2);
  EXPECT_EQ(orlith_metric_locator_get_type(from_json(json_with("1", uuid, "-1", "\"cpu\"")).get()), 65535);
  EXPECT_EQ(orlith_metric_locator_get_type(from_json(json_with("1", uuid, "4294967297", "\"cpu\"")).get()),
            1);
  // Beyond the signed numbers, up to 2^64 - 1.
  const LocatorPtr loc = from_json(json_with("1", uuid, "18446744073709551613", "\"cpu\""));
  EXPECT_EQ(orlith_metric_locator_get_type(loc.get()), 65533);
}

TEST(MetricLocatorJson, AccountsAreTakenModulo2To32) {
  const std::string uuid = '"' + std::string(kTestUuid) + '"';
  const struct {
    const char *text;
    int32_t account;
  } cases[] = {{"2147483647", 2147483647},
               {"-2147483648", -2147483647 - 1},
               {"2147483648", -2147483647 - 1},
               {"4294967301", 5},
               {"-4294967301", -5},
               {"9223372036854775807", -1},
               {"9223372036854775810", 2},
               {"18446744073709551609", -7}};
  for (const auto &test : cases) {
    const LocatorPtr loc = from_json(json_with(test.text, uuid, "1", "\"cpu\""));
    ASSERT_NE(loc, nullptr) << test.text;
    EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), test.account) << test.text;
  }
}

TEST(MetricLocatorJson, ANameThatTheCanonicalFormRefusesIsLogged) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(from_json(json_with("1", '"' + std::string(kTestUuid) + '"', "1", "\"a\\u0001\"")), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("Unable to canonicalize metric name (error code -2): a\x01\n"));
}

TEST(MetricLocatorJson, RoundTrips) {
  for (const char *name : {"", "cpu", "cpu|ST[a:1,b:2]", "\"quoted\\name\"", "µs/öl", "a|b|c"}) {
    const LocatorPtr loc = make_locator(name, METRIC_TYPE_HISTOGRAM);
    ASSERT_NE(loc, nullptr) << name;
    const JsonPtr obj(orlith_metric_locator_to_json(loc.get()));
    const LocatorPtr back = from_json(ruxo_json_text(obj.get()));
    ASSERT_NE(back, nullptr) << name;
    EXPECT_TRUE(orlith_metric_locator_equal(loc.get(), back.get())) << name;
    EXPECT_EQ(orlith_metric_locator_get_type(back.get()), METRIC_TYPE_HISTOGRAM);
    EXPECT_EQ(orlith_metric_locator_get_account_id(back.get()), 0);
  }
}

// ---- Base64 path

TEST(MetricLocatorPath, IsTheUuidASlashAndTheEncodedName) {
  EXPECT_EQ(b64_path(make_locator("cpu").get()), std::string(kTestUuid) + "/Y3B1");
  EXPECT_EQ(b64_path(make_locator("a|ST[x:1]").get()), std::string(kTestUuid) + "/YXxTVFt4OjFd");
  EXPECT_EQ(b64_path(make_locator("cpu`idle|ST[dc:ams,host:web-01]").get()),
            std::string(kTestUuid) + "/Y3B1YGlkbGV8U1RbZGM6YW1zLGhvc3Q6d2ViLTAxXQ==");
}

TEST(MetricLocatorPath, SlashesBecomeUnderscoresFromTheSecondCharacterOn) {
  EXPECT_EQ(b64_path(make_locator("??????").get()), std::string(kTestUuid) + "/Pz8_Pz8_");
  const RawNamed raw("\xfc\xfd\x3f\x3f>");
  EXPECT_EQ(b64_path(raw.loc.get()), std::string(kTestUuid) + "//P0_Pz4=") << "the first one stays";
}

TEST(MetricLocatorPath, AnEmptyNameEndsAfterTheUuid) {
  const LocatorPtr loc = make_locator("");
  std::string buf(37, '#');
  EXPECT_EQ(orlith_metric_locator_b64_path(loc.get(), buf.data(), buf.size()), 37U);
  EXPECT_EQ(buf, std::string(kTestUuid) + '\0');
}

TEST(MetricLocatorPath, RefusesABufferBelow37Bytes) {
  const LocatorPtr loc = make_locator("");
  std::string buf(36, '#');
  EXPECT_EQ(orlith_metric_locator_b64_path(loc.get(), buf.data(), 36), 0U);
  EXPECT_EQ(buf, std::string(36, '#'));
  EXPECT_EQ(orlith_metric_locator_b64_path(loc.get(), nullptr, 0), 0U);
}

TEST(MetricLocatorPath, AgreesWithABitByBitEncoder) {
  const unsigned seed = 20260731;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    std::string name(1 + random() % 120, ' ');
    for (char &c : name) c = static_cast<char>(1 + random() % 255);
    EXPECT_EQ(b64_path(RawNamed(name).loc.get()), std::string(kTestUuid) + "/" + naive_path_encoding(name));
  }
}

TEST(MetricLocatorPath, ReadsBackAsNumericOfAccount0) {
  for (const size_t len : {1U, 2U, 3U, 96U, 97U, 98U, 99U, 100U, 101U, 102U, 103U, 104U, 4094U, 4095U}) {
    const LocatorPtr loc = make_locator(std::string(len, '?'), METRIC_TYPE_TEXT);
    orlith_metric_locator_set_accountid(loc.get(), 8);
    const std::string path = b64_path(loc.get());
    const LocatorPtr back = from_path(kTestUuid, path.substr(37));
    ASSERT_NE(back, nullptr) << len;
    EXPECT_TRUE(orlith_metric_locator_equal(loc.get(), back.get()));
    EXPECT_EQ(orlith_metric_locator_get_type(back.get()), METRIC_TYPE_NUMERIC);
    EXPECT_EQ(orlith_metric_locator_get_account_id(back.get()), 0);
    EXPECT_NE(from_path(path.c_str(), path.substr(37)), nullptr) << "a whole path serves as its own UUID";
  }
}

TEST(MetricLocatorPath, UuidsInAnyCaseAreRead) {
  EXPECT_NE(from_path("4C1F2A3B-0011-4D22-8E33-9A44BB55CC66", "Y3B1"), nullptr);
}

TEST(MetricLocatorPath, RefusesBadUuids) {
  for (const char *uuid :
       {"", "4c1f2a3b", "4c1f2a3b-0011-4d22-8e33-9a44bb55cc6", "4c1f2a3b-0011-4d22-8e33-9a44bb55cc6x",
        "4c1f2a3b00-11-4d22-8e33-9a44bb55cc66", "4c1f2a3b-0011-4d22-8e33-9a44bb55cc660"}) {
    EXPECT_EQ(from_path(uuid, "Y3B1"), nullptr) << uuid;
  }
  EXPECT_EQ(orlith_metric_locator_from_b64_path(nullptr, "Y3B1"), nullptr);
}

TEST(MetricLocatorPath, RefusesBadEncodings) {
  for (const char *encoded : {"", "Y", "Y3B", "Y3B1=", "Y3B1Y3B", "Y3B-", "Y3 1", "====", "Y3=1", "Y3B1\n"}) {
    EXPECT_EQ(from_path(kTestUuid, encoded), nullptr) << encoded;
  }
  EXPECT_EQ(orlith_metric_locator_from_b64_path(kTestUuid, nullptr), nullptr);
  EXPECT_EQ(from_path(kTestUuid, std::string(200, '-')), nullptr) << "also when it is too long for the stack";
}

TEST(MetricLocatorPath, ADecodedNameIsHeldToTheRulesOfNames) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(from_path(kTestUuid, "YQBi"), nullptr) << "a NUL inside";
  EXPECT_EQ(from_path(kTestUuid, naive_path_encoding(std::string(4096, 'x'))), nullptr);
  ASSERT_EQ(log.lines().size(), 2U);
  EXPECT_TRUE(log.lines()[0].starts_with("Unable to canonicalize metric name (error code -2): a"));
  EXPECT_EQ(log.lines()[1], "Metric name is too long: " + std::string(4096, 'x') + "\n");
}
