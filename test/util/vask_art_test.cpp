#include "liborlith/util/vask_art.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>

#include "ruxo/log.h"
#include "test/util/vask_art_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(Art, CellsAreLaidOutAsImagesHoldThem) {
  EXPECT_EQ(sizeof(vask_art_node4), 56u);
  EXPECT_EQ(offsetof(vask_art_node4, keys), 16u);
  EXPECT_EQ(offsetof(vask_art_node4, children), 24u);
  EXPECT_EQ(sizeof(vask_art_node16), 160u);
  EXPECT_EQ(offsetof(vask_art_node16, children), 32u);
  EXPECT_EQ(sizeof(vask_art_node48), 656u);
  EXPECT_EQ(offsetof(vask_art_node48, children), 272u);
  EXPECT_EQ(sizeof(vask_art_node256), 2064u);
  EXPECT_EQ(offsetof(vask_art_node256, children), 16u);
  EXPECT_EQ(offsetof(vask_art_leaf, key_len), 8u);
  EXPECT_EQ(offsetof(vask_art_leaf, key), 12u);
  EXPECT_EQ(offsetof(vask_art_tree, size), 8u);
  EXPECT_EQ(offsetof(vask_art_tree, ser), 16u);
  EXPECT_EQ(offsetof(vask_art_tree, ops), 24u);
  EXPECT_EQ(offsetof(vask_art_tree, ops_closure), 32u);
  EXPECT_EQ(offsetof(file_serializer_t, offset), 8u);
  EXPECT_EQ(offsetof(file_serializer_t, base), 16u);
  EXPECT_EQ(offsetof(file_serializer_t, mapped), 24u);
  EXPECT_EQ(offsetof(vask_art_tree_interposition_t, alloc), 24u);
  EXPECT_EQ(offsetof(vask_art_tree_interposition_t, read_only), 56u);
}

TEST(Art, AFreshTreeIsEmptyInMemoryWithDefaultHooks) {
  vask_art_tree tree;
  memset(&tree, 0x5a, sizeof tree);
  EXPECT_EQ(vask_art_tree_init(&tree), 0);
  EXPECT_EQ(tree.root, 0u);
  EXPECT_EQ(vask_art_size(&tree), 0u);
  EXPECT_EQ(tree.ser, &self_image_ser);
  EXPECT_EQ(tree.ops, &vask_art_tree_default_interposition);
  EXPECT_EQ(tree.ops_closure, nullptr);
  EXPECT_EQ(self_image_ser.fd, -1);
  EXPECT_EQ(self_image_ser.offset, 0u);
  EXPECT_EQ(self_image_ser.base, 0u);
  EXPECT_FALSE(self_image_ser.mapped);
  EXPECT_EQ(vask_art_tree_destroy(&tree), 0);
}

TEST(Art, TheDefaultHooksAllocateFreeAndDoNothingElse) {
  const vask_art_tree_interposition_t &ops = vask_art_tree_default_interposition;
  EXPECT_EQ(ops.serialize, nullptr);
  EXPECT_EQ(ops.deserialize, nullptr);
  EXPECT_EQ(ops.release, nullptr);
  EXPECT_EQ(ops.alloc, vask_art_default_alloc);
  EXPECT_EQ(ops.free, vask_art_default_free);
  EXPECT_EQ(ops.deserialize_tmp, nullptr);
  EXPECT_EQ(ops.release_tmp, nullptr);
  EXPECT_FALSE(ops.read_only);
}

int fail_if_called(void *, const unsigned char *, uint32_t, void *) {
  ADD_FAILURE() << "called";
  return 1;
}
int fail_if_called_partial(void *, const unsigned char *, uint32_t, bool, void *) {
  ADD_FAILURE() << "called";
  return 1;
}

