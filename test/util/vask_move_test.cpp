#include "liborlith/util/vask_move.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/faults.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"

namespace {

using faults::Answer;
using faults::Call;
using faults::Fail;
using faults::Short;
using faults::Uses;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class VaskMove : public testing::Test {
 protected:
  VaskMove() { umask(022); }

  std::string source(std::string_view bytes = "some bytes") { return dir_.write("source", bytes); }
  std::string dest() const { return dir_.file("dest"); }
  bool exists(const std::string &path) const { return std::filesystem::exists(path); }
  mode_t mode_of(const std::string &path) const {
    struct stat result {};
    EXPECT_EQ(stat(path.c_str(), &result), 0);
    return result.st_mode & 0777;
  }

  // "_cross_fs_rename: <what> (<source>-><dest>) (<the error's text>)\n"
  std::string failed(const std::string &what, int error) const {
    return "_cross_fs_rename: " + what + " (" + dir_.file("source") + "->" + dest() + ") (" +
           strerror(error) + ")\n";
  }
  std::string gave_up(const std::string &name, int error) const {
    return name + "(" + dir_.file("source") + "," + dest() + ") -> " + strerror(error) + "\n";
  }

  TempDir dir_;
  LogCapture debug_{&vask_move_debug_ls, "test/debug"};
  LogCapture error_{&vask_move_error_ls, "test/error"};
};

TEST_F(VaskMove, MovesTheBytesAndLogsEachStep) {
  const std::string src = source();
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0);
  EXPECT_FALSE(exists(src));
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_THAT(error_.lines(), IsEmpty());
  EXPECT_THAT(debug_.lines(),
              ElementsAre("_cross_fs_rename: about to open source file " + src + "\n",
                          "_cross_fs_rename: about to fstat source file " + src + "\n",
                          "_cross_fs_rename: about to open destination file " + dest() + "\n",
                          "_cross_fs_rename: about to mmap source file " + src + "\n",
                          "_cross_fs_rename: about to copy source file to destination file: " + src + "->" +
                              dest() + "\n",
                          "_cross_fs_rename: about to unlink source file " + src + "\n",
                          "_cross_fs_rename: successfully unlinked source file " + src + "\n",
                          "_cross_fs_rename: about to unmap memory for source file " + src + "\n",
                          "_cross_fs_rename: about to close src_fd for " + src + "\n",
                          "_cross_fs_rename: about to close dest_fd for " + dest() + "\n",
                          "_cross_fs_rename: done moving " + src + " to " + dest() + " - return value 0\n"));
}

TEST_F(VaskMove, ACopyLeavesTheSourceAndSaysSo) {
  const std::string src = source();
  EXPECT_EQ(vask_synch_copy(src.c_str(), dest().c_str()), 0);
  EXPECT_EQ(dir_.read("source"), "some bytes");
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_THAT(debug_.lines(),
              Contains("_cross_fs_rename: copy move, not unlinking source file " + src + "\n"));
  EXPECT_THAT(debug_.lines(), Not(Contains("_cross_fs_rename: about to unlink source file " + src + "\n")));
  EXPECT_THAT(error_.lines(), IsEmpty());
}

TEST_F(VaskMove, MovesManyPagesWithEveryByteValue) {
  std::string bytes(3 * 1024 * 1024 + 17, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 + (i >> 12));
  EXPECT_EQ(vask_synch_move(source(bytes).c_str(), dest().c_str()), 0);
  EXPECT_EQ(dir_.read("dest"), bytes);
}

TEST_F(VaskMove, TheDestinationGetsTheSourcesPermissionBits) {
  const std::string src = source();
  for (const mode_t mode : {0640u, 0444u, 0755u}) {
    ASSERT_EQ(chmod(src.c_str(), mode), 0);
    unlink(dest().c_str());
    EXPECT_EQ(vask_synch_copy(src.c_str(), dest().c_str()), 0);
    EXPECT_EQ(mode_of(dest()), mode);
  }
}

