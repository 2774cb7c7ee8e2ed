#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/util/histogram.h"
#include "test/support/faults.h"
#include "test/support/line_fields.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string kUuid = kTestUuid;
constexpr uint64_t kUntouched = 0xABABABABABABABAB;

// The text of a histogram of 1, 2 and 2.
std::string some_histogram() {
  histogram_t *h = hist_alloc();
  hist_insert(h, 1, 1);
  hist_insert(h, 2, 2);
  std::string text(hist_serialized_b64_size(h), '\0');
  EXPECT_EQ(hist_serialize_b64(h, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  hist_free(h);
  return text;
}

// What decode_histogram_string gave, with its text freed and its locator held.
struct Decoded {
  Decoded(const std::string &line, bool bundled = true, size_t cid_size = 256) {
    cid.assign(cid_size, 'U');
    orlith_metric_locator_t *made = nullptr;
    memset(&value, 0xAB, sizeof value);
    code = decode_histogram_string(line.c_str(), &ts_ms, &made, &value, bundled, cid.data(), cid.size());
    take(made);
  }
  struct NoCid {};
  Decoded(const std::string &line, NoCid) {
    orlith_metric_locator_t *made = nullptr;
    memset(&value, 0xAB, sizeof value);
    code = decode_histogram_string(line.c_str(), &ts_ms, &made, &value, true, nullptr, 100);
    take(made);
  }
  int account() const { return orlith_metric_locator_get_account_id(loc.get()); }

  int code;
  uint64_t ts_ms = kUntouched;
  LocatorPtr loc;
  metric_value_t value;
  std::string text;
  std::vector<char> cid;

 private:
  void take(orlith_metric_locator_t *made) {
    loc.reset(made);
    if (code != 1 || value.is_null) return;
    text = value.storage.v_string;
    free(value.storage.v_string);
  }
};

std::string line_of(const std::string &check, const std::string &name, const std::string &histogram,
                    const std::string &timestamp = "1700000000.123") {
  return "H1\t" + timestamp + "\t" + check + "\t" + name + "\t" + histogram;
}

}  // namespace

// ---- The fields

TEST(HistogramLine, ReadsABundledLine) {
  const Decoded line(line_of(kUuid, "latency|ST[b:2,a:1]", some_histogram()));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 1700000000123U);
  EXPECT_EQ(line.value.whence_ms, 1700000000123U);
  EXPECT_EQ(line.value.type, 115U);
  EXPECT_FALSE(line.value.is_null);
  EXPECT_EQ(line.text, some_histogram());
  ASSERT_NE(line.loc, nullptr);
  EXPECT_EQ(name_of(line.loc.get()), "latency|ST[a:1,b:2]");
  EXPECT_EQ(orlith_metric_locator_get_type(line.loc.get()), METRIC_TYPE_HISTOGRAM);
  EXPECT_TRUE(orlith_metric_locator_equal(line.loc.get(), make_locator("latency|ST[a:1,b:2]").get()));
}

TEST(HistogramLine, SkipsTheSourceOfALineThatIsNotBundled) {
  const Decoded line("H1\tany source\t12.5\t" + kUuid + "\tlatency\t" + some_histogram(), false);
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 12500U);
  EXPECT_EQ(line.text, some_histogram());
}

TEST(HistogramLine, TheLeadingFieldsAreNotLookedAt) {
  EXPECT_EQ(Decoded("\t12\t" + kUuid + "\tlatency\t").code, 1);
  EXPECT_EQ(Decoded("M\t12\t" + kUuid + "\tlatency\t").code, 1);
}

TEST(HistogramLine, ATimestampOf1700000000Point5SecondsIs1700000000500Milliseconds) {
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", some_histogram(), "1700000000.5")).ts_ms, 1700000000500U);
}

TEST(HistogramLine, FractionsOfAMillisecondAreCutOff) {
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "1.0009")).ts_ms, 1000U);
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "1.9999")).ts_ms, 1999U);
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "17")).ts_ms, 17000U);
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "17.")).ts_ms, 17000U);
}

