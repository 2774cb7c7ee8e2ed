#include "ruxo/eventer.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace {

int first(eventer_t, int, void *, struct timeval *) {
  return 1;
}
int second(eventer_t, int, void *, struct timeval *) {
  return 2;
}
int unnamed(eventer_t, int, void *, struct timeval *) {
  return 3;
}

}  // namespace

TEST(EventerNames, FindsACallbackByItsNameAndBack) {
  EXPECT_EQ(eventer_name_callback("test/first", first), 0);
  EXPECT_EQ(eventer_callback_for_name("test/first"), first);
  EXPECT_STREQ(eventer_name_for_callback(first), "test/first");
}

TEST(EventerNames, UnknownNamesAndFunctionsGiveNull) {
  EXPECT_EQ(eventer_callback_for_name("test/unknown"), nullptr);
  EXPECT_EQ(eventer_name_for_callback(unnamed), nullptr);
}

TEST(EventerNames, ANameKeepsItsFirstFunction) {
  EXPECT_EQ(eventer_name_callback("test/kept", first), 0);
  EXPECT_EQ(eventer_name_callback("test/kept", first), 0) << "the same again";
  EXPECT_EQ(eventer_name_callback("test/kept", second), -1);
  EXPECT_EQ(eventer_callback_for_name("test/kept"), first);
}

TEST(EventerNames, AFunctionKeepsItsFirstName) {
  EXPECT_EQ(eventer_name_callback("test/second", second), 0);
  EXPECT_EQ(eventer_name_callback("test/alias", second), 0);
  EXPECT_STREQ(eventer_name_for_callback(second), "test/second");
  EXPECT_EQ(eventer_callback_for_name("test/alias"), second);
}

TEST(EventerNames, NamesAreCopied) {
  std::string name = "test/copied";
  EXPECT_EQ(eventer_name_callback(name.c_str(), first), 0);
  name = "overwritten";
  EXPECT_EQ(eventer_callback_for_name("test/copied"), first);
}

TEST(EventerNames, ThreadsCanNameAndLookUpAtOnce) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 200; ++i) {
        const std::string name = "test/threads" + std::to_string(i);
        EXPECT_EQ(eventer_name_callback(name.c_str(), first), 0);
        EXPECT_EQ(eventer_callback_for_name(name.c_str()), first);
        EXPECT_NE(eventer_name_for_callback(first), nullptr);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}
