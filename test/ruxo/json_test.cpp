#include "ruxo/json.h"

#include <gtest/gtest.h>
#include <string.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>

namespace {

// The compact text that `text` parses to; "(refused)" when it does not.
std::string round_trip(const std::string &text) {
  ruxo_json_object *const o = ruxo_json_parse_n(text.data(), text.size());
  const std::string result = o == nullptr ? "(refused)" : ruxo_json_text(o);
  ruxo_json_free(o);
  return result;
}

std::string text_and_free(ruxo_json_object *o) {
  const std::string text = ruxo_json_text(o);
  ruxo_json_free(o);
  return text;
}

}  // namespace

TEST(Json, ParsesAndPrintsEveryType) {
  for (const char *text : {"null", "true", "false", "0", "-1", "1.5", "\"a\"", "[]", "{}",
                           "[1,[2,{\"a\":null}],\"b\"]", "{\"a\":1,\"b\":[true,false,null]}"}) {
    EXPECT_EQ(round_trip(text), text);
  }
  EXPECT_EQ(round_trip(" [ 1 , 2 ] "), "[1,2]");
}

TEST(Json, RefusesWhatIsNotOneStrictValue) {
  for (const char *text : {"", "[1,]", "{\"a\":1,}", "NaN", "Infinity", "1 2", "[1] x", "01", "1.", "'a'",
                           "{a:1}", "nul", "\"\n\"", "/*c*/1"}) {
    EXPECT_EQ(round_trip(text), "(refused)") << text;
  }
  EXPECT_EQ(round_trip(std::string("1\0", 2)), "(refused)");
}

TEST(Json, ParsesExactlyTheViewItIsGiven) {
  ruxo_json_object *const o = ruxo_json_parse_n("12345", 3);
  EXPECT_EQ(ruxo_json_int(o), 123);
  ruxo_json_free(o);
}

TEST(Json, TheTextNullIsAValueAndNoFault) {
  ruxo_json_object *const o = ruxo_json_parse("null");
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(ruxo_json_type(o), RUXO_JSON_NULL);
  EXPECT_STREQ(ruxo_json_text(o), "null");
  ruxo_json_object *const array = ruxo_json_new_array();
  ruxo_json_array_add(array, o);
  EXPECT_EQ(text_and_free(array), "[null]");
}

TEST(Json, IntegersKeepAll64Bits) {
  for (const char *text :
       {"9223372036854775807", "-9223372036854775808", "9223372036854775808", "18446744073709551615"}) {
    EXPECT_EQ(round_trip(text), text);
  }
  EXPECT_EQ(round_trip("18446744073709551616"), "(refused)");
  EXPECT_EQ(round_trip("-9223372036854775809"), "(refused)");
  EXPECT_EQ(text_and_free(ruxo_json_new_uint(UINT64_MAX)), "18446744073709551615");
  EXPECT_EQ(text_and_free(ruxo_json_new_int(INT64_MIN)), "-9223372036854775808");
}

TEST(Json, AnIntegerThatDoesNotFitReadsAsZeroAndSaysSo) {
  const struct {
    const char *text;
    bool is_int64, is_uint64;
    int64_t as_int;
    uint64_t as_uint;
  } cases[] = {{"0", true, true, 0, 0},
               {"-1", true, false, -1, 0},
               {"9223372036854775807", true, true, INT64_MAX, INT64_MAX},
               {"9223372036854775808", false, true, 0, uint64_t{1} << 63},
               {"18446744073709551615", false, true, 0, UINT64_MAX},
               {"-9223372036854775808", true, false, INT64_MIN, 0},
               {"1.0", false, false, 0, 0},
               {"\"1\"", false, false, 0, 0},
               {"true", false, false, 0, 0}};
  for (const auto &expected : cases) {
    SCOPED_TRACE(expected.text);
    ruxo_json_object *const o = ruxo_json_parse(expected.text);
    EXPECT_EQ(ruxo_json_is_int64(o), expected.is_int64);
    EXPECT_EQ(ruxo_json_is_uint64(o), expected.is_uint64);
    EXPECT_EQ(ruxo_json_int(o), expected.as_int);
    EXPECT_EQ(ruxo_json_uint(o), expected.as_uint);
    ruxo_json_free(o);
  }
}