TEST(HistogramLine, ATimestampEndsWithItsField) {
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "")).ts_ms, 0U) << "the digits of the check are not read";
  EXPECT_EQ(Decoded(line_of(kUuid, "latency", "", "noon")).ts_ms, 0U);
}

TEST(HistogramLine, MissingTabsHaveTheirCodes) {
  EXPECT_EQ(Decoded("").code, -1);
  EXPECT_EQ(Decoded("H1").code, -1);
  EXPECT_EQ(Decoded("H1\tsource", false).code, -1);
  EXPECT_EQ(Decoded("H1\t12").code, -2);
  EXPECT_EQ(Decoded("H1\tsource\t12", false).code, -2);
  EXPECT_EQ(Decoded("H1\t12\t" + kUuid).code, -3);
  EXPECT_EQ(Decoded("H1\t12\t" + kUuid + "\tlatency").code, -4);
  EXPECT_EQ(Decoded("H1\t12\tshort\tlatency").code, -4) << "every TAB counts before the check's length";
}

TEST(HistogramLine, TheTimeIsSetOnceTheTimestampHasEnded) {
  for (const char *line : {"", "H1", "H1\t12"}) {
    EXPECT_EQ(Decoded(line).ts_ms, kUntouched) << line;
    EXPECT_EQ(Decoded(line).value.whence_ms, 0U) << line;
  }
  for (const char *line : {"H1\t12\t", "H1\t12\tshort\t", "H1\t12\tshort\tlatency\t"}) {
    EXPECT_EQ(Decoded(line).ts_ms, 12000U) << line;
    EXPECT_EQ(Decoded(line).value.whence_ms, 12000U) << line;
  }
}

// ---- The check field

TEST(HistogramLine, ACheckFieldOf35BytesIsMinus6) {
  LogCapture log(&ruxo_error);
  EXPECT_EQ(Decoded(line_of(kUuid.substr(1), "latency", some_histogram())).code, -6);
  EXPECT_EQ(Decoded(line_of("", "latency", some_histogram())).code, -6);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(HistogramLine, ABadUuidIsMinus7AndLogged) {
  LogCapture log(&ruxo_error);
  const std::string bad = "4c1f2a3b-0011-4d22-8e33-9a44bb55cc6g";
  const Decoded line(line_of("target`c_4`" + bad, "latency", some_histogram()));
  EXPECT_EQ(line.code, -7);
  EXPECT_EQ(line.loc, nullptr);
  EXPECT_EQ(line.cid[0], 'U') << "nothing is copied from a check that is none";
  EXPECT_THAT(log.lines(), ElementsAre("ruxo_uuid_parse(" + bad + ") failed\n"));
}

TEST(HistogramLine, TheAccountFollowsItsMark) {
  const std::string h = some_histogram();
  EXPECT_EQ(Decoded(line_of("c_1`c_4242`selfcheck`" + kUuid, "latency", h)).account(), 4242);
  EXPECT_EQ(Decoded(line_of("`c_-17`" + kUuid, "latency", h)).account(), -17);
  EXPECT_EQ(Decoded(line_of("a`c_x`" + kUuid, "latency", h)).account(), 0);
  EXPECT_EQ(Decoded(line_of("a`c_7`c_8`" + kUuid, "latency", h)).account(), 7) << "the first mark counts";
  EXPECT_EQ(Decoded(line_of("target`" + kUuid, "latency", h)).account(), 0);
}

TEST(HistogramLine, ACheckFieldOf36BytesHasAccount0AndIsNotSearched) {
  const Decoded line(line_of(kUuid, "latency`c_5", some_histogram()));
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.account(), 0);
}

TEST(HistogramLine, TheSearchEndsWithTheCheckField) {
  EXPECT_EQ(Decoded(line_of("x" + kUuid, "latency`c_5", some_histogram())).account(), 0);
}

