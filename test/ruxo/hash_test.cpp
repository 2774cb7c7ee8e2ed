#include "ruxo/hash.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "test/support/child_process.h"

namespace {

class Hash : public testing::Test {
 protected:
  Hash() { ruxo_hash_init(&table_); }
  ~Hash() override { ruxo_hash_destroy(&table_, nullptr); }

  int store(const std::string &key, void *data) {
    return ruxo_hash_store(&table_, key.data(), key.size(), data);
  }
  void *get(const std::string &key) {
    void *data = nullptr;
    return ruxo_hash_retrieve(&table_, key.data(), key.size(), &data) ? data : nullptr;
  }

  ruxo_hash_table table_;
  int values_[8] = {};
};

std::vector<void *> freed;
void note_freed(void *data) {
  freed.push_back(data);
}

}  // namespace

TEST_F(Hash, AZeroedTableIsEmpty) {
  const ruxo_hash_table zeroed{};
  EXPECT_EQ(ruxo_hash_size(&zeroed), 0u);
  EXPECT_EQ(ruxo_hash_retrieve(&zeroed, "a", 1, nullptr), 0);
  ruxo_hash_each(
      &zeroed, [](const void *, size_t, void *, void *) { ADD_FAILURE(); }, nullptr);
}

TEST_F(Hash, StoresOnceAndKeepsTheFirstValue) {
  EXPECT_EQ(store("key", &values_[0]), 1);
  EXPECT_EQ(store("key", &values_[1]), 0);
  EXPECT_EQ(get("key"), &values_[0]);
  EXPECT_EQ(ruxo_hash_size(&table_), 1u);
}

TEST_F(Hash, CopiesItsKeys) {
  char key[] = "key";
  EXPECT_EQ(ruxo_hash_store(&table_, key, 3, &values_[0]), 1);
  key[0] = 'x';
  EXPECT_EQ(get("key"), &values_[0]);
  EXPECT_EQ(get("xey"), nullptr);
}

TEST_F(Hash, KeysAreBytesOfAnyValueAndLength) {
  const std::vector<std::string> keys = {
      "",         std::string(1, '\0'),    std::string(2, '\0'), "a", std::string("a\0b", 3),
      "\xff\xfe", std::string(100000, 'x')};
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(store(keys[i], &values_[i]), 1) << i;
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(get(keys[i]), &values_[i]) << i;
  EXPECT_EQ(ruxo_hash_retrieve(&table_, nullptr, 0, nullptr), 1) << "the empty key, by a null pointer";
}

TEST_F(Hash, RetrieveLeavesDataAloneWhenTheKeyIsAbsent) {
  void *data = &values_[3];
  EXPECT_EQ(ruxo_hash_retrieve(&table_, "absent", 6, &data), 0);
  EXPECT_EQ(data, &values_[3]);
}

TEST_F(Hash, RetrieveTellsANullValueFromAnAbsentKey) {
  EXPECT_EQ(store("null", nullptr), 1);
  void *data = &values_[3];
  EXPECT_EQ(ruxo_hash_retrieve(&table_, "null", 4, &data), 1);
  EXPECT_EQ(data, nullptr);
}

TEST_F(Hash, ReplaceFreesTheOldValue) {
  freed.clear();
  EXPECT_EQ(ruxo_hash_replace(&table_, "key", 3, &values_[0], note_freed), 1);
  EXPECT_TRUE(freed.empty());
  EXPECT_EQ(ruxo_hash_replace(&table_, "key", 3, &values_[1], note_freed), 1);
  EXPECT_EQ(freed, std::vector<void *>{&values_[0]});
  EXPECT_EQ(ruxo_hash_replace(&table_, "key", 3, &values_[2], nullptr), 1);
  EXPECT_EQ(freed.size(), 1u);
  EXPECT_EQ(get("key"), &values_[2]);
}

