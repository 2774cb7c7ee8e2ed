#include "ruxo/conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/log.h"
#include "test/support/child_process.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

struct Free {
  void operator()(void *block) const { free(block); }
};
using Text = std::unique_ptr<char, Free>;

struct FreeList {
  void operator()(ruxo_conf_list_t *list) const { ruxo_conf_list_free(list); }
};
using List = std::unique_ptr<ruxo_conf_list_t, FreeList>;

List list_of(const char *xpath, const ruxo_conf_node_t *at = nullptr) {
  return List(ruxo_conf_list_new(at, xpath));
}

// The message; empty when it was loaded.
std::string load(const std::string &path) {
  char *err = const_cast<char *>("not set");
  const int result = ruxo_conf_load(path.c_str(), &err);
  const Text owner(err);
  EXPECT_EQ(result, err == nullptr ? 0 : -1);
  return err == nullptr ? "" : err;
}

std::string load_text(const std::string &text, const char *path = "/nowhere/main.xml") {
  char *err = const_cast<char *>("not set");
  const int result = ruxo_conf_load_text(text.data(), text.size(), path, &err);
  const Text owner(err);
  EXPECT_EQ(result, err == nullptr ? 0 : -1);
  return err == nullptr ? "" : err;
}

std::string value(const char *xpath, const ruxo_conf_node_t *at = nullptr) {
  return Text(ruxo_conf_get_string(at, xpath, "(none)")).get();
}

std::string file_name() {
  char name[4096] = "untouched";
  const bool known = ruxo_conf_config_filename(name, sizeof name);
  EXPECT_EQ(known, name[0] != '\0');
  return name;
}

class Conf : public ::testing::Test {
 protected:
  ~Conf() override { ruxo_conf_unload(); }
  LogCapture log_{&ruxo_error};
  TempDir dir_;
};

constexpr char kUuid[] = "1f846f26-0cfd-4df5-b4f1-e0930604e577";

}  // namespace

TEST_F(Conf, WithoutAConfigurationEverythingKeepsItsDefault) {
  int32_t i32 = -7;
  int64_t i64 = 60;
  uint64_t u64 = 61;
  double number = 0.5;
  ruxo_boolean flag = ruxo_true;
  ruxo_uuid_t uuid = {1, 2, 3};
  char text[8] = "default";
  EXPECT_EQ(ruxo_conf_get_int32(nullptr, "/a", &i32), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_int64(nullptr, "/a", &i64), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_uint64(nullptr, "/a", &u64), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_double(nullptr, "/a", &number), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_boolean(nullptr, "/a", &flag), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_uuid(nullptr, "/a", uuid), RUXO_CONF_ABSENT);
  EXPECT_EQ(ruxo_conf_get_text(nullptr, "/a", text, sizeof text), RUXO_CONF_ABSENT);
  EXPECT_EQ(i32, -7);
  EXPECT_EQ(i64, 60);
  EXPECT_EQ(u64, 61u);
  EXPECT_EQ(number, 0.5);
  EXPECT_TRUE(flag);
  EXPECT_EQ(uuid[1], 2);
  EXPECT_STREQ(text, "default");
  EXPECT_EQ(value("/a"), "(none)");
  EXPECT_EQ(ruxo_conf_get_string(nullptr, "/a", nullptr), nullptr);
  EXPECT_EQ(ruxo_conf_list_new(nullptr, "/a"), nullptr);
  EXPECT_EQ(file_name(), "");
  EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Conf, FindsValuesByXPath) {
  ASSERT_EQ(
      load_text("<orlith><topology path='t'/><rollup period='60'>a<b>b</b><![CDATA[<c>]]></rollup></orlith>"),
      "");
  EXPECT_EQ(value("/orlith/topology/@path"), "t");
  EXPECT_EQ(value("orlith/topology/@path"), "t") << "from the top";
  EXPECT_EQ(value("//@period"), "60");
  EXPECT_EQ(value("/orlith/rollup"), "ab<c>") << "all text below";
  EXPECT_EQ(value("count(/orlith/*)"), "2");
  EXPECT_EQ(value("boolean(/orlith/none)"), "false");
  EXPECT_EQ(value("concat(/orlith/topology/@path, '!')"), "t!");
  EXPECT_EQ(value("/orlith/none"), "(none)");
  EXPECT_EQ(value("/orlith/topology"), "") << "there, but empty";
}

