#include "orlith/near_miss.h"

#include <gtest/gtest.h>

namespace {

TEST(EditDistance, CountsChanges) {
  EXPECT_EQ(edit_distance("", ""), 0u);
  EXPECT_EQ(edit_distance("", "abc"), 3u);
  EXPECT_EQ(edit_distance("dump", "dump"), 0u);
  EXPECT_EQ(edit_distance("dump", "damp"), 1u);
  EXPECT_EQ(edit_distance("dump", "dum"), 1u);
  EXPECT_EQ(edit_distance("dump", "dupm"), 1u);  // one swap
  EXPECT_EQ(edit_distance("kitten", "sitting"), 3u);
}

TEST(Nearest, FindsTheWordMeant) {
  const std::vector<std::string> words = {"collect", "completion", "topo", "nnt"};
  EXPECT_EQ(nearest("colect", words), "collect");
  EXPECT_EQ(nearest("tpoo", words), "topo");
  EXPECT_EQ(nearest("ntt", words), "nnt");
  EXPECT_EQ(nearest("comp", words), "completion");
  EXPECT_EQ(nearest("collection", words), "collect");
}

TEST(Nearest, SuggestsNothingFarFetched) {
  const std::vector<std::string> words = {"collect", "topo", "nnt"};
  EXPECT_EQ(nearest("ingest", words), "");
  EXPECT_EQ(nearest("x", words), "");
  EXPECT_EQ(nearest("", words), "");
}

}  // namespace
