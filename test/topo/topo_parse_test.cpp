#include "test/support/temp_dir.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;

std::string parse_error(std::string_view bytes) {
  char *err = nullptr;
  const DocPtr doc(topo_parse_document(bytes.data(), bytes.size(), &err));
  EXPECT_EQ(doc, nullptr);
  return take(err);
}

TEST(TopoParseDocument, GivesTheDocument) {
  const std::string xml = "<nodes><node/></nodes>";
  char *err = reinterpret_cast<char *>(1);
  const DocPtr doc(topo_parse_document(xml.data(), xml.size(), &err));
  ASSERT_NE(doc, nullptr);
  EXPECT_EQ(err, nullptr);
  EXPECT_STREQ(reinterpret_cast<const char *>(xmlDocGetRootElement(doc.get())->name), "nodes");
}

TEST(TopoParseDocument, FaultsNameTheLine) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(parse_error("<nodes>\n<node>\n</nodes>"),
            "line 3: Opening and ending tag mismatch: node line 2 and nodes");
  EXPECT_EQ(parse_error("no xml"), "line 1: Start tag expected, '<' not found");
  EXPECT_EQ(parse_error(""), "the document is empty");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(TopoParseDocument, NoMessageIsAskedFor) {
  EXPECT_EQ(topo_parse_document("<", 1, nullptr), nullptr);
}

TEST(TopoParseDocument, RefusesNuls) {
  EXPECT_EQ(parse_error(std::string_view("<nodes>\0</nodes>", 16)), "NUL byte at offset 7");
}

TEST(TopoParseDocument, RefusesDocumentTypes) {
  const std::string refused = "a document type declaration is not allowed";
  EXPECT_EQ(parse_error("<!DOCTYPE nodes><nodes/>"), refused);
  EXPECT_EQ(parse_error("<!DOCTYPE nodes SYSTEM \"file:///etc/passwd\"><nodes/>"), refused);
  EXPECT_EQ(
      parse_error("<!DOCTYPE nodes [<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;\">]><nodes x=\"&b;\"/>"),
      refused);
  EXPECT_EQ(
      parse_error(
          "<?xml version=\"1.0\"?>\n<!DOCTYPE nodes [ <!ENTITY % x SYSTEM \"http://127.0.0.1:1/\"> %x; ]>"
          "<nodes/>"),
      refused);
}

TEST(TopoParseDocument, SizeLimitIsExact) {
  const std::string head = "<nodes>";
  const std::string tail = "</nodes>";
  std::string largest = head + std::string(TOPO_DOCUMENT_MAX_BYTES - head.size() - tail.size(), ' ') + tail;
  EXPECT_NE(parse(largest), nullptr);
  largest.insert(head.size(), 1, ' ');
  EXPECT_EQ(parse_error(largest), "the document is larger than 4194304 bytes");
}

TEST(TopoParseDocumentFile, ReadsAFile) {
  const TempDir dir;
  char *err = nullptr;
  const DocPtr doc(topo_parse_document_file(dir.write("t.xml", "<nodes/>").c_str(), &err));
  EXPECT_NE(doc, nullptr) << take(err);
}

TEST(TopoParseDocumentFile, MessagesBeginWithThePath) {
  const TempDir dir;
  const auto error_of = [](const std::string &path) {
    char *err = nullptr;
    EXPECT_EQ(topo_parse_document_file(path.c_str(), &err), nullptr);
    return take(err);
  };
  EXPECT_EQ(error_of(dir.file("none")), dir.file("none") + ": No such file or directory");
  EXPECT_EQ(error_of(dir.path()), dir.path() + ": Is a directory");
  const std::string empty = dir.write("empty", "");
  EXPECT_EQ(error_of(empty), empty + ": the document is empty");
  const std::string broken = dir.write("broken", "<a>\n<b></a>");
  EXPECT_EQ(error_of(broken), broken + ": line 2: Opening and ending tag mismatch: b line 2 and a");
  const std::string large = dir.write("large", std::string(TOPO_DOCUMENT_MAX_BYTES + 1, ' '));
  EXPECT_EQ(error_of(large), large + ": the document is larger than 4194304 bytes");
}

}  // namespace
