#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <bit>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/orollupd/rollup.h"
#include "test/orollupd/naive_mline.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kUuid = kTestUuid;
constexpr uint64_t kUntouched = 0xABABABABABABABAB;

// What parse_Mline gave, with its text freed and its locator held.
struct Parsed {
  Parsed(const std::string &line, bool bundled = true) {
    orlith_metric_locator_t *made = nullptr;
    memset(&value, 0xAB, sizeof value);
    code = parse_Mline(line.c_str(), &ts_ms, &made, &value, bundled);
    loc.reset(made);
    if (value.type == 's' && !value.is_null && value.storage.v_string != nullptr) {
      text = value.storage.v_string;
      free(value.storage.v_string);
      value.storage.v_string = nullptr;
    }
  }
  int account() const { return orlith_metric_locator_get_account_id(loc.get()); }

  int code;
  uint64_t ts_ms = kUntouched;
  LocatorPtr loc;
  metric_value_t value;
  std::string text;
};

std::string line_of(const std::string &check, const std::string &name, const std::string &type,
                    const std::string &value) {
  return "M\t1700000000.123\t" + check + "\t" + name + "\t" + type + "\t" + value;
}

std::string value_line(const std::string &type, const std::string &value) {
  return line_of(kUuid, "cpu", type, value);
}

// The three steps on a block of exactly the line's bytes, put together as parse_Mline puts them.
struct InSteps {
  InSteps(const std::string &line, bool bundled) : bytes(new char[line.size()]) {
    memcpy(bytes.get(), line.data(), line.size());
    memset(&value, 0, sizeof value);
    code = mline_split(bytes.get(), line.size(), bundled, &fields);
    if (code != 1) return;
    const int value_code = mline_value(&fields, &value);
    if (value_code == 1 && value.type == 's' && !value.is_null) {
      text = value.storage.v_string;
      free(value.storage.v_string);
      value.storage.v_string = nullptr;
    }
    orlith_metric_locator_t *made = nullptr;
    code = mline_locator(&fields, &made);
    loc.reset(made);
    if (code == 1 || code == -8) code = value_code == 1 ? code : value_code;
  }
  std::unique_ptr<char[]> bytes;
  mline_fields_t fields{};
  int code;
  metric_value_t value;
  std::string text;
  LocatorPtr loc;
};

}  // namespace

// ---- The fields

TEST(ParseMline, ReadsABundledLine) {
  const Parsed line(value_line("n", "0.25"));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 1700000000123U);
  EXPECT_EQ(line.value.whence_ms, 1700000000123U);
  EXPECT_EQ(line.value.type, ORLITH_METRIC_DOUBLE);
  EXPECT_FALSE(line.value.is_null);
  EXPECT_EQ(line.value.storage.v_double, 0.25);
  ASSERT_NE(line.loc, nullptr);
  EXPECT_EQ(name_of(line.loc.get()), "cpu");
  EXPECT_EQ(orlith_metric_locator_get_type(line.loc.get()), METRIC_TYPE_NUMERIC);
  EXPECT_EQ(line.account(), 0);
  EXPECT_TRUE(orlith_metric_locator_equal(line.loc.get(), make_locator("cpu").get()));
}

TEST(ParseMline, SkipsTheSourceOfALineThatIsNotBundled) {
  const Parsed line("M\tsource 1\t12.5\t" + kUuid + "\tcpu|ST[b:2,a:1]\tL\t18446744073709551615\n", false);
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 12500U);
  EXPECT_EQ(line.value.storage.v_uint64, UINT64_MAX);
  EXPECT_EQ(name_of(line.loc.get()), "cpu|ST[a:1,b:2]");
}

TEST(ParseMline, ABundledTimestampOf12Point5Is12500Milliseconds) {
  EXPECT_EQ(Parsed("M\t12.5\t" + kUuid + "\tcpu\tn\t1").ts_ms, 12500U);
}