TEST_F(Hash, DeleteFreesAndSaysWhetherTheKeyWasThere) {
  freed.clear();
  EXPECT_EQ(ruxo_hash_delete(&table_, "key", 3, note_freed), 0) << "an empty table";
  store("key", &values_[0]);
  store("other", &values_[1]);
  EXPECT_EQ(ruxo_hash_delete(&table_, "key", 3, note_freed), 1);
  EXPECT_EQ(freed, std::vector<void *>{&values_[0]});
  EXPECT_EQ(ruxo_hash_delete(&table_, "key", 3, note_freed), 0);
  EXPECT_EQ(ruxo_hash_delete(&table_, "other", 5, nullptr), 1);
  EXPECT_EQ(ruxo_hash_size(&table_), 0u);
}

TEST_F(Hash, DestroyFreesEveryValueAndLeavesAnEmptyTable) {
  freed.clear();
  for (int i = 0; i < 8; ++i) store(std::to_string(i), &values_[i]);
  ruxo_hash_destroy(&table_, note_freed);
  EXPECT_EQ(freed.size(), 8u);
  EXPECT_EQ(ruxo_hash_size(&table_), 0u);
  EXPECT_EQ(store("again", &values_[0]), 1);
  ruxo_hash_destroy(&table_, nullptr);
  ruxo_hash_destroy(&table_, nullptr);
}

TEST_F(Hash, AFreeCallbackMayUseTheTable) {
  static ruxo_hash_table *table;
  table = &table_;
  store("key", &values_[0]);
  ruxo_hash_delete(&table_, "key", 3,
                   [](void *data) { EXPECT_EQ(ruxo_hash_store(table, "key", 3, data), 1); });
  EXPECT_EQ(get("key"), &values_[0]);
}

// The table's answers beside those of an ordered map, over random operations.
TEST_F(Hash, AgreesWithAMapUnderRandomOperations) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::map<std::string, void *> model;
  static char values[256];
  for (int i = 0; i < 50000; ++i) {
    const std::string key(random() % 3, static_cast<char>(random() % 40));
    const std::string full_key = key + std::to_string(random() % 300);
    void *const value = &values[random() % 256];
    switch (random() % 4) {
      case 0:
        ASSERT_EQ(store(full_key, value), model.emplace(full_key, value).second);
        break;
      case 1:
        ASSERT_EQ(ruxo_hash_replace(&table_, full_key.data(), full_key.size(), value, nullptr), 1);
        model[full_key] = value;
        break;
      case 2:
        ASSERT_EQ(ruxo_hash_delete(&table_, full_key.data(), full_key.size(), nullptr),
                  model.erase(full_key) == 1);
        break;
      default:
        ASSERT_EQ(get(full_key), model.contains(full_key) ? model[full_key] : nullptr);
    }
    ASSERT_EQ(ruxo_hash_size(&table_), model.size());
  }
  std::map<std::string, void *> seen;
  ruxo_hash_each(
      &table_,
      [](const void *key, size_t key_len, void *data, void *closure) {
        const std::string text(static_cast<const char *>(key), key_len);
        const bool is_new = static_cast<decltype(seen) *>(closure)->emplace(text, data).second;
        EXPECT_TRUE(is_new);
      },
      &seen);
  EXPECT_EQ(seen, model);
}

// Two processes visit the same entries in different orders, because each draws its own seed.
TEST_F(Hash, TheSeedDiffersFromProcessToProcess) {
  FORKS_A_CHILD();
  if (getenv("RUXO_TEST_HASH_ORDER") != nullptr) {  // in a child, see below
    for (int i = 0; i < 1000; ++i) ruxo_hash_store(&table_, &i, sizeof i, nullptr);
    const auto print = [](const void *key, size_t key_len, void *, void *) {
      EXPECT_EQ(write(STDERR_FILENO, key, key_len), static_cast<ssize_t>(key_len));
    };
    ruxo_hash_each(&table_, print, nullptr);
    return;
  }
  const auto order = [] {
    return run_in_child([] {
             setenv("RUXO_TEST_HASH_ORDER", "1", 1);
             execl("/proc/self/exe", "test_ruxo", "--gtest_filter=Hash.TheSeedDiffers*", nullptr);
             _exit(1);
           })
        .stderr_text;
  };
  const std::string first = order();
  EXPECT_EQ(first.size(), 4000u);
  EXPECT_NE(first, order());
}