TEST(Json, DoublesAreWrittenWithTheFewestDigitsThatReadBack) {
  const std::pair<double, const char *> cases[] = {
      {0.1, "0.1"},           {1.0, "1.0"},
      {-0.0, "-0.0"},         {1.0 / 3, "0.3333333333333333"},
      {1e22, "1e+22"},        {5e-324, "5e-324"},
      {123456.0, "123456.0"}, {1.7976931348623157e308, "1.7976931348623157e+308"}};
  for (const auto &[value, text] : cases) EXPECT_EQ(text_and_free(ruxo_json_new_double(value)), text);
}

TEST(Json, EveryDoubleReadsBackAsItself) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int i = 0; i < 20000; ++i) {
    const uint64_t bits = random();
    double value;
    memcpy(&value, &bits, sizeof value);
    if (!std::isfinite(value)) continue;
    ruxo_json_object *const written = ruxo_json_new_double(value);
    ruxo_json_object *const read = ruxo_json_parse(ruxo_json_text(written));
    ASSERT_EQ(ruxo_json_type(read), RUXO_JSON_DOUBLE) << ruxo_json_text(written);
    const double back = ruxo_json_double(read);
    ASSERT_EQ(memcmp(&back, &value, sizeof value), 0) << ruxo_json_text(written);
    ruxo_json_free(written);
    ruxo_json_free(read);
  }
}

TEST(Json, WhatIsNoNumberIsWrittenAsNull) {
  EXPECT_EQ(text_and_free(ruxo_json_new_double(std::nan(""))), "null");
  EXPECT_EQ(text_and_free(ruxo_json_new_double(std::numeric_limits<double>::infinity())), "null");
  ruxo_json_object *const o = ruxo_json_new_object();
  ruxo_json_object_set(o, "x", ruxo_json_new_double(std::nan("")));
  EXPECT_EQ(text_and_free(o), "{\"x\":null}");
}

TEST(Json, RefusesNumbersTooLargeForADouble) {
  EXPECT_EQ(round_trip("1e999"), "(refused)");
  EXPECT_EQ(round_trip("[{\"a\":-1e999}]"), "(refused)");
  EXPECT_EQ(round_trip("1e-999"), "1e-999") << "too small is zero";
}

TEST(Json, StringsMayHoldNuls) {
  ruxo_json_object *const o = ruxo_json_new_string_len("a\0b", 3);
  size_t len = 0;
  const char *const text = ruxo_json_string(o, &len);
  EXPECT_EQ(std::string(text, len), std::string("a\0b", 3));
  EXPECT_STREQ(ruxo_json_text(o), R"("a\u0000b")");
  ruxo_json_object *const read = ruxo_json_parse(ruxo_json_text(o));
  const char *const again = ruxo_json_string(read, &len);
  EXPECT_EQ(std::string(again, len), std::string("a\0b", 3));
  ruxo_json_free(o);
  ruxo_json_free(read);
}

TEST(Json, StringsAreEscapedAsNeeded) {
  EXPECT_EQ(text_and_free(ruxo_json_new_string("\"\\/\b\f\n\r\t\x01\x7f")),
            "\"\\\"\\\\/\\b\\f\\n\\r\\t\\u0001\x7f\"");
  EXPECT_EQ(text_and_free(ruxo_json_new_string("gr\xc3\xbc\xc3\x9f")), "\"gr\xc3\xbc\xc3\x9f\"");
}

TEST(Json, BytesThatAreNoUtf8AreReplaced) {
  EXPECT_EQ(text_and_free(ruxo_json_new_string("a\xff"
                                               "b")),
            "\"a\xef\xbf\xbd"
            "b\"");
}