TEST(ParseMline, OtherRecordsReturn0AfterTheirTimestamp) {
  for (const char *first : {"H1", "m", "", " M", "X"}) {
    const Parsed line(std::string(first) + "\t12.5\trest");
    EXPECT_EQ(line.code, 0) << first;
    EXPECT_EQ(line.ts_ms, 12500U) << first;
    EXPECT_EQ(line.value.whence_ms, 12500U) << first;
    EXPECT_EQ(line.loc, nullptr);
  }
  EXPECT_EQ(Parsed("Mx\t1\t" + kUuid + "\tcpu\tn\t1").code, 1) << "only the first character counts";
}

TEST(ParseMline, MissingFieldsHaveTheirCodes) {
  EXPECT_EQ(Parsed("").code, -1);
  EXPECT_EQ(Parsed("M").code, -1);
  EXPECT_EQ(Parsed("M\tsource", false).code, -1);
  EXPECT_EQ(Parsed("M\t12").code, -2);
  EXPECT_EQ(Parsed("M\tsource\t12", false).code, -2);
  EXPECT_EQ(Parsed("M\t12\t" + kUuid).code, -3);
  EXPECT_EQ(Parsed("M\t12\t" + kUuid + "\tcpu").code, -4);
  EXPECT_EQ(Parsed("M\t12\t" + kUuid + "\tcpu\t").code, -5);
  EXPECT_EQ(Parsed("M\t12\t" + kUuid + "\tcpu\tn").code, -5);
}

TEST(ParseMline, TheTimestampIsSetOnEveryFailureButTheFirst) {
  for (const char *line : {"", "M"}) {
    const Parsed parsed(line);
    EXPECT_EQ(parsed.ts_ms, kUntouched);
    EXPECT_EQ(parsed.value.whence_ms, 0U);
  }
  for (const std::string &line :
       {std::string("M\t12"), std::string("M\t12\tcheck\tcpu\tn\t1"), "M\t12\t" + kUuid + "\tcpu\tx\t1"}) {
    const Parsed parsed(line);
    EXPECT_LT(parsed.code, -1);
    EXPECT_EQ(parsed.ts_ms, 12000U) << line;
    EXPECT_EQ(parsed.value.whence_ms, 12000U) << line;
  }
}

TEST(ParseMline, AnEmptyTimestampReadsOnIntoTheLine) {
  // White space is skipped before a number, TABs too.
  const Parsed line("M\t\t4c1f2a3b-0011-4d22-8e33-9a44bb55cc66\tcpu\tn\t1");
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 4000U);
}

// ---- The check field

TEST(ParseMline, AShortCheckFieldIsMinus6) {
  EXPECT_EQ(Parsed(line_of(kUuid.substr(1), "cpu", "n", "1")).code, -6);
  EXPECT_EQ(Parsed(line_of("", "cpu", "n", "1")).code, -6);
}

TEST(ParseMline, ABadUuidIsMinus7AndLogged) {
  LogCapture log(&orollup_debug_ls);
  const std::string bad = "4c1f2a3b-0011-4d22-8e33-9a44bb55cc6g";
  EXPECT_EQ(Parsed(line_of("prefix" + bad, "cpu", "n", "1")).code, -7);
  EXPECT_THAT(log.lines(), ElementsAre("ruxo_uuid_parse(" + bad + ") failed\n"));
}

TEST(ParseMline, NothingElseIsLoggedByItself) {
  LogCapture debug(&orollup_debug_ls, "test/debug");
  LogCapture error(&orollup_error_ls, "test/error");
  for (const char *line : {"", "M\t1", "X\t1", "M\t1\tcheck\tcpu\tn\t1"}) EXPECT_LT(Parsed(line).code, 1);
  EXPECT_EQ(Parsed(value_line("x", "1")).code, -9);
  EXPECT_THAT(debug.lines(), IsEmpty());
  EXPECT_THAT(error.lines(), IsEmpty());
}