TEST_F(VaskMove, AnExistingDestinationIsTruncatedAndOverwritten) {
  dir_.write("dest", "a longer text than the new one");
  EXPECT_EQ(vask_synch_move(source("short").c_str(), dest().c_str()), 0);
  EXPECT_EQ(dir_.read("dest"), "short");
}

TEST_F(VaskMove, MissingDestinationFoldersAreCreatedAndItIsTriedAgain) {
  const std::string src = source();
  const std::string deep = dir_.file("a/b/dest");
  EXPECT_EQ(vask_synch_move(src.c_str(), deep.c_str()), 0);
  EXPECT_EQ(dir_.read("a/b/dest"), "some bytes");
  EXPECT_FALSE(exists(src));
  EXPECT_EQ(mode_of(dir_.file("a")), 0755u) << "0777 less the umask";
  EXPECT_EQ(mode_of(dir_.file("a/b")), 0755u);
  EXPECT_THAT(error_.lines(), ElementsAre("_cross_fs_rename: error opening destination file (" + src + "->" +
                                          deep + ") (" + strerror(ENOENT) + ")\n"));
}

TEST_F(VaskMove, AFolderThatCannotBeCreatedIsLogged) {
  const std::string src = source();
  dir_.write("file", "in the way");
  const std::string below = dir_.file("file/x/dest");
  EXPECT_EQ(vask_synch_copy(src.c_str(), below.c_str()), -1);
  EXPECT_THAT(error_.lines(), ElementsAre("_cross_fs_rename: error opening destination file (" + src + "->" +
                                              below + ") (" + strerror(ENOTDIR) + ")\n",
                                          "mkdir for file(" + below + ") -> " + strerror(ENOTDIR) + "\n"));
  EXPECT_TRUE(exists(src));
}

TEST_F(VaskMove, AnEmptyFileCannotBeMoved) {
  const std::string src = source("");
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_TRUE(exists(src));
  EXPECT_EQ(dir_.read("dest"), "");
  EXPECT_TRUE(exists(dest())) << "it has been created";
  EXPECT_THAT(error_.lines(), ElementsAre(failed("error on mmap", EINVAL), failed("error on mmap", EINVAL),
                                          gave_up("_vask_move", EINVAL)));
}

TEST_F(VaskMove, AMissingSourceFailsTwice) {
  const std::string src = dir_.file("source");
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1);
  EXPECT_THAT(error_.lines(),
              ElementsAre(failed("error opening source file", ENOENT),
                          failed("error opening source file", ENOENT), gave_up("_vask_move", ENOENT)));
  EXPECT_FALSE(exists(dest()));
  error_.clear();
  EXPECT_EQ(vask_synch_copy(src.c_str(), dest().c_str()), -1);
  EXPECT_THAT(error_.lines(),
              ElementsAre(failed("error opening source file", ENOENT),
                          failed("error opening source file", ENOENT), gave_up("_vask_copy", ENOENT)));
}

TEST_F(VaskMove, ASourceThatCannotBeUnlinkedStaysBesideACompleteDestination) {
  const std::string src = source();
  const Uses uses;
  const Fail fault(Call::unlink, EACCES, 1, 2);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1);
  EXPECT_EQ(uses(Call::unlink), 2);
  EXPECT_EQ(dir_.read("source"), "some bytes");
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_THAT(error_.lines(),
              ElementsAre(failed("error unlinking source file", EACCES),
                          failed("error unlinking source file", EACCES), gave_up("_vask_move", EACCES)));
}

TEST_F(VaskMove, MovingAFileOntoItselfDestroysNothing) {
  const std::string src = source();
  ASSERT_EQ(link(src.c_str(), dest().c_str()), 0);
  EXPECT_EQ(vask_synch_move(src.c_str(), src.c_str()), -1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1) << "another name of the same file";
  EXPECT_EQ(dir_.read("source"), "some bytes");
  EXPECT_THAT(error_.lines(), Contains(failed("error opening destination file", EINVAL)).Times(2));
}