TEST(Json, ObjectsHoldTheirMembersInOrder) {
  ruxo_json_object *const o = ruxo_json_new_object();
  ruxo_json_object_set(o, "z", ruxo_json_new_int(1));
  ruxo_json_object_set(o, "a", nullptr);
  ruxo_json_object_set(o, "z", ruxo_json_new_boolean(true));
  EXPECT_STREQ(ruxo_json_text(o), "{\"z\":true,\"a\":null}");
  bool present = false;
  EXPECT_TRUE(ruxo_json_boolean(ruxo_json_object_get(o, "z", &present)));
  EXPECT_TRUE(present);
  EXPECT_EQ(ruxo_json_object_get(o, "a", &present), nullptr);
  EXPECT_TRUE(present) << "a null value";
  EXPECT_EQ(ruxo_json_object_get(o, "b", &present), nullptr);
  EXPECT_FALSE(present);
  EXPECT_EQ(ruxo_json_object_get(nullptr, "b", &present), nullptr);
  EXPECT_FALSE(present);
  ruxo_json_free(o);
}

TEST(Json, AContainerThatRefusesAValueLeavesItWithTheCaller) {
  ruxo_json_object *const object = ruxo_json_new_object();
  ruxo_json_object *const value = ruxo_json_new_int(1);
  EXPECT_FALSE(ruxo_json_array_add(object, value));
  EXPECT_FALSE(ruxo_json_object_set(value, "a", object));
  EXPECT_FALSE(ruxo_json_object_set(nullptr, "a", value));
  EXPECT_FALSE(ruxo_json_object_set(object, "\xff", value));
  EXPECT_TRUE(ruxo_json_object_set(object, "a", value));
  EXPECT_EQ(text_and_free(object), "{\"a\":1}");
}

TEST(Json, ArraysAreIndexed) {
  ruxo_json_object *const array = ruxo_json_parse("[1,\"b\",null]");
  EXPECT_EQ(ruxo_json_array_length(array), 3u);
  EXPECT_EQ(ruxo_json_int(ruxo_json_array_get(array, 0)), 1);
  EXPECT_STREQ(ruxo_json_string(ruxo_json_array_get(array, 1), nullptr), "b");
  EXPECT_EQ(ruxo_json_array_get(array, 2), nullptr);
  EXPECT_EQ(ruxo_json_array_get(array, 3), nullptr);
  EXPECT_EQ(ruxo_json_array_length(nullptr), 0u);
  ruxo_json_free(array);
}

TEST(Json, TheWrongTypeReadsAsNothing) {
  ruxo_json_object *const o = ruxo_json_parse("[\"5\",7]");
  EXPECT_EQ(ruxo_json_int(ruxo_json_array_get(o, 0)), 0);
  EXPECT_EQ(ruxo_json_double(ruxo_json_array_get(o, 0)), 0.0);
  EXPECT_FALSE(ruxo_json_boolean(ruxo_json_array_get(o, 1)));
  size_t len = 9;
  EXPECT_EQ(ruxo_json_string(ruxo_json_array_get(o, 1), &len), nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(ruxo_json_double(ruxo_json_array_get(o, 1)), 7.0);
  EXPECT_EQ(ruxo_json_array_length(ruxo_json_array_get(o, 1)), 0u);
  ruxo_json_free(o);
}

TEST(Json, TheLastOfEqualNamesCounts) {
  EXPECT_EQ(round_trip("{\"a\":1,\"a\":2}"), "{\"a\":2}");
}

TEST(Json, RefusesTextsBeyondTheSizeLimit) {
  std::string text(RUXO_JSON_MAX_BYTES + 1, ' ');
  text[0] = '1';
  EXPECT_EQ(round_trip(text), "(refused)");
  text.pop_back();
  EXPECT_EQ(round_trip(text), "1");
}

TEST(Json, NestsAsDeepAsTheLimit) {
  const std::string deepest = std::string(RUXO_JSON_MAX_DEPTH, '[') + std::string(RUXO_JSON_MAX_DEPTH, ']');
  EXPECT_EQ(round_trip(deepest), deepest);
  EXPECT_EQ(round_trip("[" + deepest + "]"), "(refused)");
}

TEST(Json, FreeingNullIsFine) {
  ruxo_json_free(nullptr);
}
