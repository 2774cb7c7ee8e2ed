// Includes of configuration files, and look-ups of many threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/conf.h"
#include "test/support/child_process.h"
#include "test/support/temp_dir.h"

namespace {

using ::testing::EndsWith;
using ::testing::StartsWith;

std::string load(const std::string &path) {
  char *err = nullptr;
  const int result = ruxo_conf_load(path.c_str(), &err);
  const std::string message = err == nullptr ? "" : err;
  EXPECT_EQ(result, err == nullptr ? 0 : -1);
  free(err);
  return message;
}

std::string value(const char *xpath) {
  char *const text = ruxo_conf_get_string(nullptr, xpath, "(none)");
  const std::string result = text;
  free(text);
  return result;
}

class ConfInclude : public ::testing::Test {
 protected:
  ~ConfInclude() override { ruxo_conf_unload(); }
  std::string write_main(const std::string &text) { return dir_.write("main.xml", text); }
  TempDir dir_;
};

}  // namespace

TEST_F(ConfInclude, TheRootHangsBelowTheInclude) {
  dir_.write("t.xml", "<topology path='t'/>");
  ASSERT_EQ(load(write_main("<orlith>\n<include file='t.xml'/>\n</orlith>")), "");
  EXPECT_EQ(value("/orlith/include/topology/@path"), "t");
}

TEST_F(ConfInclude, OfAWholeConfigurationItsContentDoes) {
  dir_.write("whole.xml", "<orlith>\n<topology path='t'/>text<rollup/></orlith>");
  ASSERT_EQ(load(write_main("<orlith><include file='whole.xml'/></orlith>")), "");
  EXPECT_EQ(value("/orlith/include/topology/@path"), "t");
  EXPECT_EQ(value("count(/orlith/include/*)"), "2");
  EXPECT_EQ(value("count(//orlith)"), "1");
}

TEST_F(ConfInclude, FilesAreLookedForBesideTheFileThatIncludesThem) {
  ASSERT_EQ(mkdir(dir_.file("sub").c_str(), 0700), 0);
  dir_.write("sub/one.xml", "<one><include file='two.xml'/><include file='../three.xml'/></one>");
  dir_.write("sub/two.xml", "<two v='2'/>");
  dir_.write("three.xml", "<three v='3'/>");
  ASSERT_EQ(load(write_main("<a><include file='sub/one.xml'/></a>")), "");
  EXPECT_EQ(value("/a/include/one/include/two/@v"), "2");
  EXPECT_EQ(value("/a/include/one/include/three/@v"), "3");
  ASSERT_EQ(load(write_main("<a><include file='" + dir_.file("three.xml") + "'/></a>")), "");
  EXPECT_EQ(value("/a/include/three/@v"), "3");
}

TEST_F(ConfInclude, ALoadedTextIncludesFilesBesideItsName) {
  dir_.write("t.xml", "<t v='1'/>");
  const std::string text = "<a><include file='t.xml'/></a>";
  EXPECT_EQ(ruxo_conf_load_text(text.data(), text.size(), dir_.file("none.xml").c_str(), nullptr), 0);
  EXPECT_EQ(value("/a/include/t/@v"), "1");
}

TEST_F(ConfInclude, NodesKnowTheirFileAndLine) {
  dir_.write("outer.xml", "<outer>\n\n<include file='inner.xml'/>\n<x/></outer>");
  dir_.write("inner.xml", "<inner>\n<x/></inner>");
  ASSERT_EQ(load(write_main("<a><include file='outer.xml'/>\n<x/></a>")), "");
  ruxo_conf_list_t *const xs = ruxo_conf_list_new(nullptr, "//x|//include");
  ASSERT_EQ(ruxo_conf_list_size(xs), 5u);
  const struct {
    const char *name, *file;
    long line;
  } expected[] = {{"include", "main.xml", 1},
                  {"include", "outer.xml", 3},
                  {"x", "inner.xml", 2},
                  {"x", "outer.xml", 4},
                  {"x", "main.xml", 2}};
  for (size_t i = 0; i < 5; ++i) {
    const ruxo_conf_node_t *const node = ruxo_conf_list_at(xs, i);
    EXPECT_STREQ(ruxo_conf_node_name(node), expected[i].name);
    EXPECT_EQ(ruxo_conf_node_file(node), dir_.file(expected[i].file)) << i;
    EXPECT_EQ(ruxo_conf_node_line(node), expected[i].line) << i;
  }
  ruxo_conf_list_free(xs);
}

