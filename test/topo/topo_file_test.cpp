#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include "ruxo/conf.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;
using faults::Call;
using testing::ElementsAre;
using testing::UnorderedElementsAre;

// A configuration file in a folder of the test's, and beside it the folder of topologies.
class TopoFile : public testing::Test {
 protected:
  TopoFile() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::filesystem::create_directory(dir.file("topologies"));
    configure("<orlith><topology path=\"topologies\"/></orlith>");
  }
  ~TopoFile() override { ruxo_conf_unload(); }

  void configure(const std::string &text) {
    const std::string path = dir.write("node.conf", text);
    ASSERT_EQ(ruxo_conf_load(path.c_str(), nullptr), 0) << text;
  }
  static std::string found(const std::string &name) {
    char *path = topo_find_topo_file(name.c_str());
    const std::string result = path == nullptr ? "none" : path;
    free(path);
    return result;
  }
  std::string name_of(const TopoHandle &tc) const { return std::string("topologies/") + tc->hex_signature; }
  // The file as it was before: any text will do.
  void write_old(const TopoHandle &tc) const { dir.write(name_of(tc), "old"); }
  std::string content(const TopoHandle &tc) const { return dir.read(name_of(tc)); }
  std::vector<std::string> files() const {
    std::vector<std::string> result;
    for (const auto &entry : std::filesystem::directory_iterator(dir.file("topologies"))) {
      result.push_back(entry.path().filename());
    }
    return result;
  }

  const TempDir dir;
  const std::string signature = std::string(64, 'a');
};
using TopoFileDeathTest = TopoFile;

std::string entry(const std::string &id, const std::string &address, const std::string &rest) {
  return "  <node id=\"" + id + "\"\n        address=\"" + address +
         "\"\n        apiport=\"8113\"\n        port=\"8112\"\n" + rest;
}

// ---- Finding ----

TEST_F(TopoFile, ARelativeFolderIsBesideTheConfigurationFile) {
  EXPECT_EQ(found(signature), "none");
  dir.write("topologies/" + signature, "");
  EXPECT_EQ(found(signature), dir.file("topologies/" + signature));
}

TEST_F(TopoFile, AnAbsoluteFolderIsTakenAsItStands) {
  const TempDir elsewhere;
  elsewhere.write(signature, "");
  configure("<orlith><topology path=\"" + elsewhere.path() + "\"/></orlith>");
  EXPECT_EQ(found(signature), elsewhere.file(signature));
}

TEST_F(TopoFile, WithoutAFolderItIsThatOfTheConfigurationFile) {
  dir.write(signature, "");
  for (const char *text :
       {"<orlith/>", "<orlith><topology/></orlith>", "<orlith><topology path=\"\"/></orlith>"}) {
    configure(text);
    EXPECT_TRUE(std::filesystem::equivalent(found(signature), dir.file(signature))) << text;
  }
}

TEST_F(TopoFile, TheFolderMayBeConfiguredInAnIncludedFile) {
  dir.write("topologies/" + signature, "");
  std::filesystem::create_directory(dir.file("parts"));
  dir.write("parts/topology.conf", "<topology path=\"topologies\"/>");
  configure("<orlith><include file=\"parts/topology.conf\"/></orlith>");
  EXPECT_EQ(found(signature), dir.file("topologies/" + signature))
      << "beside the configuration file all the same";
}

TEST_F(TopoFile, OnlyWhatIsThereIsFound) {
  EXPECT_EQ(found(signature), "none");
  configure("<orlith><topology path=\"/nowhere\"/></orlith>");
  EXPECT_EQ(found(signature), "none");
  EXPECT_EQ(topo_find_topo_file(nullptr), nullptr);
}

TEST_F(TopoFile, WithoutAConfigurationThereIsNoFile) {
  dir.write("topologies/" + signature, "");
  ruxo_conf_unload();
  EXPECT_EQ(found(signature), "none");
}

TEST_F(TopoFile, ANameLeadsNowhereElse) {
  dir.write("outside", "");
  for (const char *name : {"../outside", "..", ".", "", "./", "a/../../outside"})
    EXPECT_EQ(found(name), "none") << name;
}

TEST_F(TopoFile, APathThatIsTooLongIsNotCutOff) {
  // The folder's path with many "/": at 4095 bytes the file is still found.
  dir.write(signature, "");
  const size_t slashes = 4095 - dir.path().size() - signature.size();
  configure("<orlith><topology path=\"" + dir.path() + std::string(slashes - 1, '/') + "\"/></orlith>");
  EXPECT_EQ(found(signature).size(), 4095U);
  configure("<orlith><topology path=\"" + dir.path() + std::string(slashes, '/') + "\"/></orlith>");
  EXPECT_EQ(found(signature), "none");
}

