#include "ruxo/skiplist.h"

#include <gtest/gtest.h>
#include <string.h>

#include <deque>
#include <random>
#include <set>
#include <vector>

namespace {

struct Point {
  int location;
  int payload;
};

int compare_points(const void *a, const void *b) {
  const int left = static_cast<const Point *>(a)->location;
  const int right = static_cast<const Point *>(b)->location;
  return (left > right) - (left < right);
}

int compare_key(const void *key, const void *point) {
  const int left = *static_cast<const int *>(key);
  const int right = static_cast<const Point *>(point)->location;
  return (left > right) - (left < right);
}

class Skiplist : public testing::Test {
 protected:
  ~Skiplist() override { ruxo_skiplist_destroy(list_, nullptr); }

  Point *point(int location) { return &points_.emplace_back(Point{location, 0}); }

  std::vector<int> forwards() const {
    std::vector<int> result;
    for (auto node = ruxo_skiplist_first(list_); node != nullptr; node = ruxo_skiplist_next(list_, node)) {
      result.push_back(static_cast<Point *>(ruxo_skiplist_data(node))->location);
    }
    return result;
  }

  void fill(const std::vector<int> &locations) {
    for (const int location : locations) ASSERT_NE(ruxo_skiplist_insert(list_, point(location)), nullptr);
  }

  static int location(ruxo_skiplist_node node) {
    return node == nullptr ? -1 : static_cast<Point *>(ruxo_skiplist_data(node))->location;
  }

  ruxo_skiplist *list_ = ruxo_skiplist_alloc(compare_points, compare_key);
  std::deque<Point> points_;
};

std::vector<void *> freed;

}  // namespace

TEST_F(Skiplist, AnEmptyListHasNothing) {
  EXPECT_EQ(ruxo_skiplist_size(list_), 0u);
  EXPECT_EQ(ruxo_skiplist_first(list_), nullptr);
  EXPECT_EQ(ruxo_skiplist_data(nullptr), nullptr);
  EXPECT_EQ(ruxo_skiplist_next(list_, nullptr), nullptr);
  EXPECT_EQ(ruxo_skiplist_previous(list_, nullptr), nullptr);
  const int key = 1;
  ruxo_skiplist_node node = &freed.emplace_back(), prev = node, next = node;
  EXPECT_EQ(ruxo_skiplist_find_neighbors(list_, &key, &node, &prev, &next), nullptr);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(prev, nullptr);
  EXPECT_EQ(next, nullptr);
}

TEST_F(Skiplist, InsertionKeepsTheOrderAndRefusesEquals) {
  fill({30, 10, 20});
  EXPECT_EQ(ruxo_skiplist_insert(list_, point(20)), nullptr);
  EXPECT_EQ(forwards(), (std::vector<int>{10, 20, 30}));
  const ruxo_skiplist_node node = ruxo_skiplist_insert(list_, point(25));
  EXPECT_EQ(location(node), 25);
  EXPECT_EQ(location(ruxo_skiplist_previous(list_, node)), 20);
  EXPECT_EQ(location(ruxo_skiplist_next(list_, node)), 30);
}

TEST_F(Skiplist, FindGivesTheElementAndItsNode) {
  fill({10, 20, 30});
  int key = 20;
  ruxo_skiplist_node node = nullptr;
  void *const found = ruxo_skiplist_find(list_, &key, &node);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(static_cast<Point *>(found)->location, 20);
  EXPECT_EQ(ruxo_skiplist_data(node), found);
  key = 21;
  EXPECT_EQ(ruxo_skiplist_find(list_, &key, &node), nullptr);
  EXPECT_EQ(node, nullptr);
  EXPECT_EQ(ruxo_skiplist_find(list_, &key, nullptr), nullptr);
}

TEST_F(Skiplist, NeighborsAreStrictlyBeforeAndAfterTheKey) {
  fill({10, 20, 30});
  const struct {
    int key, node, prev, next;
  } cases[] = {{5, -1, -1, 10},  {10, 10, -1, 20}, {15, -1, 10, 20}, {20, 20, 10, 30},
               {25, -1, 20, 30}, {30, 30, 20, -1}, {35, -1, 30, -1}};
  for (const auto &expected : cases) {
    SCOPED_TRACE(expected.key);
    ruxo_skiplist_node node, prev, next;
    void *const found = ruxo_skiplist_find_neighbors(list_, &expected.key, &node, &prev, &next);
    EXPECT_EQ(found, ruxo_skiplist_data(node));
    EXPECT_EQ(location(node), expected.node);
    EXPECT_EQ(location(prev), expected.prev);
    EXPECT_EQ(location(next), expected.next);
  }
}

