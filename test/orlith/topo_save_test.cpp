// `orlith topo save`: a document becomes the file in which a node keeps it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "ruxo/conf.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

const std::string kDocument =
    "<nodes write_copies='1' use_tls='true'><!-- mine -->"
    "<node id='7a0a2f4e-52a1-4f0b-9a3c-000000000001' weight='10' address='127.0.0.1' port='1' apiport='2'/>"
    "<node id='7a0a2f4e-52a1-4f0b-9a3c-000000000002' weight='7' address='127.0.0.2' port='3' apiport='4'/>"
    "</nodes>";
const std::string kSaved =
    "<nodes write_copies=\"1\">\n"
    "  <node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000001\"\n"
    "        address=\"127.0.0.1\"\n"
    "        apiport=\"2\"\n"
    "        port=\"1\"\n"
    "        weight=\"10\"/>\n"
    "  <node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000002\"\n"
    "        address=\"127.0.0.2\"\n"
    "        apiport=\"4\"\n"
    "        port=\"3\"\n"
    "        weight=\"7\"/>\n"
    "</nodes>\n";

struct TopoSave : testing::Test {
  TopoSave() {
    fs::create_directory(folder.file("kept"));
    ToolSession check;
    check.run({"topo", "check", document});
    signature = check.out.text.substr(check.out.text.size() - 65, 64);
  }
  ~TopoSave() override { ruxo_conf_unload(); }
  int save(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"topo", "save", "--config", config, document});
    return tool.run(arguments);
  }
  size_t file_count() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(folder.file("kept")), {}));
  }

  TempDir folder;
  ToolSession tool;
  const std::string document = folder.write("cluster.xml", kDocument);
  const std::string config = folder.write("orlith.conf", "<orlith><topology path='kept'/></orlith>");
  std::string signature;
};

TEST_F(TopoSave, RewritesTheFileOfTheSignature) {
  folder.write("kept/" + signature, "old");
  EXPECT_EQ(save({}), 0) << tool.err.text;
  EXPECT_EQ(tool.out.text, folder.file("kept/" + signature) + ": saved, 2 nodes\n");
  EXPECT_EQ(folder.read("kept/" + signature), kSaved);
  EXPECT_EQ(file_count(), 1U);
}

TEST_F(TopoSave, WhatIsSavedHasTheSameSignature) {
  EXPECT_EQ(save({"--create"}), 0) << tool.err.text;
  ToolSession check;
  EXPECT_EQ(check.run({"topo", "check", folder.file("kept/" + signature)}), 0);
  EXPECT_THAT(check.out.text, HasSubstr(signature));
}

TEST_F(TopoSave, WithoutAFileNothingIsMade) {
  EXPECT_EQ(save({}), exit_not_found);
  EXPECT_EQ(tool.err.text, "orlith topo save: error: " + folder.file("kept/" + signature) +
                               ": there is no such file to save over; make it with --create\n");
  EXPECT_EQ(file_count(), 0U);
}

TEST_F(TopoSave, MakesTheFileOnDemand) {
  EXPECT_EQ(save({"--create", "--json"}), 0) << tool.err.text;
  EXPECT_EQ(tool.out.text, "{\"file\":\"" + folder.file("kept/" + signature) + "\",\"signature\":\"" +
                               signature + "\",\"created\":true}\n");
  EXPECT_EQ(folder.read("kept/" + signature), kSaved);
  EXPECT_EQ(file_count(), 1U);
  ToolSession again;
  EXPECT_EQ(again.run({"topo", "save", "--create", "--json", "--config", config, document}), 0);
  EXPECT_THAT(again.out.text, HasSubstr("\"created\":false"));
}

TEST_F(TopoSave, TheFolderMayBeAbsoluteOrTheConfigurationsOwn) {
  fs::create_directory(folder.file("far"));
  folder.write("orlith.conf", "<orlith><topology path='" + folder.file("far") + "'/></orlith>");
  EXPECT_EQ(save({"--create"}), 0) << tool.err.text;
  EXPECT_EQ(folder.read("far/" + signature), kSaved);
  folder.write("orlith.conf", "<orlith/>");
  EXPECT_EQ(save({"--create"}), 0) << tool.err.text;
  EXPECT_EQ(folder.read(signature), kSaved);
}

TEST_F(TopoSave, AFolderThatIsMissingIsNotFound) {
  fs::remove(folder.file("kept"));
  EXPECT_EQ(save({"--create"}), exit_not_found);
  EXPECT_THAT(tool.err.text, HasSubstr(signature + ": cannot be made: No such file or directory"));
}

TEST_F(TopoSave, AFailedCreationLeavesNothing) {
  const faults::Fail full(faults::Call::fsync, ENOSPC, 1, 1);
  EXPECT_EQ(save({"--create"}), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr(": cannot be made: No space left on device"));
  EXPECT_EQ(file_count(), 0U);
}

TEST_F(TopoSave, AFailedSaveLeavesTheFileAsItWas) {
  folder.write("kept/" + signature, "old");
  const faults::Fail broken(faults::Call::rename, EIO);
  EXPECT_EQ(save({}), exit_failed);
  EXPECT_THAT(tool.err.text, HasSubstr(signature + ": cannot be rewritten; it is as it was"));
  EXPECT_EQ(folder.read("kept/" + signature), "old");
  EXPECT_EQ(file_count(), 1U);
}

TEST_F(TopoSave, BadConfigurationsAndDocumentsAreToldApart) {
  const auto code_of = [&](const std::string &conf, const std::string &file) {
    ToolSession one;
    const int code = one.run({"topo", "save", "--create", "--config", conf, file});
    EXPECT_EQ(one.out.text, "");
    return code;
  };
  EXPECT_EQ(code_of(folder.file("none"), document), exit_not_found);
  EXPECT_EQ(code_of(config, folder.file("none")), exit_not_found);
  EXPECT_EQ(code_of(folder.write("bad", "<orlith"), document), exit_damaged);
  EXPECT_EQ(code_of(config, folder.write("bad.xml", "<nodes/>")), exit_damaged);
  EXPECT_EQ(tool.run({"topo", "save", document}), exit_usage);
  EXPECT_EQ(file_count(), 0U);
}

}  // namespace