TEST(Art, AnEmptyTreeHasNothing) {
  ArtTree tree;
  const auto *key = reinterpret_cast<const unsigned char *>("a");
  EXPECT_EQ(vask_art_search(tree.get(), key, 1), nullptr);
  EXPECT_EQ(vask_art_search(tree.get(), nullptr, 0), nullptr);
  EXPECT_EQ(vask_art_minimum(tree.get()), nullptr);
  EXPECT_EQ(vask_art_maximum(tree.get()), nullptr);
  EXPECT_EQ(vask_art_delete(tree.get(), key, 1), nullptr);
  EXPECT_EQ(vask_art_iter(tree.get(), fail_if_called, nullptr), 0);
  EXPECT_EQ(vask_art_iter_prefix(tree.get(), key, 1, fail_if_called, nullptr), 0);
  EXPECT_EQ(vask_art_iter_prefix(tree.get(), nullptr, 0, fail_if_called, nullptr), 0);
  EXPECT_EQ(vask_art_iter_bfsp_prefix(tree.get(), nullptr, 0, fail_if_called_partial, nullptr), 0);
  EXPECT_EQ(vask_art_size(tree.get()), 0u);
}

TEST(Art, TheEmptyKeyIsAKey) {
  ArtTree tree;
  EXPECT_EQ(vask_art_insert(tree.get(), nullptr, 0, value_of(7)), nullptr);
  EXPECT_EQ(vask_art_size(tree.get()), 1u);
  EXPECT_EQ(number_of(vask_art_search(tree.get(), nullptr, 0)), 7u);
  EXPECT_EQ(number_of(vask_art_search(tree.get(), nullptr, -3)), 7u);
  EXPECT_EQ(tree.find("a"), 0u);
  EXPECT_THAT(tree.keys(), ElementsAre(""));
  EXPECT_THAT(tree.keys(""), ElementsAre(""));
  EXPECT_THAT(tree.keys("a"), IsEmpty());
  EXPECT_EQ(vask_art_minimum(tree.get())->key_len, 0u);
  EXPECT_EQ(number_of(vask_art_delete(tree.get(), nullptr, 0)), 7u);
  EXPECT_EQ(vask_art_size(tree.get()), 0u);
}

TEST(Art, DestroyLeavesAnEmptyTree) {
  ArtTree tree;
  tree.insert("one", 1);
  tree.insert("two", 2);
  EXPECT_EQ(vask_art_tree_destroy(tree.get()), 0);
  EXPECT_EQ(vask_art_size(tree.get()), 0u);
  EXPECT_EQ(tree.insert("one", 3), 0u);
  EXPECT_EQ(tree.find("one"), 3u);
}

TEST(Art, MinimumAndMaximumAreTheEnds) {
  ArtTree tree;
  // In each of the four kinds of node.
  for (const unsigned count : {1u, 4u, 16u, 48u, 100u, 256u}) {
    for (unsigned i = 0; i < count; ++i) tree.insert(key_at(255 - i * 255 / std::max(1u, count - 1), "x"), 9);
    const std::vector<std::string> keys = tree.keys();
    ASSERT_EQ(leaf_key(vask_art_minimum(tree.get())), keys.front()) << count;
    ASSERT_EQ(leaf_key(vask_art_maximum(tree.get())), keys.back()) << count;
    EXPECT_EQ(number_of(vask_art_minimum(tree.get())->value), 9u);
  }
}

// ---- hooks ----

// Counts cells by size, and keeps account of what was not freed.
struct Account {
  std::map<void *, size_t> live;
  std::vector<size_t> asked;
  const vask_art_tree *tree = nullptr;

  vask_art_tree_interposition_t hooks() {
    vask_art_tree_interposition_t ops{};
    ops.alloc = [](void *closure, const vask_art_tree *t, size_t len) {
      auto *self = static_cast<Account *>(closure);
      EXPECT_EQ(t, self->tree);
      void *cell = malloc(len);
      memset(cell, 0x5a, len);
      self->live[cell] = len;
      self->asked.push_back(len);
      return cell;
    };
    ops.free = [](void *closure, const vask_art_tree *t, void *cell) {
      auto *self = static_cast<Account *>(closure);
      EXPECT_EQ(t, self->tree);
      EXPECT_EQ(self->live.erase(cell), 1u);
      free(cell);
    };
    return ops;
  }
};

