#include "ruxo/hash.h"

#include <sys/random.h>
#include <time.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "ruxo/guard_private.h"

namespace {

uint64_t draw_seed() {
  uint64_t seed = 0;
  if (getrandom(&seed, sizeof seed, 0) == static_cast<ssize_t>(sizeof seed)) return seed;
  // Only before the kernel's generator is ready: the address-space layout and the clock still differ by
  // process.
  struct timespec now {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return reinterpret_cast<uintptr_t>(&now) * 0x9E3779B97F4A7C15u ^ static_cast<uint64_t>(now.tv_nsec);
}

struct SeededHash {
  using is_transparent = void;  // a look-up by view makes no string
  size_t operator()(std::string_view key) const noexcept {
    static const uint64_t seed = draw_seed();
    return XXH3_64bits_withSeed(key.data(), key.size(), seed);
  }
};

using Table = std::unordered_map<std::string, void *, SeededHash, std::equal_to<>>;

const Table *table_of(const ruxo_hash_table *h) {
  return static_cast<const Table *>(h->impl);
}

Table &table_for_change(ruxo_hash_table *h) {
  if (h->impl == nullptr) h->impl = new Table;
  return *static_cast<Table *>(h->impl);
}

std::string_view view(const void *key, size_t key_len) {
  return {static_cast<const char *>(key), key_len};
}

}  // namespace

void ruxo_hash_init(ruxo_hash_table *h) {
  h->impl = nullptr;
}

int ruxo_hash_store(ruxo_hash_table *h, const void *key, size_t key_len, void *data) {
  return ruxo::guarded(0, [&] {
    Table &table = table_for_change(h);
    // Looked up first: a present key is then refused without copying it.
    if (table.find(view(key, key_len)) != table.end()) return 0;
    table.emplace(view(key, key_len), data);
    return 1;
  });
}

int ruxo_hash_replace(ruxo_hash_table *h, const void *key, size_t key_len, void *data,
                      ruxo_hash_free_f free_data) {
  void *old = nullptr;
  const int stored = ruxo::guarded(0, [&] {
    Table &table = table_for_change(h);
    if (const auto found = table.find(view(key, key_len)); found != table.end()) {
      old = std::exchange(found->second, data);
      return 2;
    }
    table.emplace(view(key, key_len), data);
    return 1;
  });
  if (stored == 2 && free_data != nullptr) free_data(old);
  return stored != 0;
}

int ruxo_hash_retrieve(const ruxo_hash_table *h, const void *key, size_t key_len, void **data) {
  const Table *table = table_of(h);
  if (table == nullptr) return 0;
  const auto found = table->find(view(key, key_len));
  if (found == table->end()) return 0;
  if (data != nullptr) *data = found->second;
  return 1;
}

int ruxo_hash_delete(ruxo_hash_table *h, const void *key, size_t key_len, ruxo_hash_free_f free_data) {
  if (h->impl == nullptr) return 0;
  Table &table = table_for_change(h);
  const auto found = table.find(view(key, key_len));
  if (found == table.end()) return 0;
  // Out of the table before the callback, which may use the table itself.
  void *data = found->second;
  table.erase(found);
  if (free_data != nullptr) free_data(data);
  return 1;
}

size_t ruxo_hash_size(const ruxo_hash_table *h) {
  return h->impl == nullptr ? 0 : table_of(h)->size();
}

void ruxo_hash_each(const ruxo_hash_table *h,
                    void (*f)(const void *key, size_t key_len, void *data, void *closure), void *closure) {
  if (h->impl == nullptr) return;
  for (const auto &[key, data] : *table_of(h)) f(key.data(), key.size(), data, closure);
}

void ruxo_hash_destroy(ruxo_hash_table *h, ruxo_hash_free_f free_data) {
  const std::unique_ptr<Table> table(static_cast<Table *>(std::exchange(h->impl, nullptr)));
  if (table == nullptr || free_data == nullptr) return;
  for (const auto &entry : *table) free_data(entry.second);
}