TEST_F(ConfInclude, AFileMayBeIncludedTwice) {
  dir_.write("t.xml", "<t/>");
  ASSERT_EQ(load(write_main("<a><include file='t.xml'/><b><include file='t.xml'/></b></a>")), "");
  EXPECT_EQ(value("count(//t)"), "2");
}

TEST_F(ConfInclude, NamespacesComeAlong) {
  dir_.write("p.xml", "<a xmlns:p='urn:p'><p:b>x</p:b></a>");
  ASSERT_EQ(load(write_main("<a><include file='p.xml'/></a>")), "");
  EXPECT_EQ(value("//*[namespace-uri()='urn:p']"), "x");
}

TEST_F(ConfInclude, OnlyThePlainElementIncludes) {
  ASSERT_EQ(
      load(write_main("<a xmlns:p='urn:p'><p:include file='none.xml'/><included file='none.xml'/>"
                      "<i:include xmlns:i='http://www.w3.org/2001/XInclude' href='/etc/hostname'/></a>")),
      "");
  EXPECT_EQ(value("/a"), "");
}

TEST_F(ConfInclude, SaysWhichIncludeIsWrong) {
  const std::string main = write_main("<a>\n<include file='none.xml'/></a>");
  const std::string at = main + ": line 2: ";
  EXPECT_EQ(load(main), at + "cannot include \"" + dir_.file("none.xml") + "\": No such file or directory");
  write_main("<a>\n<include file='.'/></a>");
  EXPECT_EQ(load(main), at + "cannot include \"" + dir_.path() + "/.\": not a regular file");
  write_main("<a>\n<include/></a>");
  EXPECT_EQ(load(main), at + "an include needs the attribute \"file\"");
  write_main("<a>\n<include file=''/></a>");
  EXPECT_EQ(load(main), at + "an include needs the attribute \"file\"");
  write_main("<a>\n<include file='t.xml'><t/></include></a>");
  EXPECT_EQ(load(main), at + "an include has no content of its own");
  write_main("<a>\n<include file='t.xml'>text</include></a>");
  EXPECT_EQ(load(main), at + "an include has no content of its own");
  dir_.write("t.xml", "<t>\n\n</u>");
  write_main("<a>\n<include file='t.xml'> <!-- a comment is none --> </include></a>");
  EXPECT_EQ(load(main), dir_.file("t.xml") + ": line 3: Opening and ending tag mismatch: t line 1 and u");
  dir_.write("t.xml", "<!DOCTYPE t><t/>");
  EXPECT_EQ(load(main), dir_.file("t.xml") + ": line 1: a document type declaration is not allowed");
  dir_.write("t.xml", "");
  EXPECT_EQ(load(main), dir_.file("t.xml") + ": the file is empty");
}

TEST_F(ConfInclude, RefusesCycles) {
  const std::string main = write_main("<a><include file='main.xml'/></a>");
  EXPECT_EQ(load(main), main + ": line 1: \"" + main + "\" includes itself");
  dir_.write("b.xml", "<b>\n<include file='c.xml'/></b>");
  dir_.write("c.xml", "<c><include file='b.xml'/></c>");
  write_main("<a><include file='b.xml'/></a>");
  EXPECT_EQ(load(main), dir_.file("c.xml") + ": line 1: \"" + dir_.file("b.xml") + "\" includes itself");
  // By another name.
  ASSERT_EQ(symlink("c.xml", dir_.file("link.xml").c_str()), 0);
  dir_.write("b.xml", "<b><include file='link.xml'/></b>");
  dir_.write("c.xml", "<c><include file='./b.xml'/></c>");
  EXPECT_EQ(load(main), dir_.path() + "/link.xml: line 1: \"" + dir_.path() + "/./b.xml\" includes itself");
}

TEST_F(ConfInclude, RefusesDeepNesting) {
  for (int i = 0; i < RUXO_CONF_MAX_INCLUDE_DEPTH; ++i) {
    dir_.write(std::to_string(i) + ".xml", "<n><include file='" + std::to_string(i + 1) + ".xml'/></n>");
  }
  const std::string last = dir_.write(std::to_string(RUXO_CONF_MAX_INCLUDE_DEPTH) + ".xml", "<last v='1'/>");
  const std::string first = dir_.file("0.xml");
  ASSERT_EQ(load(first), "");
  EXPECT_EQ(value("//last/@v"), "1");
  EXPECT_EQ(load(write_main("<a><include file='0.xml'/></a>")),
            dir_.file("7.xml") + ": line 1: includes are nested deeper than 8");
}