TEST(Art, EveryCellComesFromAndGoesToTheHooks) {
  Account account;
  vask_art_tree_interposition_t ops = account.hooks();
  ArtTree tree;
  account.tree = tree.get();
  vask_art_tree_interpose(tree.get(), nullptr, &ops, &account);
  EXPECT_EQ(tree->ser, &self_image_ser);
  EXPECT_EQ(tree->ops_closure, &account);
  tree.insert("abc");
  EXPECT_THAT(account.asked, ElementsAre(3u + 16));
  tree.insert("abd");
  EXPECT_THAT(account.asked, ElementsAre(19u, 56u, 19u));
  for (unsigned i = 0; i < 256; ++i) tree.insert(key_at(i, "12345"));
  std::map<size_t, int> sizes;
  for (const size_t len : account.asked) ++sizes[len];
  EXPECT_EQ(sizes[160], 1);
  EXPECT_EQ(sizes[656], 1);
  EXPECT_EQ(sizes[2064], 1);
  EXPECT_EQ(account.live.size(), vask_art_size(tree.get()) + 3) << "inner nodes: the root and two of four";
  for (unsigned i = 0; i < 200; ++i) tree.erase(key_at(i, "12345"));
  vask_art_tree_destroy(tree.get());
  EXPECT_TRUE(account.live.empty());
}

TEST(Art, WithoutATableTheDefaultHooksServe) {
  ArtTree tree;
  vask_art_tree_interpose(tree.get(), nullptr, nullptr, nullptr);
  EXPECT_EQ(tree.insert("one", 1), 0u);
  EXPECT_EQ(tree.insert("two", 2), 0u);
  EXPECT_EQ(tree.find("one"), 1u);
  EXPECT_THAT(tree.keys(), ElementsAre("one", "two"));
  vask_art_release(tree.get(), nullptr);
  vask_art_release_tmp(tree.get(), nullptr);
  EXPECT_EQ(tree.erase("one"), 1u);
}

// Stored values are offsets from the base of the tree; what callers get is `stored` plus 1000.
struct Translations {
  int released = 0, released_tmp = 0;
  vask_art_tree_interposition_t hooks() {
    vask_art_tree_interposition_t ops{};
    ops.alloc = vask_art_default_alloc;
    ops.free = vask_art_default_free;
    ops.deserialize = [](void *, const vask_art_tree *, const void *stored) {
      return stored != nullptr ? value_of(number_of(stored) + 1000) : nullptr;
    };
    ops.deserialize_tmp = [](void *, const vask_art_tree *, const void *stored) {
      return stored != nullptr ? value_of(number_of(stored) + 2000) : value_of(5);
    };
    ops.release = [](void *closure, const vask_art_tree *, void *value) {
      EXPECT_EQ(number_of(value), 1017u);
      ++static_cast<Translations *>(closure)->released;
    };
    ops.release_tmp = [](void *closure, const vask_art_tree *, void *) {
      ++static_cast<Translations *>(closure)->released_tmp;
    };
    return ops;
  }
};

TEST(Art, ValuesPassThroughTheHooks) {
  Translations translations;
  vask_art_tree_interposition_t ops = translations.hooks();
  ArtTree tree;
  vask_art_tree_interpose(tree.get(), nullptr, &ops, &translations);
  tree.insert("a", 17);
  tree.insert("b", 0);
  EXPECT_EQ(tree.find("a"), 1017u);
  EXPECT_EQ(tree.find("b"), 0u);
  vask_art_release(tree.get(), value_of(1017));
  EXPECT_EQ(translations.released, 1);
  EXPECT_EQ(tree.contents(), (Contents{{"a", 2017}, {"b", 5}}));
  EXPECT_EQ(translations.released_tmp, 2);
  EXPECT_EQ(tree.insert("a", 18), 17u) << "as stored";
  EXPECT_EQ(number_of(vask_art_minimum(tree.get())->value), 18u) << "as stored";
  EXPECT_EQ(tree.erase("a"), 18u) << "as stored";
  EXPECT_EQ(translations.released, 1);
}