TEST_F(Skiplist, RemovalSaysWhetherTheElementWasThere) {
  fill({10, 20});
  freed.clear();
  Point like_ten{10, 0};
  EXPECT_EQ(ruxo_skiplist_remove(list_, &like_ten, [](void *data) { freed.push_back(data); }), 1);
  EXPECT_EQ(freed, std::vector<void *>{&points_[0]});
  EXPECT_EQ(ruxo_skiplist_remove(list_, &like_ten, nullptr), 0);
  EXPECT_EQ(forwards(), std::vector<int>{20});
}

TEST_F(Skiplist, DestroyFreesEveryElement) {
  freed.clear();
  ruxo_skiplist *const list = ruxo_skiplist_alloc(compare_points, nullptr);
  for (int i = 0; i < 5; ++i) ruxo_skiplist_insert(list, point(i));
  ruxo_skiplist_destroy(list, [](void *data) { freed.push_back(data); });
  EXPECT_EQ(freed.size(), 5u);
  ruxo_skiplist_destroy(nullptr, nullptr);
}

TEST_F(Skiplist, BuildReplacesTheContent) {
  fill({1, 2, 3});
  void *const sorted[] = {point(10), point(20)};
  EXPECT_EQ(ruxo_skiplist_build(list_, sorted, 2), 0);
  EXPECT_EQ(forwards(), (std::vector<int>{10, 20}));
  EXPECT_EQ(ruxo_skiplist_build(list_, nullptr, 0), 0);
  EXPECT_EQ(ruxo_skiplist_size(list_), 0u);
}

TEST_F(Skiplist, BuildRefusesWhatIsNotStrictlyAscendingAndChangesNothing) {
  fill({1, 2, 3});
  void *const equal[] = {point(10), point(10)};
  void *const descending[] = {point(10), point(30), point(20)};
  EXPECT_EQ(ruxo_skiplist_build(list_, equal, 2), -1);
  EXPECT_EQ(ruxo_skiplist_build(list_, descending, 3), -1);
  EXPECT_EQ(forwards(), (std::vector<int>{1, 2, 3}));
}

TEST_F(Skiplist, BuildRefusesACountBeyondMemory) {
  fill({1});
  EXPECT_EQ(ruxo_skiplist_build_strided(list_, point(5), sizeof(Point), SIZE_MAX), -1);
  EXPECT_EQ(forwards(), std::vector<int>{1});
}

TEST_F(Skiplist, BuildsFromAnArrayOfStructures) {
  Point slots[] = {{10, 1}, {20, 2}, {30, 3}};
  EXPECT_EQ(ruxo_skiplist_build_strided(list_, slots, sizeof slots[0], 3), 0);
  EXPECT_EQ(forwards(), (std::vector<int>{10, 20, 30}));
  EXPECT_EQ(ruxo_skiplist_data(ruxo_skiplist_first(list_)), &slots[0]);
  slots[2].location = 5;
  EXPECT_EQ(ruxo_skiplist_build_strided(list_, slots, sizeof slots[0], 3), -1);
  EXPECT_EQ(ruxo_skiplist_size(list_), 3u);
}

// The list's answers beside those of a set, over random operations.
TEST_F(Skiplist, AgreesWithASetUnderRandomOperations) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::set<int> model;
  for (int i = 0; i < 20000; ++i) {
    const int key = static_cast<int>(random() % 400);
    switch (random() % 3) {
      case 0:
        ASSERT_EQ(ruxo_skiplist_insert(list_, point(key)) != nullptr, model.insert(key).second);
        break;
      case 1: {
        const Point like{key, 0};
        ASSERT_EQ(ruxo_skiplist_remove(list_, &like, nullptr), static_cast<int>(model.erase(key)));
        break;
      }
      default: {
        ruxo_skiplist_node node, prev, next;
        ruxo_skiplist_find_neighbors(list_, &key, &node, &prev, &next);
        ASSERT_EQ(location(node), model.contains(key) ? key : -1);
        const auto after = model.upper_bound(key);
        ASSERT_EQ(location(next), after == model.end() ? -1 : *after);
        const auto at = model.lower_bound(key);
        ASSERT_EQ(location(prev), at == model.begin() ? -1 : *std::prev(at));
      }
    }
    ASSERT_EQ(ruxo_skiplist_size(list_), model.size());
  }
  EXPECT_EQ(forwards(), std::vector<int>(model.begin(), model.end()));
}