TEST_F(Conf, OfSeveralMatchesTheFirstInTheDocumentCounts) {
  const char *const path = "/orlith/topology/@path|/orlith/include/topology/@path";
  dir_.write("inner.xml", "<topology path='inner'/>");
  dir_.write("main.xml", "<orlith><topology path='outer'/><include file='inner.xml'/></orlith>");
  ASSERT_EQ(load(dir_.file("main.xml")), "");
  EXPECT_EQ(value(path), "outer");
  dir_.write("main.xml", "<orlith><include file='inner.xml'/><topology path='outer'/></orlith>");
  ASSERT_EQ(load(dir_.file("main.xml")), "");
  EXPECT_EQ(value(path), "inner");
  dir_.write("main.xml", "<orlith><include file='inner.xml'/></orlith>");
  ASSERT_EQ(load(dir_.file("main.xml")), "");
  EXPECT_EQ(value(path), "inner");
}

TEST_F(Conf, ReadsWholeNumbersOfEachSize) {
  const struct {
    const char *text;
    ruxo_conf_result_t as_int32, as_int64, as_uint64;
  } cases[] = {{"0", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {"+7", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {" 007\n", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {"-1", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_INVALID},
               {"2147483647", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {"2147483648", RUXO_CONF_INVALID, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {"-2147483648", RUXO_CONF_FOUND, RUXO_CONF_FOUND, RUXO_CONF_INVALID},
               {"-2147483649", RUXO_CONF_INVALID, RUXO_CONF_FOUND, RUXO_CONF_INVALID},
               {"9223372036854775807", RUXO_CONF_INVALID, RUXO_CONF_FOUND, RUXO_CONF_FOUND},
               {"9223372036854775808", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_FOUND},
               {"18446744073709551615", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_FOUND},
               {"18446744073709551616", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"+", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"+-1", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"1 2", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"0x10", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"1.0", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID},
               {"60s", RUXO_CONF_INVALID, RUXO_CONF_INVALID, RUXO_CONF_INVALID}};
  for (const auto &c : cases) {
    ASSERT_EQ(load_text(std::string("<a>") + c.text + "</a>"), "");
    int32_t i32 = 42;
    int64_t i64 = 42;
    uint64_t u64 = 42;
    EXPECT_EQ(ruxo_conf_get_int32(nullptr, "/a", &i32), c.as_int32) << c.text;
    EXPECT_EQ(ruxo_conf_get_int64(nullptr, "/a", &i64), c.as_int64) << c.text;
    EXPECT_EQ(ruxo_conf_get_uint64(nullptr, "/a", &u64), c.as_uint64) << c.text;
    EXPECT_EQ(i32, c.as_int32 == RUXO_CONF_FOUND ? strtol(c.text, nullptr, 10) : 42);
    EXPECT_EQ(i64, c.as_int64 == RUXO_CONF_FOUND ? strtoll(c.text, nullptr, 10) : 42);
    EXPECT_EQ(u64, c.as_uint64 == RUXO_CONF_FOUND ? strtoull(c.text, nullptr, 10) : 42);
  }
}

TEST_F(Conf, ReadsFiniteNumbers) {
  const struct {
    const char *text;
    double expected;  // not-a-number: refused
  } cases[] = {{"0.25", 0.25}, {"-1e3", -1000}, {"+2", 2},      {" 5 ", 5},   {".5", .5},
               {"inf", NAN},   {"nan", NAN},    {"1e999", NAN}, {"1,5", NAN}, {"", NAN},
               {"0x1p3", NAN}, {"+-1", NAN},    {"1 2", NAN}};
  for (const auto &c : cases) {
    ASSERT_EQ(load_text(std::string("<a>") + c.text + "</a>"), "");
    double number = 42;
    const bool good = !std::isnan(c.expected);
    EXPECT_EQ(ruxo_conf_get_double(nullptr, "/a", &number), good ? RUXO_CONF_FOUND : RUXO_CONF_INVALID)
        << c.text;
    EXPECT_EQ(number, good ? c.expected : 42) << c.text;
  }
}

TEST_F(Conf, ReadsBooleans) {
  for (const char *text : {"true", "yes", "on", "1", " true\t"}) {
    ASSERT_EQ(load_text(std::string("<a>") + text + "</a>"), "");
    ruxo_boolean flag = ruxo_false;
    EXPECT_EQ(ruxo_conf_get_boolean(nullptr, "/a", &flag), RUXO_CONF_FOUND) << text;
    EXPECT_TRUE(flag) << text;
  }
  for (const char *text : {"false", "no", "off", "0"}) {
    ASSERT_EQ(load_text(std::string("<a>") + text + "</a>"), "");
    ruxo_boolean flag = ruxo_true;
    EXPECT_EQ(ruxo_conf_get_boolean(nullptr, "/a", &flag), RUXO_CONF_FOUND) << text;
    EXPECT_FALSE(flag) << text;
  }
  for (const char *text : {"", "True", "2", "truex", "maybe"}) {
    ASSERT_EQ(load_text(std::string("<a>") + text + "</a>"), "");
    ruxo_boolean flag = ruxo_true;
    EXPECT_EQ(ruxo_conf_get_boolean(nullptr, "/a", &flag), RUXO_CONF_INVALID) << text;
    EXPECT_TRUE(flag) << text;
  }
}

TEST_F(Conf, ReadsUuids) {
  ASSERT_EQ(load_text(std::string("<a id=' ") + kUuid + " ' bad='1f846f26'/>"), "");
  ruxo_uuid_t uuid = {9};
  EXPECT_EQ(ruxo_conf_get_uuid(nullptr, "/a/@bad", uuid), RUXO_CONF_INVALID);
  EXPECT_EQ(uuid[0], 9);
  EXPECT_EQ(ruxo_conf_get_uuid(nullptr, "/a/@id", uuid), RUXO_CONF_FOUND);
  char text[RUXO_UUID_STRING_SIZE];
  ruxo_uuid_unparse_lower(uuid, text);
  EXPECT_STREQ(text, kUuid);
}

TEST_F(Conf, TextFitsTheBufferOrIsRefused) {
  ASSERT_EQ(load_text("<a> 12345 </a>"), "");
  char text[9] = "before";
  EXPECT_EQ(ruxo_conf_get_text(nullptr, "/a", text, 7), RUXO_CONF_INVALID);
  EXPECT_STREQ(text, "before") << "not cut";
  EXPECT_EQ(ruxo_conf_get_text(nullptr, "/a", text, 0), RUXO_CONF_INVALID);
  EXPECT_EQ(ruxo_conf_get_text(nullptr, "/a", text, 8), RUXO_CONF_FOUND);
  EXPECT_STREQ(text, " 12345 ") << "as it stands";
}

TEST_F(Conf, AWrongValueIsLoggedWithItsPlace) {
  dir_.write("inner.xml", "<more>\n<n\n  value='many\x7f'/></more>");
  dir_.write("main.xml", "<a>\n\n<n>few</n><include file='inner.xml'/></a>");
  ASSERT_EQ(load(dir_.file("main.xml")), "");
  int32_t i32 = 1;
  uint64_t u64 = 1;
  EXPECT_EQ(ruxo_conf_get_int32(nullptr, "/a/n", &i32), RUXO_CONF_INVALID);
  EXPECT_EQ(ruxo_conf_get_uint64(nullptr, "//n/@value", &u64), RUXO_CONF_INVALID);
  EXPECT_EQ(ruxo_conf_get_uint64(nullptr, "string(/a/n)", &u64), RUXO_CONF_INVALID);
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(dir_.file("main.xml") + ": line 3: \"/a/n\" is \"few\", expected a whole number from "
                                          "-2147483648 to 2147483647\n",
                  dir_.file("inner.xml") + ": line 3: \"//n/@value\" is \"many\\x7f\", expected a whole "
                                           "number of 64 bits that is not negative\n",
                  dir_.file("main.xml") + ": \"string(/a/n)\" is \"few\", expected a whole number of 64 "
                                          "bits that is not negative\n"));
}

TEST_F(Conf, ALongWrongValueIsCutInTheLog) {
  ASSERT_EQ(load_text("<a>" + std::string(100000, 'x') + "</a>"), "");
  double number = 1;
  EXPECT_EQ(ruxo_conf_get_double(nullptr, "/a", &number), RUXO_CONF_INVALID);
  ASSERT_EQ(log_.lines().size(), 1u);
  EXPECT_LT(log_.lines()[0].size(), 200u);
  EXPECT_THAT(log_.lines()[0], HasSubstr("xxx...\", expected a finite number\n"));
}

TEST_F(Conf, AnExpressionThatIsNoneFindsNothingValid) {
  ASSERT_EQ(load_text("<a>1</a>"), "");
  int32_t i32 = 5;
  for (const char *xpath : {"", "/a[", "a b", "none()", "$x", "p:a"}) {
    log_.clear();
    testing::internal::CaptureStderr();
    EXPECT_EQ(ruxo_conf_get_int32(nullptr, xpath, &i32), RUXO_CONF_INVALID) << xpath;
    EXPECT_EQ(list_of(xpath), nullptr) << xpath;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the library prints nothing by itself";
    const std::string line = std::string("\"") + xpath + "\" is no XPath expression, or takes too long\n";
    EXPECT_THAT(log_.lines(), ElementsAre(line, line));
  }
  log_.clear();
  EXPECT_EQ(list_of("count(/a)"), nullptr) << "a number is no node";
  EXPECT_EQ(log_.lines().size(), 1u);
  EXPECT_EQ(i32, 5);
}

TEST_F(Conf, AnExpressionThatTakesTooLongIsStopped) {
  std::string many;
  for (int i = 0; i < 3000; ++i) many += "<b/>";
  ASSERT_EQ(load_text("<a>" + many + "</a>"), "");
  EXPECT_EQ(value("count(/a/b)"), "3000");
  EXPECT_EQ(value("count(//b[//b[//b[//b]]])"), "(none)");
  EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(Conf, ListsNodesAndLooksUpFromThem) {
  ASSERT_EQ(load_text("<a>\n<b n='1'><c>x</c></b>\n<b n='2'/>\n<d/></a>"), "");
  const List bs = list_of("/a/b");
  ASSERT_EQ(ruxo_conf_list_size(bs.get()), 2u);
  const ruxo_conf_node_t *const first = ruxo_conf_list_at(bs.get(), 0);
  const ruxo_conf_node_t *const second = ruxo_conf_list_at(bs.get(), 1);
  EXPECT_EQ(ruxo_conf_list_at(bs.get(), 2), nullptr);
  EXPECT_STREQ(ruxo_conf_node_name(first), "b");
  EXPECT_STREQ(ruxo_conf_node_file(first), "/nowhere/main.xml");
  EXPECT_EQ(ruxo_conf_node_line(first), 2);
  EXPECT_EQ(ruxo_conf_node_line(second), 3);
  EXPECT_EQ(value("@n", first), "1");
  EXPECT_EQ(value("@n", second), "2");
  EXPECT_EQ(value("c", first), "x");
  EXPECT_EQ(value("c", second), "(none)");
  EXPECT_EQ(value("../d", second), "");
  EXPECT_EQ(value("/a/b/c", second), "x") << "absolute expressions start at the top";
  const List attributes = list_of("@*", second);
  ASSERT_EQ(ruxo_conf_list_size(attributes.get()), 1u);
  EXPECT_STREQ(ruxo_conf_node_name(ruxo_conf_list_at(attributes.get(), 0)), "n");
  EXPECT_EQ(ruxo_conf_node_line(ruxo_conf_list_at(attributes.get(), 0)), 3);
  EXPECT_EQ(value(".", ruxo_conf_list_at(attributes.get(), 0)), "2");
  EXPECT_EQ(value("../../b/@n", ruxo_conf_list_at(attributes.get(), 0)), "1");
  EXPECT_EQ(ruxo_conf_list_size(nullptr), 0u);
  EXPECT_EQ(ruxo_conf_list_at(nullptr, 0), nullptr);
  ruxo_conf_list_free(nullptr);
}

TEST_F(Conf, ListsHoldElementsAndAttributesOnly) {
  ASSERT_EQ(load_text("<a xmlns:p='urn:p'>text<!-- c --><?i i?><b/></a>"), "");
  EXPECT_EQ(ruxo_conf_list_size(list_of("/a/node()").get()), 1u);
  EXPECT_EQ(list_of("/"), nullptr);
  EXPECT_EQ(list_of("/a/namespace::*"), nullptr);
  EXPECT_EQ(list_of("/a/text()"), nullptr);
  EXPECT_EQ(value("/a/namespace::p"), "urn:p");
  EXPECT_EQ(value("/a/text()"), "text");
}

TEST_F(Conf, AnAttributeBehindManyOthersKnowsItsLine) {
  ASSERT_EQ(load_text("<x>\n<a b='' c='' d='' e='' f='' g='' h='' i=''/></x>"), "");
  const List found = list_of("//@i");
  EXPECT_EQ(ruxo_conf_node_line(ruxo_conf_list_at(found.get(), 0)), 2);
  ASSERT_EQ(load_text("<x>" + std::string(70000, '\n') + "<a/></x>"), "");
  const List far = list_of("//a");
  EXPECT_EQ(ruxo_conf_node_line(ruxo_conf_list_at(far.get(), 0)), 70001);
}

TEST_F(Conf, AListKeepsItsConfigurationThroughAReload) {
  ASSERT_EQ(load_text("<a><b n='old'/></a>"), "");
  const List bs = list_of("/a/b");
  ASSERT_EQ(load_text("<a><b n='new'/></a>", "/elsewhere/other.xml"), "");
  const ruxo_conf_node_t *const b = ruxo_conf_list_at(bs.get(), 0);
  EXPECT_EQ(value("@n", b), "old");
  EXPECT_EQ(value("/a/b/@n", b), "old");
  EXPECT_STREQ(ruxo_conf_node_file(b), "/nowhere/main.xml");
  EXPECT_EQ(value("/a/b/@n"), "new");
  EXPECT_EQ(file_name(), "/elsewhere/other.xml");
  ruxo_conf_unload();
  EXPECT_EQ(value("@n", b), "old");
  EXPECT_EQ(value("/a/b/@n"), "(none)");
  EXPECT_EQ(file_name(), "");
}

TEST_F(Conf, AFailedLoadChangesNothing) {
  ASSERT_EQ(load_text("<a>1</a>"), "");
  EXPECT_NE(load_text("<a>"), "");
  EXPECT_NE(load("/nowhere/at/all.xml"), "");
  EXPECT_EQ(value("/a"), "1");
  EXPECT_EQ(file_name(), "/nowhere/main.xml");
}

TEST_F(Conf, TheFileNameIsAbsoluteAndFitsOrIsRefused) {
  dir_.write("main.xml", "<a/>");
  char before[4096];
  ASSERT_NE(getcwd(before, sizeof before), nullptr);
  ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  EXPECT_EQ(load("main.xml"), "");
  ASSERT_EQ(chdir("/"), 0);
  const std::string expected = dir_.file("main.xml");
  EXPECT_EQ(file_name(), expected);
  std::string room(expected.size() + 1, '~');
  EXPECT_FALSE(ruxo_conf_config_filename(room.data(), expected.size()));
  EXPECT_EQ(room[0], '\0');
  EXPECT_EQ(room[1], '~');
  EXPECT_TRUE(ruxo_conf_config_filename(room.data(), expected.size() + 1));
  EXPECT_STREQ(room.c_str(), expected.c_str());
  EXPECT_FALSE(ruxo_conf_config_filename(nullptr, 0));
  ASSERT_EQ(chdir(before), 0);
}

// ---- What is refused ----

TEST_F(Conf, SaysWhatIsWrongWithAFile) {
  const std::string missing = dir_.file("missing.xml");
  EXPECT_EQ(load(missing), missing + ": No such file or directory");
  EXPECT_EQ(load(dir_.path()), dir_.path() + ": not a regular file");
  EXPECT_EQ(load("/dev/zero"), "/dev/zero: not a regular file");
  const std::string pipe = dir_.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(load(pipe), pipe + ": not a regular file") << "and does not wait for a writer";
  const std::string file = dir_.write("main.xml", "");
  EXPECT_EQ(load(file), file + ": the file is empty");
  dir_.write("main.xml", "key = value\n");
  EXPECT_EQ(load(file), file + ": line 1: Start tag expected, '<' not found");
  dir_.write("main.xml", "<a>\n<b>\n</a>\n");
  EXPECT_EQ(load(file), file + ": line 3: Opening and ending tag mismatch: b line 2 and a");
  dir_.write("main.xml", "<a/>\n<b/>\n");
  EXPECT_THAT(load(file), StartsWith(file + ": line 2: Extra content"));
  dir_.write("main.xml", std::string("<a>\0</a>", 8));
  EXPECT_EQ(load(file), file + ": NUL byte at offset 3");
  dir_.write("main.xml", "<a>\xff</a>");
  EXPECT_THAT(load(file), StartsWith(file + ": line 1: Input is not proper UTF-8"));
  dir_.write("main.xml", "<a>&none;</a>");
  EXPECT_EQ(load(file), file + ": line 1: Entity 'none' not defined");
  EXPECT_EQ(load(""), "the configuration file has no name");
}

TEST_F(Conf, NullTakesTheMessageOfNobody) {
  EXPECT_EQ(ruxo_conf_load("/nowhere/at/all.xml", nullptr), -1);
  EXPECT_EQ(ruxo_conf_load_text("<a/>", 4, "x", nullptr), 0);
}

TEST_F(Conf, RefusesADocumentType) {
  const std::string expected = "/nowhere/main.xml: line 2: a document type declaration is not allowed";
  EXPECT_EQ(load_text("\n<!DOCTYPE a><a/>"), expected);
  EXPECT_EQ(load_text("\n<!DOCTYPE a SYSTEM 'http://localhost/a.dtd'><a/>"), expected);
  EXPECT_EQ(load_text("\n<!DOCTYPE a [<!ENTITY x SYSTEM 'file:///etc/passwd'>]><a>&x;</a>"), expected);
  std::string laughs = "\n<!DOCTYPE a [<!ENTITY l0 'lol'>";
  for (int i = 1; i < 20; ++i) {
    const std::string below = "&l" + std::to_string(i - 1) + ";";
    laughs += "<!ENTITY l" + std::to_string(i) + " '" + below + below + below + below + "'>";
  }
  EXPECT_EQ(load_text(laughs + "]><a>&l19;</a>"), expected);
}

TEST_F(Conf, KnowsTheFiveEntitiesOfXmlAndCharactersByNumber) {
  ASSERT_EQ(load_text("<a b='&lt;&amp;&quot;'>&apos;&gt;&#x20ac;</a>"), "");
  EXPECT_EQ(value("/a/@b"), "<&\"");
  EXPECT_EQ(value("/a"), "'>\xe2\x82\xac");
}

TEST_F(Conf, ReadsOtherEncodingsOfOneByte) {
  ASSERT_EQ(load_text("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xe9</a>"), "");
  EXPECT_EQ(value("/a"), "\xc3\xa9");
}

TEST_F(Conf, RefusesWhatIsTooLarge) {
  const std::string fits = "<a>" + std::string(RUXO_CONF_MAX_BYTES - 7, ' ') + "</a>";
  const std::string file = dir_.write("main.xml", fits);
  EXPECT_EQ(load(file), "");
  EXPECT_EQ(load_text(fits), "");
  dir_.write("main.xml", fits + "\n");
  EXPECT_EQ(load(file), file + ": the configuration is larger than 1048576 bytes");
  EXPECT_EQ(load_text(fits + "\n"), "/nowhere/main.xml: the configuration is larger than 1048576 bytes");
}

TEST_F(Conf, RefusesDeepNesting) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  EXPECT_THAT(load_text(deep), HasSubstr("Excessive depth in document"));
}