// ---- Saving ----

TEST_F(TopoFile, WithoutAFileThereIsNothingToReplace) {
  const TopoHandle tc = compile_ok(many_nodes(3, 5, 2));
  EXPECT_EQ(topo_save(tc.get()), -1);
  EXPECT_THAT(files(), testing::IsEmpty());
  EXPECT_EQ(topo_save(nullptr), -1);
}

TEST_F(TopoFile, WritesAnUnsidedTopology) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1, "7") + node(kId2, "65535")));
  write_old(tc);
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_EQ(content(tc), "<nodes write_copies=\"2\">\n" +
                             entry(kId1, "127.0.0.1", "        weight=\"7\"/>\n") +
                             entry(kId2, "127.0.0.1", "        weight=\"65535\"/>\n") + "</nodes>\n");
  EXPECT_THAT(files(), ElementsAre(tc->hex_signature));
}

TEST_F(TopoFile, WritesASidedTopology) {
  const TopoHandle tc =
      compile_ok(nodes("write_copies=\"2\"", node(kId1, "7", "side=\"b\"") + node(kId2, "8", "side=\"a\"")));
  write_old(tc);
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_EQ(content(tc), "<nodes write_copies=\"2\">\n" +
                             entry(kId1, "127.0.0.1", "        weight=\"7\"\n        side=\"b\"/>\n") +
                             entry(kId2, "127.0.0.1", "        weight=\"8\"\n        side=\"a\"/>\n") +
                             "</nodes>\n");
  // No document gives such a topology, but the entry has a form.
  tc->hc[0].ringside = TOPO_RINGSIDE_BOTH;
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_THAT(content(tc), testing::HasSubstr("        weight=\"7\"\n        side=\"both\"/>\n"));
}

TEST_F(TopoFile, ASavedTopologyCompilesToItsOwnName) {
  for (const std::string &document :
       {many_nodes(1, 5, 1), many_nodes(3, 5, 2), many_nodes(5, 1, 5), many_nodes(8, 9, 2, true),
        many_nodes(12, 3, 7, true), many_nodes(128, 1, 10)}) {
    const TopoHandle tc = compile_ok(document);
    write_old(tc);
    ASSERT_EQ(topo_save(tc.get()), 0);
    const Compiled again = compile(content(tc), tc->hex_signature);
    ASSERT_NE(again.tc, nullptr) << again.error;
    EXPECT_STREQ(again.tc->hex_signature, tc->hex_signature);
    EXPECT_EQ(again.tc->w_count, tc->w_count);
    ASSERT_EQ(again.tc->host_count, tc->host_count);
    for (int i = 0; i < tc->host_count; ++i) {
      EXPECT_EQ(again.tc->hc[i].ringside, tc->hc[i].ringside);
      EXPECT_EQ(again.tc->hc[i].weight, tc->hc[i].weight);
    }
    // And is then a fixed point.
    const std::string saved = content(tc);
    ASSERT_EQ(topo_save(again.tc.get()), 0);
    EXPECT_EQ(content(tc), saved);
  }
}

TEST_F(TopoFile, AHostNameIsSavedAsItsAddress) {
  const TopoHandle tc = compile_ok(nodes(
      "", "<node id=\"" + kId1 + "\" weight=\"3\" address=\"localhost\" port=\"8112\" apiport=\"8113\"/>"));
  ASSERT_STREQ(tc->hc[0].hostname, "localhost");
  write_old(tc);
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_EQ(content(tc), "<nodes write_copies=\"1\">\n" +
                             entry(kId1, "127.0.0.1", "        weight=\"3\"/>\n") + "</nodes>\n");
  EXPECT_NE(compile(content(tc), tc->hex_signature).tc, nullptr);
}

TEST_F(TopoFile, AChangedAddressIsSaved) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  std::string id = kId1, address = "10.0.0.9", port = "1", apiport = "2";
  ASSERT_EQ(topo_update_ip(tc.get(), id.data(), address.data(), port.data(), apiport.data()), 0);
  write_old(tc);
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_THAT(content(tc), testing::HasSubstr(
                               "        address=\"10.0.0.9\"\n        apiport=\"2\"\n        port=\"1\"\n"));
}

TEST_F(TopoFile, TheUseOfTlsIsNotSaved) {  // deliberately: the signature does not have it either
  const TopoHandle tc = compile_ok(nodes("use_tls=\"true\"", node(kId1)));
  ASSERT_TRUE(tc->use_tls);
  write_old(tc);
  EXPECT_EQ(topo_save(tc.get()), 0);
  const Compiled again = compile(content(tc), tc->hex_signature);
  ASSERT_NE(again.tc, nullptr);
  EXPECT_FALSE(again.tc->use_tls);
  EXPECT_THAT(content(tc), testing::Not(testing::HasSubstr("tls")));
}