TEST_F(ConfInclude, RefusesTooManyIncludes) {
  dir_.write("t.xml", "<t/>");
  std::string includes;
  for (int i = 0; i < RUXO_CONF_MAX_INCLUDES; ++i) includes += "<include file='t.xml'/>";
  ASSERT_EQ(load(write_main("<a>" + includes + "</a>")), "");
  EXPECT_EQ(value("count(//t)"), "1000");
  const std::string main = write_main("<a>" + includes + "<include file='t.xml'/></a>");
  EXPECT_EQ(load(main), main + ": line 1: there are more than 1000 includes");
}

TEST_F(ConfInclude, TheLimitOnBytesIsForAllFilesTogether) {
  dir_.write("half.xml", "<t>" + std::string(RUXO_CONF_MAX_BYTES / 2, ' ') + "</t>");
  ASSERT_EQ(load(write_main("<a><include file='half.xml'/></a>")), "");
  const std::string main = write_main("<a><include file='half.xml'/>\n<include file='half.xml'/></a>");
  EXPECT_EQ(load(main), main + ": line 2: cannot include \"" + dir_.file("half.xml") +
                            "\": the configuration is larger than 1048576 bytes");
  // Each file small, but each including the next ten times over.
  for (int i = 0; i < 6; ++i) {
    std::string ten;
    for (int k = 0; k < 10; ++k) ten += "<include file='" + std::to_string(i + 1) + ".xml'/>";
    dir_.write(std::to_string(i) + ".xml", "<t>" + ten + "</t>");
  }
  dir_.write("6.xml", "<t/>");
  EXPECT_THAT(load(dir_.file("0.xml")), EndsWith("there are more than 1000 includes"));
}

// doc/configuration.md: the first two pieces of XML are the file and what it includes.
TEST_F(ConfInclude, TheDocumentedExampleIsWhatItSays) {
  std::ifstream page(ORLITH_SOURCE_DIR "/doc/configuration.md");
  const std::string text{std::istreambuf_iterator<char>(page), {}};
  const auto piece_behind = [&](size_t from) {
    const size_t start = text.find("```xml\n", from) + 7;
    return text.substr(start, text.find("```", start) - start);
  };
  const std::string main = piece_behind(0);
  dir_.write("node.xml", piece_behind(text.find(main) + main.size()));
  ASSERT_EQ(load(write_main(main)), "");
  EXPECT_EQ(value("/orlith/topology/@path"), "topologies");
  EXPECT_EQ(value("/orlith/include/node/@id"), "1f846f26-0cfd-4df5-b4f1-e0930604e577");
  EXPECT_EQ(value("/orlith/topology/@path|/orlith/include/topology/@path"), "topologies");
  EXPECT_EQ(value("count(/orlith/*)"), "2");
}

TEST_F(ConfInclude, ManyThreadsReadWhileOneReloads) {
  dir_.write("even.xml", "<a><n v='2'/><n v='4'/></a>");
  dir_.write("odd.xml", "<a><n v='1'/><n v='3'/></a>");
  ASSERT_EQ(load(dir_.file("even.xml")), "");
  std::atomic<bool> done{false};
  std::atomic<int> mixed{0}, lists{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!done) {
        ruxo_conf_list_t *const ns = ruxo_conf_list_new(nullptr, "/a/n");
        int64_t first = 0, second = 0;
        ruxo_conf_get_int64(ruxo_conf_list_at(ns, 0), "@v", &first);
        ruxo_conf_get_int64(ruxo_conf_list_at(ns, 0), "../n[2]/@v", &second);
        mixed += second != first + 2;
        ruxo_conf_list_free(ns);
        char name[4096];
        ruxo_conf_config_filename(name, sizeof name);
        ++lists;
      }
    });
  }
  for (int i = 0; i < 200 || lists < 100; ++i) EXPECT_EQ(load(dir_.file(i % 2 ? "even.xml" : "odd.xml")), "");
  done = true;
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(mixed, 0);
}

TEST_F(ConfInclude, AForkedChildCanLookThingsUp) {
  FORKS_WITH_THREADS();
  ASSERT_EQ(load(write_main("<a v='1'/>")), "");
  std::atomic<bool> done{false};
  std::thread reader([&] {
    char name[4096];
    while (!done) ruxo_conf_config_filename(name, sizeof name);
  });
  for (int i = 0; i < 20; ++i) {
    const ChildResult child = run_in_child([] {
      char name[4096];
      if (!ruxo_conf_config_filename(name, sizeof name) || value("/a/@v") != "1") _exit(1);
    });
    EXPECT_TRUE(child.exited_with(0));
  }
  done = true;
  reader.join();
}
