#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "ruxo/json.h"
#include "test/support/temp_dir.h"

namespace {

struct JsonFree {
  void operator()(ruxo_json_object *o) const { ruxo_json_free(o); }
};
using Json = std::unique_ptr<ruxo_json_object, JsonFree>;

class JsonFromFd : public testing::Test {
 protected:
  // The text as written again; "(null)" when it was refused.
  std::string parse_file(const std::string &bytes, size_t limit, off_t from = 0) {
    const int fd = open(folder_.write("file", bytes).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_GE(fd, 0);
    lseek(fd, from, SEEK_SET);
    const Json value(ruxo_json_from_fd(fd, limit));
    EXPECT_EQ(close(fd), 0) << "the descriptor is the caller's";
    return value == nullptr ? "(null)" : ruxo_json_text(value.get());
  }
  const TempDir folder_;
};

}  // namespace

TEST_F(JsonFromFd, ReadsFromThePositionToTheEnd) {
  EXPECT_EQ(parse_file("{\"a\":[1,2]}", 100), "{\"a\":[1,2]}");
  EXPECT_EQ(parse_file("junk[1]", 100, 4), "[1]");
}

TEST_F(JsonFromFd, RefusesWhatIsLongerThanTheLimit) {
  EXPECT_EQ(parse_file("[1,2,3]", 7), "[1,2,3]");
  EXPECT_EQ(parse_file("[1,2,3]", 6), "(null)");
  EXPECT_EQ(parse_file("[1,2,3]", 0), "(null)");
  EXPECT_EQ(parse_file("[1] ", 3), "(null)");
  EXPECT_EQ(parse_file("[1,2,3]", SIZE_MAX), "[1,2,3]");
}

TEST_F(JsonFromFd, RefusesWhatIsNoJson) {
  for (const char *text : {"", " ", "[1", "[1]x", "nul", "{\"a\":1,}"})
    EXPECT_EQ(parse_file(text, 100), "(null)") << text;
}

TEST_F(JsonFromFd, RefusesADescriptorThatCannotBeRead) {
  EXPECT_EQ(ruxo_json_from_fd(-1, 100), nullptr);
  const int folder = open(folder_.path().c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(ruxo_json_from_fd(folder, 100), nullptr);
  close(folder);
}

TEST_F(JsonFromFd, TextsAroundThePiecesItIsReadInAreWhole) {
  for (const size_t len : {65535U, 65536U, 65537U, 131072U, 200000U}) {
    const std::string text = '"' + std::string(len - 2, 'x') + '"';
    EXPECT_EQ(parse_file(text, len), text) << len;
    EXPECT_EQ(parse_file(text, len - 1), "(null)") << len;
  }
}

TEST_F(JsonFromFd, AStreamIsReadInItsPieces) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  std::thread writer([&] {
    for (const char *piece : {"[1,", "2,", "3]"}) EXPECT_GT(write(ends[1], piece, strlen(piece)), 0);
    close(ends[1]);
  });
  const Json value(ruxo_json_from_fd(ends[0], 100));
  writer.join();
  close(ends[0]);
  ASSERT_NE(value, nullptr);
  EXPECT_STREQ(ruxo_json_text(value.get()), "[1,2,3]");
}