TEST_F(VaskMove, InterruptedCallsAreRepeated) {
  const std::string src = source();
  const Uses uses;
  const Fail open_source(Call::open, EINTR, 1, 1), open_dest(Call::open, EINTR, 3, 1);
  const Fail stat_source(Call::fstat, EINTR, 1, 1);
  const Fail first_write(Call::write, EINTR, 1, 1), second_write(Call::write, EAGAIN, 2, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0);
  EXPECT_EQ(uses(Call::open), 4);
  EXPECT_EQ(uses(Call::fstat), 2);
  EXPECT_EQ(uses(Call::write), 3);
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_THAT(error_.lines(), IsEmpty());
}

TEST_F(VaskMove, ShortWritesAreContinued) {
  const std::string src = source();
  const Uses uses;
  const Short three(Call::write, 3, 1, 1), one(Call::write, 1, 2, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0);
  EXPECT_EQ(uses(Call::write), 3);
  EXPECT_EQ(dir_.read("dest"), "some bytes");
}

TEST_F(VaskMove, AFailedFstatClosesTheSourceAndCreatesNothing) {
  const std::string src = source();
  const Uses uses;
  const Fail fault(Call::fstat, EIO, 1, 2);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1);
  EXPECT_EQ(uses(Call::close), 2);
  EXPECT_FALSE(exists(dest()));
  EXPECT_THAT(error_.lines(), ElementsAre(failed("error on fstat for", EIO),
                                          failed("error on fstat for", EIO), gave_up("_vask_move", EIO)));
}

TEST_F(VaskMove, AFailedWriteKeepsTheSource) {
  const std::string src = source();
  const Short four(Call::write, 4, 1, 1);
  const Fail fault(Call::write, ENOSPC, 2, 2);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), -1);
  EXPECT_EQ(dir_.read("source"), "some bytes");
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_THAT(error_.lines(), ElementsAre(failed("error writing to destination file", ENOSPC),
                                          failed("error writing to destination file", ENOSPC),
                                          gave_up("_vask_move", ENOSPC)));
  const std::vector<std::string> steps = debug_.lines();
  EXPECT_THAT(steps,
              Contains("_cross_fs_rename: about to unmap memory for source file " + src + "\n").Times(2));
  EXPECT_EQ(steps.back(), "_cross_fs_rename: done moving " + src + " to " + dest() + " - return value -1\n");
}

TEST_F(VaskMove, AWriteThatReportsTooMuchIsAnError) {
  const std::string src = source();
  const Answer fault(Call::write, 11, 1, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0) << "the second attempt is fine";
  EXPECT_THAT(error_.lines(),
              ElementsAre("_cross_fs_rename: got weird error, wrote more bytes than expected\n",
                          failed("error writing to destination file", 0)));
}

TEST_F(VaskMove, AWriteWithoutProgressIsAnError) {
  const std::string src = source();
  const Answer fault(Call::write, 0, 1, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0) << "the second attempt is fine";
  EXPECT_THAT(error_.lines(), ElementsAre(failed("error writing to destination file", EIO)));
}

TEST_F(VaskMove, FailedClosesAreOnlyLogged) {
  const std::string src = source();
  const Fail of_source(Call::close, EIO, 1, 1), of_dest(Call::close, EDQUOT, 2, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0);
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_THAT(error_.lines(), ElementsAre(failed("failed to close source fd", EIO),
                                          failed("failed to close destination fd", EDQUOT)));
}

TEST_F(VaskMove, AFailedMapClosesBothDescriptors) {
  const std::string src = source();
  const Uses uses;
  const Fail fault(Call::mmap, ENOMEM, 1, 1);
  EXPECT_EQ(vask_synch_move(src.c_str(), dest().c_str()), 0) << "the second attempt is fine";
  EXPECT_EQ(uses(Call::close), 4);
  EXPECT_THAT(error_.lines(), ElementsAre(failed("error on mmap", ENOMEM)));
}

