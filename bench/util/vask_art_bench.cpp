// The radix tree next to its neighbours on the same keys, in the same run.
//
//   names    1,000,000 metric names with tags     JudySL, absl::btree_map
//   random   1,000,000 keys of 16 random bytes    absl::flat_hash_map, std::map, absl::btree_map
//   words    the distribution's word list         JudySL
//   image    the names in a mapped image          the tree in memory, LMDB
//
// Each benchmark does one round of its work with ours and one with a neighbour, in turn, and reports the median of
// ours / theirs as `ratio`, in processor time, beside the `goal` (at most) and nanoseconds a key; `best` is the
// quickest round of ours to the quickest of theirs, to be read on a machine that does other work. Keys are asked for in
// random order from one long array, so that fetching the question costs all of them the same.
#include <Judy.h>
#include <absl/container/btree_map.h>
#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>
#include <lmdb.h>
#include <malloc.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/util/vask_art.h"
#include "test/support/temp_dir.h"

namespace {

void require(bool condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "vask_art_bench: %s failed\n", what);
  abort();
}

// ---- keys ----

// Back to back, each followed by a NUL that does not count.
struct Keys {
  std::string bytes;
  std::vector<std::pair<uint32_t, uint32_t>> places;  // offset, length

  void add(std::string_view key) {
    places.emplace_back(static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(key.size()));
    bytes.append(key).push_back('\0');
  }
  size_t size() const { return places.size(); }
  std::string_view operator[](size_t i) const { return {bytes.data() + places[i].first, places[i].second}; }
};

Keys shuffled(std::vector<std::string> keys, unsigned seed) {
  std::shuffle(keys.begin(), keys.end(), std::mt19937(seed));
  Keys result;
  for (const std::string &key : keys) result.add(key);
  return result;
}

struct KeySet {
  Keys inserted, asked, absent;
};

KeySet key_set(const std::vector<std::string> &keys, const std::vector<std::string> &absent) {
  return {shuffled(keys, 1), shuffled(keys, 2), shuffled(absent, 3)};
}

std::string metric_name(unsigned i) {
  static const char *const kMetrics[] = {"cpu|idle", "cpu|user",    "disk|read_bytes", "disk|write_bytes",
                                         "mem|free", "mem|used",    "net|rx_pkt",      "net|tx_pkt",
                                         "load|1m",  "http|latency"};
  static const char *const kZones[] = {"us-east-1a", "us-east-1b", "eu-west-1a", "ap-south-1c"};
  char name[160];
  const unsigned host = i / 20;
  snprintf(name, sizeof name, "%s|ST[device:%s%u,host:web%05u.example.com,zone:%s]", kMetrics[i % 10],
           i / 10 % 2 == 0 ? "sda" : "nvme", host % 3, host, kZones[host % 4]);
  return name;
}

const KeySet &names() {
  static const KeySet set = [] {
    std::vector<std::string> keys, absent;
    // Every second host exists; a name that is absent is that of the host between.
    for (unsigned i = 0; i < 2000000; ++i) (i / 20 % 2 == 0 ? keys : absent).push_back(metric_name(i));
    return key_set(keys, absent);
  }();
  return set;
}

const KeySet &random_keys() {
  static const KeySet set = [] {
    std::mt19937_64 random(4);
    std::vector<std::string> both[2];
    for (auto &keys : both) {
      for (int i = 0; i < 1000000; ++i) {
        char key[16];
        const uint64_t words[2] = {random(), random()};
        memcpy(key, words, sizeof key);
        keys.emplace_back(key, sizeof key);
      }
    }
    return key_set(both[0], both[1]);
  }();
  return set;
}

const KeySet &words() {
  static const KeySet set = [] {
    std::vector<std::string> keys;
    std::ifstream list("/usr/share/dict/words");
    for (std::string word; std::getline(list, word);) keys.push_back(word);
    std::vector<std::string> absent;
    for (const std::string &word : keys) absent.push_back(word + "#");
    return key_set(keys, absent);
  }();
  return set;
}

// ---- the containers, behind one face ----

struct Art {
  vask_art_tree tree;
  bool nul;  // whether the NUL behind a key counts