TEST(ParseMline, TheLast36CharactersAreTheUuid) {
  const Parsed line(line_of("target`module`" + kUuid, "cpu", "n", "1"));
  EXPECT_EQ(line.code, 1);
  EXPECT_TRUE(orlith_metric_locator_matches(line.loc.get(), make_locator("cpu").get()));
}

TEST(ParseMline, TheAccountFollowsItsMark) {
  EXPECT_EQ(Parsed(line_of("c_1`c_4242`selfcheck`" + kUuid, "cpu", "n", "1")).account(), 4242);
  EXPECT_EQ(Parsed(line_of("`c_-17`" + kUuid, "cpu", "n", "1")).account(), -17);
  EXPECT_EQ(Parsed(line_of("a`c_x`" + kUuid, "cpu", "n", "1")).account(), 0);
  EXPECT_EQ(Parsed(line_of("a`c_7`c_8`" + kUuid, "cpu", "n", "1")).account(), 7) << "the first mark counts";
  EXPECT_EQ(Parsed(line_of("a`c_4294967298`" + kUuid, "cpu", "n", "1")).account(), 2) << "modulo 2^32";
  EXPECT_EQ(Parsed(line_of("a`c_99999999999999999999`" + kUuid, "cpu", "n", "1")).account(), -1);
}

TEST(ParseMline, ACheckFieldOfOnlyTheUuidHasAccount0) {
  const Parsed line(line_of(kUuid, "cpu`c_5", "s", "`c_6"));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.account(), 0);
}

TEST(ParseMline, TheMarkIsSearchedBeyondALongerCheckField) {
  EXPECT_EQ(Parsed(line_of("x" + kUuid, "cpu`c_5", "n", "1")).account(), 5);
  EXPECT_EQ(Parsed(line_of("x" + kUuid, "cpu", "s", "a`c_6")).account(), 6);
  EXPECT_EQ(Parsed("M`c_3\t12\tx" + kUuid + "\tcpu\tn\t1").account(), 0) << "but not before it";
}

// ---- Name and type

TEST(ParseMline, AnEmptyNameIsAName) {
  const Parsed line(line_of(kUuid, "", "n", "1"));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(name_of(line.loc.get()), "");
}

TEST(ParseMline, ARefusedNameIsMinus8AndLeavesNoText) {
  LogCapture log(&ml_error_ls);
  const Parsed line(line_of(kUuid, "cpu\x01", "s", "lost?"));
  EXPECT_EQ(line.code, -8);
  EXPECT_EQ(line.loc, nullptr);
  EXPECT_EQ(line.text, "") << "the copy was freed";
  EXPECT_EQ(line.value.storage.v_uint64, 0U);
  EXPECT_THAT(log.lines(), ElementsAre("Unable to canonicalize metric name (error code -2): cpu\x01\n"));
}

TEST(ParseMline, ANameOf4096BytesIsMinus8) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(Parsed(line_of(kUuid, std::string(4095, 'x'), "n", "1")).code, 1);
  EXPECT_EQ(Parsed(line_of(kUuid, std::string(4096, 'x'), "n", "1")).code, -8);
}

TEST(ParseMline, IgnoredExtensionsAreMinus10) {
  EXPECT_EQ(Parsed(line_of(kUuid, "cpu:ignored", "n", "1")).code, 1) << "nothing is ignored yet";
  store_extension_to_ignore("ignored");
  EXPECT_EQ(Parsed(line_of(kUuid, "cpu:ignored", "n", "1")).code, -10);
  EXPECT_EQ(Parsed(line_of(kUuid, "cpu:ignored", "x", "1")).code, -10) << "before the value is looked at";
  EXPECT_EQ(Parsed(line_of(kUuid, "cpu:", "n", "1")).code, 1);
  EXPECT_EQ(Parsed(line_of(kUuid, "ignored", "n", "1")).code, 1);
}

