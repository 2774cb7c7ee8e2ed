#include <gtest/gtest.h>

#include "ruxo/json.h"
#include "ruxo/log_private.h"

namespace {

ruxo::Record record(const char *stream, std::string message) {
  ruxo::Record result{};
  result.stream_name = stream;
  result.file = "util/oil.cpp";
  result.line = 42;
  result.time_ms = 1700000000007;  // 2023-11-14T22:13:20.007Z
  result.task = 1234;
  result.message = std::move(message);
  return result;
}

std::string logfmt(const ruxo::Record &line) {
  std::string out;
  ruxo::append_logfmt(out, line);
  return out;
}

std::string json(const ruxo::Record &line) {
  std::string out;
  ruxo::append_json(out, line);
  return out;
}

// What follows message= in logfmt, without the newline.
std::string logfmt_message(std::string message) {
  const std::string line = logfmt(record("error", std::move(message)));
  const size_t at = line.find("message=") + 8;
  return line.substr(at, line.size() - at - 1);
}

}  // namespace

TEST(LogFormat, LogfmtHasEveryFieldOnce) {
  EXPECT_EQ(logfmt(record("error/oil", "it failed\n")),
            "time=2023-11-14T22:13:20.007Z level=error stream=error/oil source=util/oil.cpp:42 task=1234 "
            "message=\"it failed\"\n");
}

TEST(LogFormat, JsonHasEveryFieldOnce) {
  EXPECT_EQ(json(record("error/oil", "it failed\n")),
            "{\"time\":\"2023-11-14T22:13:20.007Z\",\"level\":\"error\",\"stream\":\"error/oil\","
            "\"source\":\"util/oil.cpp:42\",\"task\":1234,\"message\":\"it failed\"}\n");
}

TEST(LogFormat, TheTraceIsThereWhenASpanWasActive) {
  ruxo::Record traced = record("error", "x\n");
  traced.trace_id = 0xab;
  EXPECT_NE(logfmt(traced).find(" task=1234 trace=00000000000000ab message="), std::string::npos);
  EXPECT_NE(json(traced).find(",\"task\":1234,\"trace\":\"00000000000000ab\",\"message\":"),
            std::string::npos);
}

TEST(LogFormat, TheLevelComesFromTheStreamsNameOrAFatalText) {
  const auto level = [](const char *stream, const char *message) {
    const std::string line = logfmt(record(stream, message));
    const size_t at = line.find("level=") + 6;
    return line.substr(at, line.find(' ', at) - at);
  };
  EXPECT_EQ(level("error", "x\n"), "error");
  EXPECT_EQ(level("error/oil", "x\n"), "error");
  EXPECT_EQ(level("debug", "x\n"), "debug");
  EXPECT_EQ(level("debug/oil", "x\n"), "debug");
  EXPECT_EQ(level("audit", "x\n"), "info");
  EXPECT_EQ(level("errors", "x\n"), "info");
  EXPECT_EQ(level("error", "[FATAL] assertion (x) at y:1 failed\n"), "fatal");
}

TEST(LogFormat, AMessageOfSeveralLinesStaysOneLine) {
  EXPECT_EQ(logfmt_message("one\ntwo\r\n\tthree\n"), R"("one\ntwo\r\n\tthree")");
  EXPECT_EQ(logfmt_message("no newline"), R"("no newline")");
  EXPECT_EQ(logfmt_message("two newlines\n\n"), R"("two newlines\n")");
  EXPECT_EQ(logfmt_message("\n"), R"("")");
}

TEST(LogFormat, ControlCharactersAreEscaped) {
  EXPECT_EQ(logfmt_message(std::string("nul \0 esc \x1b del \x7f\n", 17)),
            R"("nul \u0000 esc \u001b del \u007f")");
  EXPECT_EQ(logfmt_message("next line \xc2\x85 csi \xc2\x9b\n"), R"("next line \u0085 csi \u009b")");
  EXPECT_EQ(logfmt_message("no-break space \xc2\xa0\n"), "\"no-break space \xc2\xa0\"");
}

TEST(LogFormat, QuotesAndBackslashesAreEscaped) {
  EXPECT_EQ(logfmt_message("say \"no\" to C:\\x\n"), R"("say \"no\" to C:\\x")");
}

TEST(LogFormat, BytesThatAreNoUtf8AreEscaped) {
  EXPECT_EQ(logfmt_message("a\xff"
                           "b\xc3\n"),
            R"("a\xffb\xc3")");
  EXPECT_EQ(logfmt_message("\xed\xa0\x80\n"), R"("\xed\xa0\x80")") << "a surrogate";
  EXPECT_EQ(logfmt_message("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80\n"),
            "\"gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80\"");
}

TEST(LogFormat, OddStreamNamesAreQuoted) {
  EXPECT_NE(logfmt(record("a b=\"c\"", "x\n")).find(R"( stream="a b=\"c\"" source=)"), std::string::npos);
  EXPECT_NE(logfmt(record("", "x\n")).find(" stream=\"\" source="), std::string::npos);
}

TEST(LogFormat, EveryByteMakesOneValidJsonLine) {
  for (int byte = 0; byte < 256; ++byte) {
    SCOPED_TRACE(byte);
    const std::string line = json(record("error", std::string("<") + static_cast<char>(byte) + ">\n"));
    ASSERT_EQ(line.find('\n'), line.size() - 1);
    ruxo_json_object *const parsed = ruxo_json_parse_n(line.data(), line.size());
    ASSERT_NE(parsed, nullptr) << line;
    const char *const message = ruxo_json_string(ruxo_json_object_get(parsed, "message", nullptr), nullptr);
    char hex[16];
    snprintf(hex, sizeof hex, "<\\x%02x>", static_cast<unsigned>(byte));
    if (byte >= 0x80) {
      EXPECT_STREQ(message, hex);
    } else if (byte != 0) {
      EXPECT_EQ(message, std::string("<") + static_cast<char>(byte) + ">");
    }
    ruxo_json_free(parsed);
  }
}