  explicit Art(bool count_nul) : nul(count_nul) { vask_art_tree_init(&tree); }
  ~Art() { vask_art_tree_destroy(&tree); }
  Art(const Art &) = delete;
  Art &operator=(const Art &) = delete;
  static const unsigned char *bytes(std::string_view key) {
    return reinterpret_cast<const unsigned char *>(key.data());
  }
  int len(std::string_view key) const { return static_cast<int>(key.size()) + (nul ? 1 : 0); }
  void insert(std::string_view key) { vask_art_insert(&tree, bytes(key), len(key), &tree); }
  bool find(std::string_view key) const { return vask_art_search(&tree, bytes(key), len(key)) != nullptr; }
  void erase(std::string_view key) { vask_art_delete(&tree, bytes(key), len(key)); }
  uint64_t walk() const { return walk_tree(&tree); }
  static uint64_t walk_tree(const vask_art_tree *tree) {
    uint64_t sum = 0;
    vask_art_iter(
        tree,
        [](void *data, const unsigned char *key, uint32_t, void *value) {
          *static_cast<uint64_t *>(data) += key[0] + reinterpret_cast<uintptr_t>(value);
          return 0;
        },
        &sum);
    return sum;
  }
};

struct JudySL {
  Pvoid_t array = nullptr;

  JudySL() = default;
  ~JudySL() { JudySLFreeArray(&array, PJE0); }
  JudySL(const JudySL &) = delete;
  JudySL &operator=(const JudySL &) = delete;
  static const uint8_t *bytes(std::string_view key) { return reinterpret_cast<const uint8_t *>(key.data()); }
  void insert(std::string_view key) { *reinterpret_cast<Word_t *>(JudySLIns(&array, bytes(key), PJE0)) = 1; }
  bool find(std::string_view key) const { return JudySLGet(array, bytes(key), PJE0) != nullptr; }
  uint64_t walk() const {
    uint8_t key[256] = "";
    uint64_t sum = 0;
    for (const void *value = JudySLFirst(array, key, PJE0); value != nullptr;
         value = JudySLNext(array, key, PJE0))
      sum += key[0] + *static_cast<const Word_t *>(value);
    return sum;
  }
};

// View is what the map looks up without making a string of it.
template <typename Map, typename View>
struct Container {
  Map map;

  static View view(std::string_view key) { return {key.data(), key.size()}; }

  void insert(std::string_view key) { map.emplace(std::string(key), this); }
  bool find(std::string_view key) const { return map.find(view(key)) != map.end(); }
  void erase(std::string_view key) {
    const auto at = map.find(view(key));
    if (at != map.end()) map.erase(at);
  }
  uint64_t walk() const {
    uint64_t sum = 0;
    for (const auto &[key, value] : map)
      sum += static_cast<unsigned char>(key[0]) + reinterpret_cast<uintptr_t>(value);
    return sum;
  }
};
using BTree = Container<absl::btree_map<std::string, void *>, absl::string_view>;
using HashTable = Container<absl::flat_hash_map<std::string, void *>, absl::string_view>;
using StdMap = Container<std::map<std::string, void *, std::less<>>, std::string_view>;

// One read transaction for all: what a reader that is fast keeps open.
struct Lmdb {
  TempDir dir;
  MDB_env *env = nullptr;
  MDB_txn *txn = nullptr;
  MDB_dbi dbi = 0;

  explicit Lmdb(const KeySet &set) {
    require(mdb_env_create(&env) == 0 && mdb_env_set_mapsize(env, size_t{1} << 30) == 0, "mdb_env_create");
    require(mdb_env_open(env, dir.path().c_str(), MDB_NOSYNC, 0600) == 0, "mdb_env_open");
    require(mdb_txn_begin(env, nullptr, 0, &txn) == 0 && mdb_dbi_open(txn, nullptr, 0, &dbi) == 0,
            "mdb_dbi_open");
    for (size_t i = 0; i < set.inserted.size(); ++i) {
      MDB_val key = of(set.inserted[i]);
      uint64_t one = 1;
      MDB_val value = {sizeof one, &one};
      require(mdb_put(txn, dbi, &key, &value, 0) == 0, "mdb_put");
    }
    require(mdb_txn_commit(txn) == 0 && mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) == 0, "mdb_txn_commit");
  }
  ~Lmdb() {
    mdb_txn_abort(txn);
    mdb_env_close(env);
  }
  Lmdb(const Lmdb &) = delete;
  Lmdb &operator=(const Lmdb &) = delete;
  static MDB_val of(std::string_view key) { return {key.size(), const_cast<char *>(key.data())}; }
  bool find(std::string_view key) const {
    MDB_val k = of(key), v;
    return mdb_get(txn, dbi, &k, &v) == 0;
  }
  uint64_t walk() const {
    MDB_cursor *cursor = nullptr;
    require(mdb_cursor_open(txn, dbi, &cursor) == 0, "mdb_cursor_open");
    MDB_val k, v;
    uint64_t sum = 0;
    while (mdb_cursor_get(cursor, &k, &v, MDB_NEXT) == 0) {
      uint64_t value = 0;
      memcpy(&value, v.mv_data, sizeof value);
      sum += *static_cast<const unsigned char *>(k.mv_data) + value;
    }
    mdb_cursor_close(cursor);
    return sum;
  }
};