TEST(HistogramLine, TheCheckFieldIsCopied) {
  const Decoded line(line_of("a`c_7`" + kUuid, "latency", some_histogram()));
  EXPECT_STREQ(line.cid.data(), ("a`c_7`" + kUuid).c_str());
}

TEST(HistogramLine, NoLengthOfTheBufferIsOverrun) {
  const std::string check = "a`c_1234`" + kUuid;
  for (size_t size = 0; size <= check.size() + 2; ++size) {
    // The vector's block is of exactly this size, so that the address sanitizer sees a byte too many.
    const Decoded line(line_of(check, "latency", some_histogram()), true, size);
    EXPECT_EQ(line.code, 1);
    if (size == 0) continue;
    const std::string kept = check.substr(0, size - 1);
    EXPECT_EQ(std::string(line.cid.data()), kept);
    for (size_t i = kept.size() + 1; i < size; ++i) EXPECT_EQ(line.cid[i], 'U');
  }
}

TEST(HistogramLine, AShortBufferCutsTheAccountToo) {
  const std::string line = line_of("a`c_1234`" + kUuid, "latency", some_histogram());
  EXPECT_EQ(Decoded(line, true, 9).account(), 1234);
  EXPECT_EQ(Decoded(line, true, 8).account(), 123);
  EXPECT_EQ(Decoded(line, true, 4).account(), 0);
  EXPECT_EQ(Decoded(line, true, 0).account(), 0);
  EXPECT_EQ(Decoded(line, Decoded::NoCid()).account(), 0) << "no copy, no account";
}

// ---- The name

TEST(HistogramLine, ARefusedNameIsMinus8AndLogged) {
  LogCapture locator_log(&ml_error_ls, "test/locator");
  LogCapture log(&ruxo_error);
  const Decoded line(line_of(kUuid, "lat\x01y", some_histogram()));
  EXPECT_EQ(line.code, -8);
  EXPECT_EQ(line.loc, nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("metric_name_v1_parse(lat\x01y) failed\n"));
}

TEST(HistogramLine, ANameOf4096BytesIsMinus8) {
  LogCapture locator_log(&ml_error_ls, "test/locator");
  LogCapture log(&ruxo_error);
  EXPECT_EQ(Decoded(line_of(kUuid, std::string(4095, 'x'), "")).code, 1);
  EXPECT_EQ(Decoded(line_of(kUuid, std::string(4096, 'x'), "")).code, -8);
  EXPECT_THAT(log.lines(), ElementsAre("metric_name_v1_parse(" + std::string(4096, 'x') + ") failed\n"));
}

// ---- The histogram

