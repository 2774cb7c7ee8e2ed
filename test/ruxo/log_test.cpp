#include "ruxo/log.h"

#include <gtest/gtest.h>

#include "test/support/log_capture.h"

TEST(Log, KeepsTheTextAsTheCallerWroteIt) {
  LogCapture capture(&ruxo_error);
  ruxo_log(ruxo_error, "%d of %s\n", 1, "two\nlines");
  EXPECT_EQ(capture.lines(), std::vector<std::string>{"1 of two\nlines\n"});
}

TEST(LogDeathTest, AbortAfterGoingSynchronousLosesNothing) {
  EXPECT_DEATH(
      {
        for (int i = 0; i < 3; ++i) ruxo_log(ruxo_error, "line %d\n", i);
        ruxo_log_go_synch();
        ruxo_log(ruxo_error, "last\n");
        abort();
      },
      "line 0.*\n.*line 1.*\n.*line 2.*\n.*last");
}