TEST_F(TopoFile, AStaleTemporaryFileIsReplaced) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  dir.write(name_of(tc) + ".tmp", std::string(10000, 'x'));
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_THAT(files(), ElementsAre(tc->hex_signature));
  EXPECT_NE(compile(content(tc), tc->hex_signature).tc, nullptr);
}

// A document with a port of 0 does not compile, and ports change unchecked.
TEST_F(TopoFile, ANodeWhosePortBecameZeroIsNotSaved) {
  for (const bool is_api : {false, true}) {
    const TopoHandle tc = compile_ok(nodes("", node(kId1)));
    write_old(tc);
    std::string id = tc->hc[0].id_str, port = "65536";
    ASSERT_EQ(topo_update_ip(tc.get(), id.data(), nullptr, is_api ? nullptr : port.data(),
                             is_api ? port.data() : nullptr),
              0);
    EXPECT_EQ(topo_save(tc.get()), -1);
    EXPECT_EQ(content(tc), "old");
    EXPECT_THAT(files(), ElementsAre(tc->hex_signature));
  }
}

TEST_F(TopoFile, ATemporaryNameThatCannotBeHadIsAnError) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  std::filesystem::create_directory(dir.file(name_of(tc) + ".tmp"));
  EXPECT_EQ(topo_save(tc.get()), -1);
  EXPECT_EQ(content(tc), "old");
}

TEST_F(TopoFile, ATemporaryNameThatIsTooLongDoesNotTouchTheFile) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  dir.write(tc->hex_signature, "old");
  const size_t slashes = 4095 - dir.path().size() - 64;
  for (size_t fewer = 0; fewer <= 4; ++fewer) {
    configure("<orlith><topology path=\"" + dir.path() + std::string(slashes - 1 - fewer, '/') +
              "\"/></orlith>");
    EXPECT_EQ(topo_save(tc.get()), fewer == 4 ? 0 : -1) << fewer;
    EXPECT_EQ(dir.read(tc->hex_signature) == "old", fewer < 4) << fewer;
  }
}

TEST_F(TopoFile, TheFileIsReadableByTheGroupAsFarAsTheMaskLets) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  const mode_t mask = umask(0);
  EXPECT_EQ(topo_save(tc.get()), 0);
  umask(mask);
  struct stat st;
  ASSERT_EQ(stat(dir.file(name_of(tc)).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0664U);
}

TEST_F(TopoFile, AnUnknownSideIsAnErrorThatLeavesTheFile) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1) + node(kId2)));
  write_old(tc);
  tc->hc[1].ringside = static_cast<topo_host_ringside_t>(3);
  EXPECT_EQ(topo_save(tc.get()), -1);
  EXPECT_EQ(content(tc), "old");
  EXPECT_THAT(files(), ElementsAre(tc->hex_signature));
}

// ---- One entry ----

TEST_F(TopoFile, AnEntryOfAnUnknownSideIsNotWritten) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  int fd = open(dir.file("entry").c_str(), O_WRONLY | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  tc->hc[0].ringside = static_cast<topo_host_ringside_t>(3);
  EXPECT_EQ(topo_write_entry(tc.get(), &tc->hc[0], &fd), 0);
  EXPECT_EQ(dir.read("entry"), "");
  tc->hc[0].ringside = TOPO_RINGSIDE_BOTH;
  EXPECT_EQ(topo_write_entry(tc.get(), &tc->hc[0], &fd), 1);
  close(fd);
  EXPECT_EQ(dir.read("entry"), entry(kId1, "127.0.0.1", "        weight=\"10\"/>\n"));
}

// ---- Faults ----

TEST_F(TopoFile, EveryFaultButThatOfAWriteIsAnErrorThatLeavesTheFile) {
  for (const auto &[call, error] : {std::pair{Call::open, EACCES}, std::pair{Call::fsync, EIO},
                                    std::pair{Call::close, EIO}, std::pair{Call::rename, EXDEV}}) {
    const TopoHandle tc = compile_ok(nodes("", node(kId1) + node(kId2)));
    write_old(tc);
    const faults::Fail fault(call, error, 1, 1);
    EXPECT_EQ(topo_save(tc.get()), -1) << static_cast<int>(call);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(content(tc), "old");
    EXPECT_THAT(files(), ElementsAre(tc->hex_signature));
  }
}