TEST(ParseMline, TheTypeIsTheFirstCharacterOfItsField) {
  EXPECT_EQ(Parsed(value_line("number", "1.5")).value.storage.v_double, 1.5);
  const Parsed empty(value_line("", "1"));
  EXPECT_EQ(empty.code, -9);
  EXPECT_EQ(empty.value.type, unsigned{'\t'}) << "an empty field's first character is its TAB";
  EXPECT_EQ(Parsed(value_line("\xff", "1")).value.type, 255U);
}

TEST(ParseMline, AnUnknownTypeIsMinus9) {
  for (const char *type : {"x", "h", "H", "0", "N", "\xee"}) {
    const Parsed line(value_line(type, "5"));
    EXPECT_EQ(line.code, -9) << type;
    EXPECT_EQ(line.loc, nullptr);
    EXPECT_EQ(line.value.storage.v_uint64, 0U);
  }
}

// ---- Values

TEST(ParseMline, NullValuesAreAcceptedForAnyType) {
  for (const char *type : {"n", "L", "s", "x"}) {
    for (const char *text : {"[[null]]", "[[null]]\n"}) {
      const Parsed line(value_line(type, text));
      EXPECT_EQ(line.code, 1) << type;
      EXPECT_TRUE(line.value.is_null);
      EXPECT_EQ(line.value.type, static_cast<unsigned char>(*type));
      EXPECT_EQ(line.value.storage.v_uint64, 0U);
    }
  }
  EXPECT_EQ(Parsed(value_line("x", "[[null]]\r\n")).code, -9);
  EXPECT_EQ(Parsed(value_line("s", "[[null]] ")).text, "[[null]] ");
  EXPECT_EQ(Parsed(value_line("s", "[[null]]\n\n")).text, "[[null]]\n\n");
  EXPECT_EQ(Parsed(value_line("n", "[[NULL]]")).value.storage.v_double, 0.0);
}

TEST(ParseMline, IntegersAreCutToTheirWidth) {
  EXPECT_EQ(Parsed(value_line("I", "4294967295")).value.storage.v_uint32, UINT32_MAX);
  EXPECT_EQ(Parsed(value_line("I", "4294967297")).value.storage.v_uint32, 1U);
  EXPECT_EQ(Parsed(value_line("I", "-1")).value.storage.v_uint32, UINT32_MAX);
  EXPECT_EQ(Parsed(value_line("i", "-2147483648")).value.storage.v_int32, INT32_MIN);
  EXPECT_EQ(Parsed(value_line("i", "4294967295")).value.storage.v_int32, -1);
  EXPECT_EQ(Parsed(value_line("i", "9999999999999999999")).value.storage.v_int32, -1) << "LONG_MAX, cut";
  EXPECT_EQ(Parsed(value_line("l", "-9223372036854775809")).value.storage.v_int64, INT64_MIN);
  EXPECT_EQ(Parsed(value_line("l", "9223372036854775808")).value.storage.v_int64, INT64_MAX);
  EXPECT_EQ(Parsed(value_line("L", "18446744073709551616")).value.storage.v_uint64, UINT64_MAX);
  EXPECT_EQ(Parsed(value_line("L", "-1")).value.storage.v_uint64, UINT64_MAX);
}

TEST(ParseMline, TextAfterANumberIsIgnored) {
  EXPECT_EQ(Parsed(value_line("i", "12abc")).value.storage.v_int32, 12);
  EXPECT_EQ(Parsed(value_line("l", "0x1f")).value.storage.v_int64, 0) << "base 10";
  EXPECT_EQ(Parsed(value_line("n", " 1e3\n")).value.storage.v_double, 1000.0);
  EXPECT_EQ(Parsed(value_line("n", "")).value.storage.v_double, 0.0);
  EXPECT_EQ(Parsed(value_line("L", "seven")).value.storage.v_uint64, 0U);
}

TEST(ParseMline, TextRunsToTheEndOfTheLine) {
  const Parsed line(value_line("s", "a\tb\t\tc\n"));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.text, "a\tb\t\tc\n");
  EXPECT_EQ(orlith_metric_locator_get_type(line.loc.get()), METRIC_TYPE_TEXT);
  const Parsed empty(value_line("s", ""));
  EXPECT_EQ(empty.code, 1);
  EXPECT_EQ(empty.text, "");
}

