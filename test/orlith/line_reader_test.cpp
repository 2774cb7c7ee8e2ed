#include "orlith/line_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "test/support/temp_dir.h"

namespace {

bool never() {
  return false;
}
bool always() {
  return true;
}

using Seen = std::tuple<std::string, uint64_t, uint64_t>;  // text, line number, end offset

std::vector<Seen> read_all(LineReader &reader) {
  std::vector<Seen> seen;
  InputLine line;
  while (reader.next(&line)) seen.emplace_back(line.text, line.position.line, line.position.end_byte);
  return seen;
}

TEST(LineReader, NumbersLinesFileByFile) {
  TempDir dir;
  LineReader reader({dir.write("a", "one\n\nthree\n"), dir.write("b", "four")}, never);
  EXPECT_EQ(reader.total_bytes(), 15U);
  EXPECT_EQ(read_all(reader),
            (std::vector<Seen>{{"one", 1, 4}, {"", 2, 5}, {"three", 3, 11}, {"four", 1, 4}}));
  EXPECT_EQ(reader.error(), "");
  EXPECT_EQ(reader.bytes_read(), 15U);
}

TEST(LineReader, AnEmptyFileHasNoLines) {
  TempDir dir;
  LineReader reader({dir.write("empty", "")}, never);
  EXPECT_TRUE(read_all(reader).empty());
}

TEST(LineReader, KeepsBytesAsTheyAre) {
  TempDir dir;
  const std::string odd("a\0b\r\xff", 5);
  LineReader reader({dir.write("odd", odd + "\n")}, never);
  EXPECT_EQ(read_all(reader), (std::vector<Seen>{{odd, 1, 6}}));
}

TEST(LineReader, NamesAFileThatIsNotThere) {
  TempDir dir;
  LineReader reader({dir.file("missing")}, never);
  EXPECT_TRUE(read_all(reader).empty());
  EXPECT_EQ(reader.error(), dir.file("missing") + ": cannot be opened: No such file or directory");
}

TEST(LineReader, NamesAFolderThatCannotBeRead) {
  TempDir dir;
  LineReader reader({dir.path()}, never);
  EXPECT_TRUE(read_all(reader).empty());
  EXPECT_EQ(reader.error(), dir.path() + ": cannot be read: Is a directory");
}

// Both ends of a pipe, in a folder of its own as a named one, since readers open names.
class NamedPipe {
 public:
  NamedPipe() {
    if (mkfifo(name().c_str(), 0600) != 0) abort();
    fd_ = open(name().c_str(), O_RDWR | O_CLOEXEC);
  }
  ~NamedPipe() { finish(); }
  std::string name() const { return dir_.file("pipe"); }
  void bring(const std::string &bytes) {
    EXPECT_EQ(write(fd_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
  }
  void finish() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  TempDir dir_;
  int fd_ = -1;
};

TEST(LineReader, TellsThatAPipeBringsNothing) {
  NamedPipe pipe;
  pipe.bring("one\nbeginning");
  LineReader reader({pipe.name()}, never);
  EXPECT_EQ(reader.total_bytes(), 0U);
  int idle = 0;
  reader.on_idle([&] {
    if (++idle == 1) pipe.bring(" and end\n");
    return idle < 2;
  });
  EXPECT_EQ(read_all(reader), (std::vector<Seen>{{"one", 1, 4}, {"beginning and end", 2, 22}}));
  EXPECT_EQ(idle, 2) << "the second answer ended the input";
  EXPECT_EQ(reader.error(), "");
}

TEST(LineReader, APipeThatEndsInTheMiddleOfALineEndsWithIt) {
  NamedPipe pipe;
  pipe.bring("one\ntw");
  LineReader reader({pipe.name()}, never);
  reader.on_idle([&] {
    pipe.finish();
    return true;
  });
  EXPECT_EQ(read_all(reader), (std::vector<Seen>{{"one", 1, 4}, {"tw", 2, 6}}));
}

TEST(LineReader, TakesTheLongestLineAndSkipsLongerOnes) {
  TempDir dir;
  const std::string longest(LineReader::kMaxLineBytes, 'x');
  for (const size_t excess : {size_t{1}, size_t{300000}, size_t{5000000}}) {
    SCOPED_TRACE(excess);
    const std::string longer(LineReader::kMaxLineBytes + excess, 'y');
    LineReader reader({dir.write("long", longest + "\n" + longer + "\nlast\n")}, never);
    InputLine line;
    ASSERT_TRUE(reader.next(&line));
    EXPECT_FALSE(line.too_long);
    EXPECT_EQ(line.text, longest);
    ASSERT_TRUE(reader.next(&line));
    EXPECT_TRUE(line.too_long);
    EXPECT_EQ(line.text, std::string(LineReader::kLongLineHeadBytes, 'y'));
    EXPECT_EQ(line.position.line, 2U);
    ASSERT_TRUE(reader.next(&line));
    EXPECT_FALSE(line.too_long);
    EXPECT_EQ(line.text, "last");
    EXPECT_EQ(line.position.end_byte, longest.size() + longer.size() + 7);
    EXPECT_FALSE(reader.next(&line));
  }
}

TEST(LineReader, ReportsATooLongLastLineWithoutNewline) {
  TempDir dir;
  LineReader reader({dir.write("long", std::string(LineReader::kMaxLineBytes * 3, 'z'))}, never);
  InputLine line;
  ASSERT_TRUE(reader.next(&line));
  EXPECT_TRUE(line.too_long);
  EXPECT_FALSE(reader.next(&line));
}

TEST(LineReader, EndsWhenInterrupted) {
  TempDir dir;
  LineReader reader({dir.write("a", "one\n")}, always);
  EXPECT_TRUE(read_all(reader).empty());
  EXPECT_EQ(reader.error(), "");
}

}  // namespace