TEST_F(TopoFile, OnceItIsRenamedTheFileIsSaved) {
  for (const Call call : {Call::open, Call::fsync, Call::close}) {
    const TopoHandle tc = compile_ok(nodes("", node(kId1)));
    write_old(tc);
    const faults::Fail fault(call, EIO, 2, 1);  // the second use is the folder's
    EXPECT_EQ(topo_save(tc.get()), 0);
    EXPECT_TRUE(fault.hit());
    EXPECT_NE(compile(content(tc), tc->hex_signature).tc, nullptr);
  }
}

TEST_F(TopoFile, FileAndFolderAreSyncedAroundTheRename) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  const faults::Uses uses;
  EXPECT_EQ(topo_save(tc.get()), 0);
  EXPECT_EQ(uses(Call::fsync), 2);
  EXPECT_EQ(uses(Call::open), uses(Call::close));
}

TEST_F(TopoFile, CallsThatASignalInterruptsAreMadeAgain) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  for (const Call call : {Call::open, Call::write, Call::fsync, Call::close}) {
    write_old(tc);
    const faults::Fail fault(call, EINTR, 1, 1);
    EXPECT_EQ(topo_save(tc.get()), 0) << static_cast<int>(call);
    EXPECT_TRUE(fault.hit());
    EXPECT_NE(compile(content(tc), tc->hex_signature).tc, nullptr);
  }
}

TEST_F(TopoFile, AFileThatCannotBeRemovedIsNotWrittenInto) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  dir.write(name_of(tc) + ".tmp", "stale");
  const faults::Fail fault(Call::unlink, EPERM, 1, 1);
  EXPECT_EQ(topo_save(tc.get()), -1);
  EXPECT_EQ(content(tc), "old");
  EXPECT_EQ(dir.read(name_of(tc) + ".tmp"), "stale");
}

constexpr char kFrameLine[] =
    "message=\"\\[FATAL\\] assertion \\(write\\(fd, tmp_buf, strlen\\(tmp_buf\\)\\) == \\(ssize_t\\) "
    "strlen\\(tmp_buf\\)\\) at topo/topo_file\\.cpp:[0-9]+ failed\"\n";
constexpr char kEntryLine[] =
    "message=\"\\[FATAL\\] assertion \\(write\\(\\*fd, write_buffer, strlen\\(write_buffer\\)\\) == "
    "\\(ssize_t\\) strlen\\(write_buffer\\)\\) at topo/topo_file\\.cpp:[0-9]+ failed\"\n";

// One node takes seven writes: the opening line, five of the entry, the closing line. The test's own process stands
// for what a crash at that write leaves behind.
TEST_F(TopoFileDeathTest, AWriteThatFailsStopsTheProcessAndLeavesTheFile) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  for (int n = 1; n <= 7; ++n) {
    EXPECT_DEATH(
        {
          const faults::Fail fault(Call::write, ENOSPC, n, 1);
          topo_save(tc.get());
        },
        n == 1 || n == 7 ? kFrameLine : kEntryLine)
        << n;
    EXPECT_EQ(content(tc), "old");
  }
  EXPECT_EQ(topo_save(tc.get()), 0) << "what a crash has left is no obstacle";
  EXPECT_NE(compile(content(tc), tc->hex_signature).tc, nullptr);
}

TEST_F(TopoFileDeathTest, AWriteThatComesUpShortStopsTheProcessAndLeavesTheFile) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  write_old(tc);
  for (int n = 1; n <= 7; ++n) {
    EXPECT_DEATH(
        {
          const faults::Short fault(Call::write, 3, n, 1);
          topo_save(tc.get());
        },
        n == 1 || n == 7 ? kFrameLine : kEntryLine)
        << n;
    EXPECT_EQ(content(tc), "old");
  }
}

TEST_F(TopoFileDeathTest, AnEntryThatCannotBeWrittenStopsTheProcess) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  int closed = -1;
  EXPECT_DEATH(topo_write_entry(tc.get(), &tc->hc[0], &closed), kEntryLine);
}

// ---- Threads ----

TEST_F(TopoFile, ReadersSeeWholeFilesWhileTwoThreadsSave) {
  const TopoHandle tc = compile_ok(many_nodes(20, 5, 2));
  write_old(tc);
  ASSERT_EQ(topo_save(tc.get()), 0);
  const std::string whole = content(tc);
  std::atomic<int> saving{2};
  std::vector<std::thread> savers;
  for (int i = 0; i < 2; ++i) {
    savers.emplace_back([&] {
      for (int round = 0; round < 30; ++round) EXPECT_EQ(topo_save(tc.get()), 0);
      --saving;
    });
  }
  while (saving > 0) ASSERT_EQ(content(tc), whole);
  for (std::thread &saver : savers) saver.join();
  EXPECT_EQ(content(tc), whole);
}

}  // namespace