TEST(HistogramLine, NewlinesAtTheEndAreKeptButNotDecoded) {
  LogCapture log(&ruxo_error);
  for (const char *end : {"\n", "\n\n\n"}) {
    const Decoded line(line_of(kUuid, "latency", some_histogram() + end));
    EXPECT_EQ(line.code, 1);
    EXPECT_FALSE(line.value.is_null);
    EXPECT_EQ(line.text, some_histogram() + end);
  }
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(HistogramLine, AnEmptyTextIsANullValue) {
  LogCapture log(&ruxo_error);
  const Decoded line(line_of(kUuid, "latency", ""));
  EXPECT_EQ(line.code, 1);
  EXPECT_NE(line.loc, nullptr);
  EXPECT_EQ(line.value.type, 115U);
  EXPECT_TRUE(line.value.is_null);
  EXPECT_EQ(line.value.storage.v_string, nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(HistogramLine, AHistogramThatIsNotBase64IsANullValueAndStill1) {
  const std::string h = some_histogram();
  const std::string broken[] = {"@@@@",  "\n",         "A",        "\n\n",     h.substr(1),    h + "\r\n",
                                " " + h, h + "\tmore", h + "AAAA", "[[null]]", h.substr(0, 4), "\xff\xfe\n"};
  for (const std::string &text : broken) {
    LogCapture log(&ruxo_error);
    const Decoded line(line_of(kUuid, "latency", text));
    EXPECT_EQ(line.code, 1) << text;
    EXPECT_NE(line.loc, nullptr);
    EXPECT_EQ(line.ts_ms, 1700000000123U);
    EXPECT_EQ(line.value.type, 115U);
    EXPECT_TRUE(line.value.is_null);
    EXPECT_EQ(line.value.storage.v_string, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("Failed to deserialize histogram: |" + text + "|\n"));
  }
}

TEST(HistogramLine, RunningOutOfMemoryIsMinus9OrARefusedLocator) {
  LogCapture locator_log(&ml_error_ls, "test/locator");
  LogCapture log(&ruxo_error);
  const std::string text = line_of(kUuid, "latency", some_histogram());
  bool reached_the_copy = false;
  for (int nth = 1;; ++nth) {
    faults::Fail fail(faults::Call::malloc, ENOMEM, nth, 1);
    uint64_t ts_ms = 0;
    orlith_metric_locator_t *loc = nullptr;
    metric_value_t value;
    const int code = decode_histogram_string(text.c_str(), &ts_ms, &loc, &value, true, nullptr, 0);
    if (code == 1) {  // the failed call, if any, was one that can be done without
      free(value.storage.v_string);
      orlith_metric_locator_deref(loc);
      if (!fail.hit()) break;
      continue;
    }
    EXPECT_TRUE(code == -8 || code == -9) << code;
    EXPECT_EQ(loc, nullptr);
    EXPECT_EQ(value.storage.v_string, nullptr);
    reached_the_copy = code == -9;
  }
  EXPECT_TRUE(reached_the_copy);
}

// ---- Against a naive reading of whole lines, over random edits

namespace {

// The code that a line should have, by its fields; 1 when all but the name's refusal is ruled out.
int naive_code(const std::string &line, bool bundled) {
  const std::vector<std::string_view> fields = line_fields(line, bundled, 4);
  if (const int code = code_of_missing(fields, 4); code != 1) return code;
  std::string uuid;
  return code_of_check(fields[1], &uuid);
}

}  // namespace

TEST(HistogramLine, AgreesWithANaiveReadingUnderRandomEdits) {
  LogCapture locator_log(&ml_error_ls, "test/locator");
  LogCapture log(&ruxo_error);
  const unsigned seed = 20260401;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string sample = "\t" + line_of("a`c_7`" + kUuid, "latency", some_histogram()) + "\n";
  int accepted = 0;
  for (int round = 0; round < 3000; ++round) {
    std::string line = sample;
    for (unsigned edit = random() % 4; edit > 0; --edit) {
      const size_t at = random() % line.size();
      const char byte = "\t\n`c_-.0Z\xff"[random() % 10];
      random() % 2 == 0 ? line.erase(at, 1) : line.insert(at, 1, byte);
    }
    for (const bool bundled : {true, false}) {
      const Decoded decoded(line, bundled);
      const int expected = naive_code(line, bundled);
      if (decoded.code == -8) {
        EXPECT_EQ(expected, 1) << line;
      } else {
        EXPECT_EQ(decoded.code, expected) << line;
      }
      accepted += decoded.code == 1;
    }
  }
  EXPECT_GT(accepted, 500);
}

// ---- The example of doc/histogram-line.md

TEST(HistogramLine, TheWorkedExampleOfTheDocument) {
  const Decoded line(
      "H1\t1700000000.5\thttp`c_1207`4c1f2a3b-0011-4d22-8e33-9a44bb55cc66\tlatency\taBACCsABCgI=\n");
  EXPECT_EQ(line.code, 1);
  EXPECT_EQ(line.ts_ms, 1700000000500U);
  EXPECT_EQ(line.account(), 1207);
  EXPECT_EQ(name_of(line.loc.get()), "latency");
  EXPECT_EQ(line.text, "aBACCsABCgI=\n");
}
