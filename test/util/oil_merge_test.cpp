#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

#include "liborlith/util/metric_locator_internal.h"
#include "liborlith/util/oil.h"
#include "test/support/log_capture.h"
#include "test/util/oil_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class OilMerge : public testing::Test {
 protected:
  ~OilMerge() override { oil_free(locator_.activity_oil); }

  orlith_metric_locator locator_{};
};

TEST_F(OilMerge, ANullSourceChangesNothing) {
  EXPECT_EQ(oil_merge_inplace(&locator_, nullptr), 0);
  EXPECT_EQ(locator_.activity_oil, nullptr);
}

TEST_F(OilMerge, ALocatorWithoutAListGetsOneEvenFromAnEmptySource) {
  const OilPtr src(oil_alloc());
  EXPECT_EQ(oil_merge_inplace(&locator_, src.get()), 0);
  ASSERT_NE(locator_.activity_oil, nullptr);
  EXPECT_EQ(oil_capacity(locator_.activity_oil), 1u);
  EXPECT_THAT(contents(locator_.activity_oil), IsEmpty());
}

TEST_F(OilMerge, EveryIntervalIsPutUnderTheRulesOfPut) {
  const OilPtr src = raw_list({{100, 200}, {1000, 1010}, {5000, 5001}});
  EXPECT_EQ(oil_merge_inplace(&locator_, src.get()), 1);
  EXPECT_THAT(contents(locator_.activity_oil),
              ElementsAre(Pair(100, 200), Pair(1000, 1010), Pair(5000, 5001)));
  EXPECT_EQ(oil_merge_inplace(&locator_, src.get()), 0) << "everything is covered";

  const OilPtr more = raw_list({{500, 510}, {950, 960}, {5050, 5060}});
  EXPECT_EQ(oil_merge_inplace(&locator_, more.get()), 1);
  EXPECT_THAT(contents(locator_.activity_oil),
              ElementsAre(Pair(100, 200), Pair(500, 510), Pair(950, 1010), Pair(5000, 5060)));
  EXPECT_THAT(contents(more.get()), ElementsAre(Pair(500, 510), Pair(950, 960), Pair(5050, 5060)));
  EXPECT_EQ(src->lock, 0u);
  EXPECT_EQ(locator_.activity_oil->lock, 0u);
}

TEST_F(OilMerge, ZeroAndReversedIntervalsAreSkipped) {
  const OilPtr src = raw_list({{0, 0}, {30, 20}, {40, 50}});
  EXPECT_EQ(oil_merge_inplace(&locator_, src.get()), 1);
  EXPECT_THAT(contents(locator_.activity_oil), ElementsAre(Pair(40, 50)));
}

TEST_F(OilMerge, MergingAListIntoItselfIsRefusedWithAWarning) {
  locator_.activity_oil = raw_list({{1, 2}, {300, 400}}).release();
  oil_list_t *list = locator_.activity_oil;
  LogCapture log(&oil_error_ls);
  EXPECT_EQ(oil_merge_inplace(&locator_, list), 0);
  char expected[200];
  snprintf(expected, sizeof expected, "warning: oil_merge_inplace - src (%p) == dst (%p) - size %d\n",
           static_cast<void *>(list), static_cast<void *>(list), 2);
  EXPECT_THAT(log.lines(), ElementsAre(expected));
  EXPECT_THAT(contents(list), ElementsAre(Pair(1, 2), Pair(300, 400)));
}

}  // namespace