// The tree of a set in a mapped image.
struct Image {
  TempDir dir;
  file_serializer_t *ser = nullptr;
  vask_art_tree_interposition_t ops{};
  vask_art_tree tree;

  explicit Image(const Art &from) {
    uintptr_t root = 0;
    ops.read_only = true;
    ser = vask_art_serializer_new(dir.file("image").c_str(), 1, true);
    require(ser != nullptr && vask_art_serializer_write_tree(ser, &from.tree, nullptr, nullptr, &root),
            "write_tree");
    require(vask_art_serializer_finalize(ser, VASK_ART_SER_COMPLETE), "finalize");
    vask_art_serializer_destroy(ser);
    ser = vask_art_serializer_new(dir.file("image").c_str(), 1, false);
    require(ser != nullptr && vask_art_serializer_tree_at_offset(ser, &tree, root, &ops, nullptr),
            "tree_at_offset");
  }
  ~Image() { vask_art_serializer_destroy(ser); }
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;
  bool find(std::string_view key) const {
    return vask_art_search(&tree, Art::bytes(key), static_cast<int>(key.size()) + 1) != nullptr;
  }
  uint64_t walk() const { return Art::walk_tree(&tree); }
};

template <typename Container>
const Container &filled(const KeySet &set, Container *container) {
  for (size_t i = 0; i < set.inserted.size(); ++i) container->insert(set.inserted[i]);
  return *container;
}
template <typename Container>
const Container &of_names() {
  static Container container;
  static const Container &result = filled(names(), &container);
  return result;
}
template <typename Container>
const Container &of_random() {
  static Container container;
  static const Container &result = filled(random_keys(), &container);
  return result;
}
template <typename Container>
const Container &of_words() {
  static Container container;
  static const Container &result = filled(words(), &container);
  return result;
}
struct ArtOfStrings : Art {
  ArtOfStrings() : Art(true) {}
};
struct ArtOfBytes : Art {
  ArtOfBytes() : Art(false) {}
};
const Image &image_of_names() {
  static const Image image(of_names<ArtOfStrings>());
  return image;
}
const Lmdb &lmdb_of_names() {
  static const Lmdb lmdb(names());
  return lmdb;
}

// ---- comparing ----