// The jobs.

class VaskMoveJob : public VaskMove {
 protected:
  VaskMoveJob() { eventer_set_mask(event_, EVENTER_ASYNCH_WORK); }
  ~VaskMoveJob() override { eventer_free(event_); }

  static vask_move_request_t *request(const std::string &src, const std::string &dest_path) {
    auto *result = static_cast<vask_move_request_t *>(malloc(sizeof(vask_move_request_t)));
    *result = {strdup(src.c_str()), strdup(dest_path.c_str())};
    return result;
  }

  eventer_t event_ = eventer_alloc();
};

TEST_F(VaskMoveJob, TheMoveJobMovesFreesItsRequestAndEndsItsEvent) {
  const std::string src = source();
  EXPECT_EQ(vask_asynch_move(event_, EVENTER_ASYNCH_WORK, request(src, dest()), nullptr), 0);
  EXPECT_EQ(dir_.read("dest"), "some bytes");
  EXPECT_FALSE(exists(src));
  EXPECT_EQ(eventer_get_mask(event_), 0);
}

TEST_F(VaskMoveJob, TheMoveJobCreatesFoldersAndSwallowsFailuresAfterLoggingThem) {
  const std::string src = dir_.file("source");
  EXPECT_EQ(vask_asynch_move(event_, EVENTER_ASYNCH_WORK, request(src, dest()), nullptr), 0);
  EXPECT_EQ(error_.lines().back(), gave_up("_vask_move", ENOENT));
  EXPECT_EQ(eventer_get_mask(event_), 0);
  source();
  EXPECT_EQ(vask_asynch_move(event_, EVENTER_ASYNCH_WORK, request(src, dir_.file("new/dest")), nullptr), 0);
  EXPECT_EQ(dir_.read("new/dest"), "some bytes");
}

TEST_F(VaskMoveJob, TheUnlinkJobUnlinksSilently) {
  const std::string src = source();
  EXPECT_EQ(vask_asynch_unlink(event_, EVENTER_ASYNCH_WORK, strdup(src.c_str()), nullptr), 0);
  EXPECT_FALSE(exists(src));
  EXPECT_EQ(eventer_get_mask(event_), 0);
  EXPECT_EQ(vask_asynch_unlink(event_, EVENTER_ASYNCH_WORK, strdup(src.c_str()), nullptr), 0)
      << "already gone";
  EXPECT_THAT(error_.lines(), IsEmpty());
  EXPECT_THAT(debug_.lines(), IsEmpty());
}

TEST_F(VaskMoveJob, OutsideTheWorkingPhaseTheClosuresAreKept) {
  const std::string src = source();
  vask_move_request_t *move = request(src, dest());
  char *path = strdup(src.c_str());
  for (const int mask : {0, EVENTER_ASYNCH_COMPLETE, ~EVENTER_ASYNCH_WORK}) {
    EXPECT_EQ(vask_asynch_move(event_, mask, move, nullptr), 0);
    EXPECT_EQ(vask_asynch_unlink(event_, mask, path, nullptr), 0);
  }
  EXPECT_TRUE(exists(src));
  EXPECT_FALSE(exists(dest()));
  EXPECT_EQ(move->src, src);
  EXPECT_EQ(path, src);
  EXPECT_EQ(eventer_get_mask(event_), EVENTER_ASYNCH_WORK);
  free(path);
  free(move->src);
  free(move->dest);
  free(move);
}

TEST(VaskMoveInit, NamesItsCallbacks) {
  vask_move_init();
  EXPECT_EQ(eventer_callback_for_name("vask_move_vask_asynch_unlink"), &vask_asynch_unlink);
  EXPECT_EQ(eventer_callback_for_name("vask_move_vask_asynch_move"), &vask_asynch_move);
}

}  // namespace