TEST(ParseMline, LongLinesAreRead) {
  const std::string text(1 << 20, 't');
  EXPECT_EQ(Parsed(value_line("s", text)).text, text);
  EXPECT_EQ(Parsed(value_line("l", std::string(1 << 20, '0') + "7")).value.storage.v_int64, 7);
  EXPECT_EQ(Parsed(line_of(std::string(1 << 20, 'p') + kUuid, "cpu", "n", "1")).code, 1);
}

// ---- The steps

TEST(MlineSplit, GivesTheFieldsAsTheyStand) {
  const std::string line = "M\tsrc\t12.5\tpre" + kUuid + "\tcpu|ST[b:2,a:1]\tnumber\t1\t2\n";
  mline_fields_t fields;
  ASSERT_EQ(mline_split(line.data(), line.size(), false, &fields), 1);
  const auto text = [](const mline_view_t &view) { return std::string(view.text, view.len); };
  EXPECT_EQ(text(fields.timestamp), "12.5");
  EXPECT_EQ(fields.whence_ms, 12500U);
  EXPECT_EQ(text(fields.check), "pre" + kUuid);
  EXPECT_EQ(text(fields.name), "cpu|ST[b:2,a:1]");
  EXPECT_EQ(fields.type, 'n');
  EXPECT_EQ(text(fields.value), "1\t2\n");
  EXPECT_EQ(fields.check.text, line.data() + 11) << "views into the line";
}

TEST(MlineSplit, StopsAtItsLengthAndAtANul) {
  const std::string line = value_line("n", "123");
  mline_fields_t fields;
  metric_value_t value;
  ASSERT_EQ(mline_split(line.data(), line.size() - 1, true, &fields), 1);
  EXPECT_EQ(fields.value.len, 2U);
  ASSERT_EQ(mline_value(&fields, &value), 1);
  EXPECT_EQ(value.storage.v_double, 12.0);
  std::string cut = line;
  cut[cut.size() - 1] = '\0';
  ASSERT_EQ(mline_split(cut.data(), cut.size(), true, &fields), 1);
  EXPECT_EQ(fields.value.len, 2U);
  EXPECT_EQ(mline_split(line.data(), 0, true, &fields), -1);
  EXPECT_EQ(mline_split("M\0\t1\t", 5, true, &fields), -1);
}

TEST(MlineSplit, GivesTheTimestampOfRecordsItDoesNotKnow) {
  mline_fields_t fields{};
  EXPECT_EQ(mline_split("H1\t12.5\tx", 9, true, &fields), 0);
  EXPECT_EQ(fields.whence_ms, 12500U);
  EXPECT_EQ(std::string(fields.timestamp.text, fields.timestamp.len), "12.5\tx");
  EXPECT_EQ(mline_split("M\t7", 3, true, &fields), -2);
  EXPECT_EQ(fields.whence_ms, 7000U);
}

TEST(MlineLocator, LeavesTheLocatorAloneOnFailure) {
  const std::string line = line_of("short", "cpu", "n", "1");
  mline_fields_t fields;
  ASSERT_EQ(mline_split(line.data(), line.size(), true, &fields), 1);
  auto *untouched = reinterpret_cast<orlith_metric_locator_t *>(0x10);
  orlith_metric_locator_t *loc = untouched;
  EXPECT_EQ(mline_locator(&fields, &loc), -6);
  EXPECT_EQ(loc, untouched);
}

// ---- Against the plain parser