// Of this thread's processor time, which other work on the machine disturbs least.
double now_s() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}
template <typename Work>
double seconds_of(Work work) {
  const double begin = now_s();
  work();
  return now_s() - begin;
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

template <typename Ours, typename Theirs>
void compare(benchmark::State &state, size_t keys, double goal, Ours ours, Theirs theirs) {
  std::vector<double> ratios, our_ns, their_ns;
  const double ns = 1e9 / static_cast<double>(keys);
  theirs();  // both warm, in the order in which they will follow each other
  ours();
  for (auto _ : state) {
    const double our_s = seconds_of(ours);
    const double their_s = seconds_of(theirs);
    ratios.push_back(our_s / their_s);
    our_ns.push_back(our_s * ns);
    their_ns.push_back(their_s * ns);
    state.SetIterationTime(our_s);
  }
  state.counters["ratio"] = median(ratios);
  state.counters["best"] =
      *std::min_element(our_ns.begin(), our_ns.end()) / *std::min_element(their_ns.begin(), their_ns.end());
  state.counters["goal"] = goal;
  state.counters["ns"] = median(our_ns);
  state.counters["their_ns"] = median(their_ns);
}

constexpr size_t kAsked = 100000;  // a round; the next one goes on where it ended

template <typename Ours, typename Theirs>
void compare_finding(benchmark::State &state, double goal, const Keys &asked, bool there, const Ours &ours,
                     const Theirs &theirs) {
  const size_t count = std::min(kAsked, asked.size());
  const auto ask = [&](const auto &container, size_t *from) {
    size_t found = 0;
    for (size_t i = 0; i < count; ++i) {
      found += container.find(asked[*from]);
      if (++*from == asked.size()) *from = 0;
    }
    require(found == (there ? count : 0), "a search");
  };
  size_t our_place = 0, their_place = 0;
  compare(
      state, count, goal, [&] { ask(ours, &our_place); }, [&] { ask(theirs, &their_place); });
}

template <typename Ours, typename Theirs>
void compare_walking(benchmark::State &state, double goal, size_t keys, const Ours &ours,
                     const Theirs &theirs) {
  compare(
      state, keys, goal, [&] { benchmark::DoNotOptimize(ours.walk()); },
      [&] { benchmark::DoNotOptimize(theirs.walk()); });
}

// Memory that a round has freed stays with the process: what is measured is not the kernel handing out pages.
template <typename Container>
void fill_and_empty(const KeySet &set) {
  static const int kept = mallopt(M_TRIM_THRESHOLD, INT_MAX);
  require(kept == 1, "mallopt");
  Container container;
  for (size_t i = 0; i < set.inserted.size(); ++i) container.insert(set.inserted[i]);
  for (size_t i = 0; i < set.asked.size(); ++i) container.erase(set.asked[i]);
}

#define COMPARE(name, ...)             \
  void name(benchmark::State &state) { \
    __VA_ARGS__;                       \
  }                                    \
  BENCHMARK(name)->UseManualTime()->Unit(benchmark::kMillisecond)

COMPARE(BM_NamesHitToJudy,
        compare_finding(state, 0.55, names().asked, true, of_names<ArtOfStrings>(), of_names<JudySL>()));
COMPARE(BM_NamesMissToJudy,
        compare_finding(state, 0.60, names().absent, false, of_names<ArtOfStrings>(), of_names<JudySL>()));
COMPARE(BM_NamesWalkToJudy,
        compare_walking(state, 0.60, names().inserted.size(), of_names<ArtOfStrings>(), of_names<JudySL>()));
COMPARE(BM_NamesWalkToBTree,
        compare_walking(state, 0.85, names().inserted.size(), of_names<ArtOfStrings>(), of_names<BTree>()));
COMPARE(BM_RandomHitToHashTable, compare_finding(state, 1.1, random_keys().asked, true,
                                                 of_random<ArtOfBytes>(), of_random<HashTable>()));
COMPARE(BM_RandomHitToStdMap, compare_finding(state, 0.15, random_keys().asked, true, of_random<ArtOfBytes>(),
                                              of_random<StdMap>()));
COMPARE(BM_WordsHitToJudy,
        compare_finding(state, 1.25, words().asked, true, of_words<ArtOfStrings>(), of_words<JudySL>()));
COMPARE(BM_NamesEditToBTree,
        compare(
            state, 2 * names().asked.size(), 0.6, [] { fill_and_empty<ArtOfStrings>(names()); },
            [] { fill_and_empty<BTree>(names()); }));
COMPARE(BM_RandomEditToBTree,
        compare(
            state, 2 * random_keys().asked.size(), 0.6, [] { fill_and_empty<ArtOfBytes>(random_keys()); },
            [] { fill_and_empty<BTree>(random_keys()); }));
COMPARE(BM_WordsEditToBTree,
        compare(
            state, 2 * words().asked.size(), 0.6, [] { fill_and_empty<ArtOfStrings>(words()); },
            [] { fill_and_empty<BTree>(words()); }));
COMPARE(BM_ImageHitToMemory,
        compare_finding(state, 1.1, names().asked, true, image_of_names(), of_names<ArtOfStrings>()));
COMPARE(BM_ImageWalkToMemory,
        compare_walking(state, 1.1, names().asked.size(), image_of_names(), of_names<ArtOfStrings>()));
COMPARE(BM_ImageHitToLmdb,
        compare_finding(state, 0.45, names().asked, true, image_of_names(), lmdb_of_names()));
COMPARE(BM_ImageWalkToLmdb,
        compare_walking(state, 0.60, names().asked.size(), image_of_names(), lmdb_of_names()));

}  // namespace