TEST(Art, PinsCountFromTheBaseOfTheSerializer) {
  file_serializer_t ser = {-1, 0, 0x100, false};
  ArtTree tree;
  vask_art_tree_interpose(tree.get(), &ser, &vask_art_tree_default_interposition, nullptr);
  ModelTree model;
  for (unsigned i = 0; i < 300; ++i) {
    const std::string key = key_at(i % 256) + "0123456789abcdef" + key_at(i / 3);
    tree.insert(key, i + 1);
    model.insert(key, i + 1);
  }
  EXPECT_EQ(describe(tree.get()), model.describe());
  EXPECT_EQ(NODE_2_PIN(&ser, PIN_2_NODE(&ser, tree->root)), tree->root);
  EXPECT_EQ(PIN_2_NODE(&ser, 0), nullptr);
  EXPECT_EQ(tree.find(key_at(7) + "0123456789abcdef" + key_at(2)), 8u);
  for (unsigned i = 0; i < 250; ++i)
    EXPECT_NE(tree.erase(key_at(i % 256) + "0123456789abcdef" + key_at(i / 3)), 0u);
}

// ---- what is fatal ----

std::string fatal_line(const std::string &condition) {
  return "message=\"\\[FATAL\\] assertion \\(" + condition + "\\) at util/vask_art\\.cpp:[0-9]+ failed\"\n";
}

TEST(ArtDeathTest, HooksOfATreeWithKeysCannotBeChanged) {
  ArtTree tree;
  tree.insert("a");
  EXPECT_DEATH(vask_art_tree_interpose(tree.get(), nullptr, &vask_art_tree_default_interposition, nullptr),
               fatal_line("t->size == 0"));
}

TEST(ArtDeathTest, AReadOnlyTreeIsNotWritten) {
  vask_art_tree_interposition_t ops = vask_art_tree_default_interposition;
  ops.read_only = true;
  vask_art_tree tree;
  vask_art_tree_init(&tree);
  vask_art_tree_interpose(&tree, nullptr, &ops, nullptr);
  const auto *key = reinterpret_cast<const unsigned char *>("a");
  const std::string line = fatal_line("!t->ops \\|\\| !t->ops->read_only");
  EXPECT_DEATH(vask_art_insert(&tree, key, 1, nullptr), line);
  EXPECT_DEATH(vask_art_insert_no_replace(&tree, key, 1, nullptr), line);
  EXPECT_DEATH(vask_art_delete(&tree, key, 1), line);
}

TEST(ArtDeathTest, ANodeOfUnknownTypeStopsEveryWalk) {
  ArtTree tree;
  tree.insert("a");
  tree.insert("b");
  vask_art_node *root = PIN_2_NODE(tree->ser, tree->root);
  root->type = 5;
  const std::string line = "message=\"\\[FATAL\\] radix tree node of unknown type 5\"\n";
  const auto *key = reinterpret_cast<const unsigned char *>("a");
  EXPECT_DEATH(vask_art_search(tree.get(), key, 1), line);
  EXPECT_DEATH(vask_art_insert(tree.get(), key, 1, nullptr), line);
  EXPECT_DEATH(vask_art_delete(tree.get(), key, 1), line);
  EXPECT_DEATH(vask_art_minimum(tree.get()), line);
  EXPECT_DEATH(vask_art_maximum(tree.get()), line);
  EXPECT_DEATH(vask_art_iter(tree.get(), fail_if_called, nullptr), line);
  EXPECT_DEATH(vask_art_iter_bfsp_prefix(tree.get(), nullptr, 0, fail_if_called_partial, nullptr), line);
  EXPECT_DEATH(vask_art_tree_destroy(tree.get()), line);
  root->type = NODE4;
}

}  // namespace