namespace {

void expect_as_naive(const std::string &line, bool bundled) {
  SCOPED_TRACE("line: \"" + line + "\"");
  const NaiveLine naive = naive_parse(line.c_str(), bundled);
  const Parsed parsed(line, bundled);
  const InSteps steps(line, bundled);
  ASSERT_EQ(parsed.code, naive.code);
  ASSERT_EQ(steps.code, naive.code);
  if (naive.code == -1) return;
  EXPECT_EQ(parsed.ts_ms, naive.whence_ms);
  EXPECT_EQ(parsed.value.whence_ms, naive.whence_ms);
  EXPECT_EQ(steps.fields.whence_ms, naive.whence_ms);
  if (naive.code != 1) return;
  for (const metric_value_t *value : {&parsed.value, &steps.value}) {
    EXPECT_EQ(value->type, naive.value.type);
    EXPECT_EQ(value->is_null, naive.value.is_null);
    EXPECT_EQ(value->storage.v_uint64, naive.value.storage.v_uint64);
  }
  EXPECT_EQ(parsed.text, naive.text);
  EXPECT_EQ(steps.text, naive.text);
  for (const orlith_metric_locator_t *loc : {parsed.loc.get(), steps.loc.get()}) {
    EXPECT_EQ(orlith_metric_locator_get_account_id(loc), naive.account);
    EXPECT_EQ(orlith_metric_locator_get_type(loc), naive.kind);
    EXPECT_EQ(name_of(loc), naive.name);
    EXPECT_TRUE(orlith_metric_locator_matches(loc, make_locator(naive.name, 1, naive.uuid.c_str()).get()));
  }
}

// Lines that are nearly right: valid ones with a few bytes changed, dropped, doubled or cut.
std::string mutated(std::string line, std::mt19937 &random) {
  const std::string_view bytes = "\t\t\t\t.`c_-0159eEnLlIisxM[]|:,ST{}\n \x01\xc3\xa9\xff\0";
  for (unsigned edits = random() % 4; edits > 0 && !line.empty(); --edits) {
    const size_t at = random() % line.size();
    switch (random() % 4) {
      case 0:
        line[at] = bytes[random() % bytes.size()];
        break;
      case 1:
        line.erase(at, 1 + random() % 3);
        break;
      case 2:
        line.insert(at, 1, bytes[random() % bytes.size()]);
        break;
      default:
        line.resize(random() % 4 == 0 ? at : line.size());
        break;
    }
  }
  return line;
}

}  // namespace

TEST(ParseMlineDifferential, AgreesWithThePlainParserOnMutatedLines) {
  const unsigned seed = 2718281;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  LogCapture quiet(&ml_error_ls);
  const std::vector<std::string> checks = {kUuid, "x" + kUuid, "target`c_12`m`" + kUuid};
  const std::vector<std::string> names = {"cpu", "cpu|ST[b:2,a:1]", "a:b", "", "d|MT{x:1}", "n`c_9"};
  const std::vector<std::string> types = {"n", "L", "l", "I", "i", "s", "x", "number"};
  const std::vector<std::string> values = {"1",          "-1.5e3",       "[[null]]",
                                           "[[null]]\n", "text\tmore\n", "18446744073709551615",
                                           "0x1p3",      "nan",          "`c_3"};
  for (int round = 0; round < 100000 && !testing::Test::HasFailure(); ++round) {
    const auto pick = [&random](const auto &from) { return from[random() % from.size()]; };
    const std::string line = "M\t" + std::string(random() % 2 == 0 ? "src\t" : "") + "1700000000.125\t" +
                             pick(checks) + "\t" + pick(names) + "\t" + pick(types) + "\t" + pick(values);
    expect_as_naive(mutated(line, random), random() % 2 == 0);
    if (round % 1000 == 0) quiet.clear();
  }
}

TEST(ParseMlineDifferential, AgreesWithThePlainParserOnRandomBytes) {
  const unsigned seed = 1414213;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string_view alphabet = "M\t\t\t0123456789.-";
  for (int round = 0; round < 50000 && !testing::Test::HasFailure(); ++round) {
    std::string line(random() % 40, ' ');
    for (char &c : line)
      c = random() % 10 == 0 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
    expect_as_naive(line, random() % 2 == 0);
  }
}
