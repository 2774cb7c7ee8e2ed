#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "liborlith/util/oil.h"
#include "test/support/log_capture.h"
#include "test/util/oil_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string head_of(const oil_list_t *oil) {
  char head[200];
  snprintf(head, sizeof head, "OIL [%p] size[%u] cap[%u] entries[%p][", static_cast<const void *>(oil),
           oil->size, oil->capacity, static_cast<const void *>(oil->entries));
  return head;
}

TEST(OilText, AnEmptyListPrintsAsBrackets) {
  const OilPtr oil(oil_alloc());
  char buf[16] = "xxxxxxx";
  EXPECT_EQ(oil_print(oil.get(), buf, sizeof buf), 2u);
  EXPECT_STREQ(buf, "[]");
}

TEST(OilText, ANullListEmptiesTheBufferAndNeedsNothing) {
  char buf[4] = "xxx";
  EXPECT_EQ(oil_print(nullptr, buf, sizeof buf), 0u);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(oil_print(nullptr, nullptr, 0), 0u);
}

TEST(OilText, IntervalsPrintInOrderSeparatedByCommas) {
  const OilPtr oil = raw_list({{0, 7}, {10, 20}, {4294967294, 4294967295}});
  char buf[100];
  EXPECT_EQ(oil_print(oil.get(), buf, sizeof buf), 39u);
  EXPECT_STREQ(buf, "[(0,7),(10,20),(4294967294,4294967295)]");
}

TEST(OilText, ABufferTooShortIsCutAtEveryLengthAndTheNeedStaysTheSame) {
  const OilPtr oil = raw_list({{1, 2}, {300, 400}});
  const std::string whole = "[(1,2),(300,400)]";
  for (size_t len = 0; len <= whole.size() + 2; ++len) {
    std::string buf(whole.size() + 4, '#');
    EXPECT_EQ(oil_print(oil.get(), buf.data(), len), whole.size());
    std::string expected(whole.size() + 4, '#');
    if (len > 0) {
      const std::string kept = whole.substr(0, len - 1) + '\0';
      expected.replace(0, kept.size(), kept);
    }
    // What lies beyond the terminating NUL, inside or outside the buffer, is not the text's.
    EXPECT_EQ(buf.substr(0, std::min(len, whole.size() + 1)),
              expected.substr(0, std::min(len, whole.size() + 1)));
    EXPECT_EQ(buf.substr(len), std::string(buf.size() - len, '#')) << len;
  }
  EXPECT_EQ(oil_print(oil.get(), nullptr, 0), whole.size());
}

TEST(OilText, DebugWritesOneLineToStandardError) {
  const OilPtr oil = raw_list({{1, 2}, {300, 400}});
  const OilPtr empty(oil_alloc());
  testing::internal::CaptureStderr();
  oil_debug(oil.get());
  oil_debug(nullptr);
  oil_debug(empty.get());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            head_of(oil.get()) + "(1,2),(300,400)]\n" + head_of(empty.get()) + "]\n");
}

TEST(OilText, DumpWritesTheSameToTheDebugStreamPieceByPiece) {
  const OilPtr oil = raw_list({{1, 2}, {300, 400}});
  LogCapture log(&oil_debug_ls);
  oil_dump(oil.get());
  EXPECT_THAT(log.lines(), ElementsAre(head_of(oil.get()), "(1,2)", ",", "(300,400)", "]\n"));
  log.clear();
  oil_dump(nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(OilText, DumpWithoutAStreamDoesNothing) {
  const OilPtr oil = raw_list({{1, 2}});
  oil_debug_ls = nullptr;
  oil_dump(oil.get());
  EXPECT_EQ(oil->lock, 0u);
}

}  // namespace
