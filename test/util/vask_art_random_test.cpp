// The tree next to an ordered map, which says what it holds, and next to the model, which says in which order and in
// which cells: the order of a node of sixteen depends on how it came about.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>

#include "test/util/vask_art_support.h"

namespace {

class Edits {
 public:
  explicit Edits(unsigned seed) : random_(seed), keys_(&random_) {}

  void run(int edits) {
    for (int i = 0; i < edits && !testing::Test::HasFatalFailure(); ++i) {
      edit(keys_.key());
      if (i % 64 == 0) compare();
    }
    compare();
    for (int i = 0; i < 40; ++i) compare_prefix(keys_.prefix());
    while (!map_.empty()) erase(map_.begin()->first);
    ASSERT_EQ(tree_->root, 0u);
  }

 private:
  void edit(const std::string &key) {
    const uintptr_t value = random_() % 1000 + 1;
    switch (random_() % 6) {
      case 0:
      case 1: {
        const auto known = map_.find(key);
        ASSERT_EQ(tree_.insert(key, value), known != map_.end() ? known->second : 0);
        map_[key] = value;
        model_.insert(key, value);
        break;
      }
      case 2: {
        const auto known = map_.find(key);
        ASSERT_EQ(tree_.insert_no_replace(key, value), known != map_.end() ? known->second : 0);
        map_.emplace(key, value);
        model_.insert(key, value, false);
        break;
      }
      case 3:
        erase(key);
        break;
      case 4:
        if (const auto near = map_.lower_bound(key); near != map_.end()) erase(std::string(near->first));
        break;
      default:
        break;
    }
    const auto known = map_.find(key);
    ASSERT_EQ(tree_.find(key), known != map_.end() ? known->second : 0);
    ASSERT_EQ(vask_art_size(tree_.get()), map_.size());
  }

  void erase(const std::string &key) {
    const auto known = map_.find(key);
    const uintptr_t value = known != map_.end() ? known->second : 0;
    ASSERT_EQ(tree_.erase(key), value);
    ASSERT_EQ(model_.erase(key), value);
    if (known != map_.end()) map_.erase(known);
  }

  void compare() {
    const Contents contents = tree_.contents();
    ASSERT_EQ(contents, model_.contents());
    ASSERT_EQ(describe(tree_.get()), model_.describe());
    Contents sorted = contents;
    std::sort(sorted.begin(), sorted.end());
    ASSERT_EQ(sorted, Contents(map_.begin(), map_.end()));
    if (contents.empty()) return;
    ASSERT_EQ(leaf_key(vask_art_minimum(tree_.get())), contents.front().first);
    ASSERT_EQ(leaf_key(vask_art_maximum(tree_.get())), contents.back().first);
  }

  void compare_prefix(const std::string &prefix) {
    Contents expected;
    for (const auto &entry : model_.contents()) {
      if (entry.first.compare(0, prefix.size(), prefix) == 0) expected.push_back(entry);
    }
    ASSERT_EQ(art_contents(tree_.get(), prefix), expected) << hex_text(prefix);
  }

  std::mt19937 random_;
  KeyMaker keys_;
  ArtTree tree_;
  ModelTree model_;
  std::map<std::string, uintptr_t> map_;
};

TEST(ArtRandom, AgreesWithAMapAndTheModelUnderEdits) {
  const unsigned first_seed = fresh_art_seed();
  for (unsigned round = 0; round < 40; ++round) {
    SCOPED_TRACE(testing::Message() << "seed " << first_seed + round);
    Edits(first_seed + round).run(600);
    ASSERT_FALSE(HasFatalFailure());
  }
}

TEST(ArtRandom, RandomKeysOfSixteenBytes) {
  const unsigned seed = fresh_art_seed();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  ArtTree tree;
  std::map<std::string, uintptr_t> map;
  for (uintptr_t i = 1; i <= 20000; ++i) {
    std::string key(16, '\0');
    for (char &byte : key) byte = static_cast<char>(random());
    ASSERT_EQ(tree.insert(key, i), 0u);
    map[key] = i;
  }
  Contents contents = tree.contents();
  std::sort(contents.begin(), contents.end());
  ASSERT_EQ(contents, Contents(map.begin(), map.end()));
  for (const auto &[key, value] : map) ASSERT_EQ(tree.erase(key), value);
  EXPECT_EQ(tree->root, 0u);
}

TEST(ArtRandom, AWordListInBothOrders) {
  // The distribution's words where they are installed, and a list made of syllables everywhere.
  std::vector<std::string> words;
  std::ifstream list("/usr/share/dict/words");
  for (std::string word; std::getline(list, word);) words.push_back(word);
  for (const char *a : {"ba", "be", "bi", "tra", "stro", "qu"}) {
    for (const char *b : {"", "n", "l", "ss", "rt"}) {
      for (const char *c : {"a", "ing", "ness", "\xc3\xa9", "less"}) words.push_back(std::string(a) + b + c);
    }
  }
  std::shuffle(words.begin(), words.end(), std::mt19937(1));
  ArtTree tree;
  std::map<std::string, uintptr_t> map;
  for (const std::string &word : words) {
    const std::string key(word.c_str(), word.size() + 1);
    tree.insert(key, word.size());
    map[key] = word.size();
  }
  ASSERT_EQ(vask_art_size(tree.get()), map.size());
  for (const auto &[key, value] : map) ASSERT_EQ(tree.find(key), value) << key;
  Contents contents = tree.contents();
  std::sort(contents.begin(), contents.end());
  ASSERT_EQ(contents, Contents(map.begin(), map.end()));
}

}  // namespace
