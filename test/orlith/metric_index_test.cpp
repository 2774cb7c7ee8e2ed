#include "orlith/metric_index.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "orlith/histogram_line.h"
#include "orlith/metric_index_builder.h"
#include "test/orlith/index_model.h"
#include "test/support/faults.h"
#include "test/support/temp_dir.h"

namespace {

const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
const std::string kOther = "6f2d1c66-9d0e-4c35-8a35-0123456789ac";

MetricPlace rollup(uint32_t period_s) {
  MetricPlace place;
  place.period_s = period_s;
  place.kinds = kind_rollup;
  return place;
}

struct Written {
  TempDir folder;
  MetricIndexBuilder::Counts counts;

  explicit Written(const MetricIndexBuilder &builder, uint64_t trees_hash = 0) {
    const int fd = open(path().c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    EXPECT_EQ(builder.write(fd, trees_hash, &counts), 0);
    close(fd);
  }
  std::string path() const { return folder.file("index"); }
  std::unique_ptr<MetricIndex> index() const {
    Problem problem;
    auto opened = MetricIndex::open(path(), &problem);
    EXPECT_EQ(problem.text, "");
    return opened;
  }
};

std::string fault_of_opening(const std::string &bytes, ExitCode *code = nullptr) {
  const TempDir folder;
  Problem problem;
  EXPECT_EQ(MetricIndex::open(folder.write("index", bytes), &problem), nullptr);
  if (code != nullptr) *code = problem.code;
  return problem.text;
}

std::string fault_of_verifying(const std::string &bytes) {
  const TempDir folder;
  Problem problem;
  const auto index = MetricIndex::open(folder.write("index", bytes), &problem);
  return index == nullptr ? "not opened: " + problem.text : index->verify();
}

using Keys = std::vector<std::string>;

Keys keys_with(const MetricIndex &index, const std::vector<std::string> &tags) {
  Keys keys;
  EXPECT_EQ(index.each_with_tags(tags,
                                 [&](std::string_view key, const MetricFiles &) {
                                   keys.emplace_back(key);
                                   return true;
                                 }),
            "");
  std::sort(keys.begin(), keys.end());
  return keys;
}

struct MetricIndexTest : testing::Test {
  MetricIndexTest() { start_library(); }
};

// Two metrics, one tag that both have and one that one has, block by block as doc/metric-index.md says.
TEST_F(MetricIndexTest, TheBytesOfTwoMetrics) {
  MetricIndexBuilder builder;
  EXPECT_TRUE(builder.add(kCheck + "-b|ST[c:1,d:2]", rollup(60)));
  EXPECT_TRUE(builder.add(kCheck + "-a|ST[c:1]", rollup(60)));
  EXPECT_FALSE(builder.add(kCheck + "-a|ST[c:1]", rollup(60)));
  const std::string trees = "60\n";
  const Written written(builder, XXH3_64bits(trees.data(), trees.size()));

  IndexModel model;
  const uint64_t files = model.rollups({60});
  const uint64_t a = model.leaf(kCheck + "-a|ST[c:1]", files),
                 b = model.leaf(kCheck + "-b|ST[c:1,d:2]", files);
  const uint64_t metrics = model.node4(kCheck + "-", {{'a', a}, {'b', b}});
  const uint64_t both = model.list({a, b});
  const uint64_t c = model.leaf("c:1", both);
  const uint64_t one = model.list({b});
  const uint64_t d = model.leaf("d:2", one);
  const uint64_t tags = model.node4("", {{'c', c}, {'d', d}});
  EXPECT_EQ(written.folder.read("index"), model.finish(metrics, 2, tags, 2, 3));
  EXPECT_EQ(written.counts.metrics, 2u);
  EXPECT_EQ(written.counts.tags, 2u);
  EXPECT_EQ(written.counts.tagged, 3u);
  EXPECT_EQ(written.counts.bytes, model.bytes.size());
  EXPECT_EQ(written.index()->verify(), "");
}

// The worked example of doc/metric-index.md.
TEST_F(MetricIndexTest, TheBytesOfOneMetric) {
  static constexpr uint8_t kBytes[] = {
      0x41, 0x52, 0x54, 0x00, 0x01, 0x00, 0x01, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x3c, 0x00, 0x00, 0x00,
      0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x31, 0x00, 0x00, 0x00, '6',  'f',  '2',  'd',  '1',  'c',  '6',  '6',  '-',  '9',  'd',  '0',
      'e',  '-',  '4',  'c',  '3',  '5',  '-',  '8',  'a',  '3',  '5',  '-',  '0',  '1',  '2',  '3',
      '4',  '5',  '6',  '7',  '8',  '9',  'a',  'b',  '-',  'c',  'p',  'u',  '|',  'S',  'T',  '[',
      'a',  ':',  '1',  ']',  0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x05, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x68, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x04, 0x00, 0x00, 0x00, 'a',  ':',  '1',  0x00, 'M',  'I',  'D',  'X',  0x01, 0x00, 0x00, 0x00,
      0xd0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x29, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x79, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
      0xbf, 0xcd, 0x10, 0xfc, 0x3d, 0x66, 0xe0, 0x9d, 0x58, 0xe2, 0xe9, 0x5c, 0xe3, 0xa9, 0x2b, 0x82};
  MetricIndexBuilder builder;
  builder.add(kCheck + "-cpu|ST[a:1]", rollup(60));
  const Written written(builder, XXH3_64bits("60\n", 3));
  EXPECT_EQ(written.folder.read("index"), std::string(reinterpret_cast<const char *>(kBytes), sizeof kBytes));
}

TEST_F(MetricIndexTest, AnEmptyIndexIsAHeaderAndADirectory) {
  const Written written{MetricIndexBuilder()};
  EXPECT_EQ(written.folder.read("index").size(), 8u + 72);
  const auto index = written.index();
  EXPECT_EQ(index->verify(), "");
  std::optional<MetricFiles> files;
  EXPECT_EQ(index->find(kCheck + "-a", &files), "");
  EXPECT_FALSE(files.has_value());
  EXPECT_EQ(keys_with(*index, {"a:b"}), Keys());
}

TEST_F(MetricIndexTest, ANameThatBeginsAnotherAndTheEmptyOneAreFound) {
  MetricIndexBuilder builder;
  const Keys keys = {kCheck + "-", kCheck + "-c", kCheck + "-cpu", kCheck + "-cpu|ST[a:]",
                     kCheck + "-cpu|ST[a:1]"};
  for (const std::string &key : keys) builder.add(key, rollup(60));
  const Written written(builder);
  const auto index = written.index();
  for (const std::string &key : keys) {
    std::optional<MetricFiles> files;
    EXPECT_EQ(index->find(key, &files), "");
    EXPECT_TRUE(files.has_value()) << key;
  }
  std::optional<MetricFiles> files;
  EXPECT_EQ(index->find(kCheck + "-cp", &files), "");
  EXPECT_FALSE(files.has_value());
  EXPECT_EQ(keys_with(*index, {"a:"}), Keys{kCheck + "-cpu|ST[a:]"});
}

// Sorted vectors and nested loops know what should come out.
TEST_F(MetricIndexTest, AnswersAsPlainVectorsDo) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  std::map<std::string, MetricFiles> model;
  std::map<std::string, std::set<std::string>> tags_of;
  MetricIndexBuilder builder;
  for (int i = 0; i < 4000; ++i) {
    // Canonical as they are: single tags a to d, each of few values, in order.
    std::set<std::string> tags;
    for (char category = 'a'; category <= 'd'; ++category)
      if (random() % 3 != 0)
        tags.insert(std::string(1, category) + ":" + std::to_string(random() % (category == 'a' ? 200 : 4)));
    std::string key = (random() % 2 == 0 ? kCheck : kOther) + "-m" + std::to_string(random() % 500);
    for (const std::string &tag : tags) key += (key.find("|ST[") == std::string::npos ? "|ST[" : ",") + tag;
    if (!tags.empty()) key += "]";
    MetricPlace place = rollup(random() % 2 == 0 ? 60 : 300);
    if (random() % 4 == 0) place.kinds = kind_histograms;
    place.below_node = random() % 8 == 0;
    if (place.below_node) place.node.fill(static_cast<uint8_t>(random() % 3));
    add_place(&model[key], place);
    tags_of[key] = tags;
    builder.add(key, place);
  }
  const Written written(builder);
  const auto index = written.index();
  ASSERT_EQ(index->verify(), "");
  ASSERT_EQ(index->directory().metric_count, model.size());
  for (const auto &[key, files] : model) {
    std::optional<MetricFiles> found;
    ASSERT_EQ(index->find(key, &found), "");
    ASSERT_TRUE(found.has_value());
    ASSERT_EQ(*found, files);
  }
  for (const std::string &prefix :
       {std::string(), kCheck, kOther + "-m1", kCheck + "-m499|ST[", std::string("7")}) {
    std::map<std::string, MetricFiles> expected, found;
    for (const auto &entry : model)
      if (entry.first.starts_with(prefix)) expected.insert(entry);
    ASSERT_EQ(index->each(prefix, [&](std::string_view key,
                                      const MetricFiles &files) { return found.emplace(key, files).second; }),
              "");
    ASSERT_EQ(found, expected);
  }
  for (int i = 0; i < 300; ++i) {
    std::vector<std::string> wanted;
    for (size_t count = 1 + random() % 4; count > 0; --count) {
      const char category = static_cast<char>('a' + random() % 4);
      wanted.push_back(std::string(1, category) + ":" +
                       std::to_string(random() % (category == 'a' ? 205 : 5)));
    }
    Keys expected;
    for (const auto &[key, tags] : tags_of)
      if (std::all_of(wanted.begin(), wanted.end(),
                      [&tags = tags](const std::string &tag) { return tags.contains(tag); }))
        expected.push_back(key);
    ASSERT_EQ(keys_with(*index, wanted), expected);
  }
}

TEST_F(MetricIndexTest, EncodedTagsAreFoundInAnySpelling) {
  MetricIndexBuilder builder;
  const std::string key = kCheck + "-cpu|ST[list:b\"YSxi\"]";  // a,b
  builder.add(key, rollup(60));
  const Written written(builder);
  std::vector<std::string> tags;
  EXPECT_EQ(canonical_tags("b\"bGlzdA==\":b\"YSxi\"", &tags), "");
  ASSERT_EQ(tags, std::vector<std::string>{"list:b\"YSxi\""});
  EXPECT_EQ(keys_with(*written.index(), tags), Keys{key});
  tags.clear();
  EXPECT_EQ(canonical_tags("b:2,a:1", &tags), "");
  EXPECT_EQ(tags, (std::vector<std::string>{"a:1", "b:2"}));
  EXPECT_EQ(canonical_tags("a", &tags), "a tag has no colon after its category");
  EXPECT_EQ(canonical_tags("__name:x", &tags), "no tag that a metric can have");
  EXPECT_EQ(canonical_tags("", &tags), "no tag that a metric can have");
  EXPECT_EQ(canonical_tags("a:]", &tags), "a plain value holds one of | [ ] { } \"");
}

TEST_F(MetricIndexTest, WhatIsNoIndexIsRefused) {
  const std::string good = one_metric_index(kCheck + "-cpu|ST[a:1]", "a:1", 60);
  const std::string directory = "directory at offset " + std::to_string(good.size() - 72) + ": ";
  const auto changed = [&](size_t at, char byte) {
    std::string bytes = good;
    bytes[at] = byte;
    return bytes;
  };
  const size_t at = good.size() - 72;
  ExitCode code = exit_fine;
  EXPECT_EQ(fault_of_opening("", &code), "0 bytes, expected an index of 80 or more");
  EXPECT_EQ(code, exit_damaged);
  EXPECT_EQ(fault_of_opening(changed(0, 'B')), "no index: it does not begin with \"ART\" and a zero byte");
  EXPECT_EQ(fault_of_opening(changed(4, 2)), "image version 2 at offset 4, expected 1");
  EXPECT_EQ(fault_of_opening(changed(6, 0)), "not complete: bit 0 of the flags at offset 6 is clear");
  EXPECT_EQ(fault_of_opening(good + "1234567"),
            std::to_string(good.size() + 7) + " bytes, expected a multiple of 8");
  EXPECT_EQ(fault_of_opening(changed(at, 'm')), directory + "does not begin with \"MIDX\"");
  EXPECT_EQ(fault_of_opening(changed(at + 4, 2)), directory + "version 2, expected 1");
  EXPECT_EQ(fault_of_opening(changed(at + 6, 1)), directory + "bytes that are not used are not zero");
  EXPECT_EQ(fault_of_opening(good.substr(0, good.size() - 72) + std::string(8, '\0') + good.substr(at)),
            "directory at offset " + std::to_string(at + 8) + ": found a file of " +
                std::to_string(good.size() + 8) + " bytes, expected " + std::to_string(good.size()));
  EXPECT_EQ(fault_of_opening(changed(at + 24, 0)), directory + "0 metrics, and a root at offset 41");
  EXPECT_EQ(fault_of_opening(changed(at + 17, 1)),
            directory + "the root of the metrics at offset " + std::to_string(41 + 256) +
                " is not within the first " + std::to_string(at) + " bytes");
  for (size_t length = 8; length < good.size(); ++length)
    EXPECT_NE(fault_of_opening(good.substr(0, length)), "");
  EXPECT_EQ(fault_of_verifying(good), "");
}

TEST_F(MetricIndexTest, FilesThatCannotBeReadSayWhy) {
  const TempDir folder;
  Problem problem;
  EXPECT_EQ(MetricIndex::open(folder.file("none"), &problem), nullptr);
  EXPECT_EQ(problem.code, exit_not_found);
  EXPECT_EQ(MetricIndex::open(folder.path(), &problem), nullptr);
  EXPECT_EQ(problem.text, "is a folder");
  ASSERT_EQ(mkfifo(folder.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(MetricIndex::open(folder.file("pipe"), &problem), nullptr);
  EXPECT_EQ(problem.text, "is no regular file");
  EXPECT_EQ(problem.code, exit_failed);
  folder.write("index", one_metric_index(kCheck + "-cpu", "a:1", 60));
  const faults::Fail fails(faults::Call::mmap, ENOMEM);
  EXPECT_EQ(MetricIndex::open(folder.file("index"), &problem), nullptr);
  EXPECT_EQ(problem.text, "Cannot allocate memory");
}

// The values and lists of a sound pair of trees, each made wrong.
struct Pieces {
  std::string key = kCheck + "-cpu|ST[a:1]";
  std::string tag = "a:1";
  std::vector<uint64_t> extra;  // behind the metric in the list
  uint64_t files_offset = 0;    // instead of that of the files
  uint64_t list_offset = 0;
  uint64_t metrics = 1, tags = 1, tagged = 1;

  std::string bytes() const {
    IndexModel model;
    const uint64_t files = model.rollups({60});
    const uint64_t metric = model.leaf(key, files_offset != 0 ? files_offset : files);
    std::vector<uint64_t> entries = {metric};
    entries.insert(entries.end(), extra.begin(), extra.end());
    const uint64_t list = model.list(entries);
    return model.finish(metric, metrics, model.leaf(tag, list_offset != 0 ? list_offset : list), tags,
                        tagged);
  }
};

TEST_F(MetricIndexTest, VerifyingSaysWhatIsWrongWhere) {
  EXPECT_EQ(fault_of_verifying(Pieces().bytes()), "");
  const auto fault_of = [](void (*change)(Pieces *)) {
    Pieces pieces;
    change(&pieces);
    return fault_of_verifying(pieces.bytes());
  };
  // Files at 8, the metric at 40, 64 bytes of it, its list at 104, the tag at 120.
  EXPECT_EQ(fault_of([](Pieces *p) { p->key = kCheck; }), "leaf at offset 40: its key is none of a metric");
  EXPECT_EQ(fault_of([](Pieces *p) { p->key = kCheck + "-cpu|ST[a:1,a:1]"; }),
            "leaf at offset 40: its metric's name is not canonical");
  EXPECT_EQ(fault_of([](Pieces *p) { p->key = kCheck + "-cpu|ST[a:1,__name:b]"; }),
            "leaf at offset 40: its metric's name is not canonical");
  EXPECT_EQ(fault_of([](Pieces *p) { p->files_offset = 4; }),
            "leaf at offset 40: its files at offset 4 are not within the first 136 bytes");
  EXPECT_EQ(fault_of([](Pieces *p) { p->files_offset = 104; }),
            "files at offset 104: a metric without files");
  EXPECT_EQ(fault_of([](Pieces *p) { p->files_offset = 1 << 20; }),
            "tree of the metrics: leaf at offset 40: its value at offset 1048576 is not within the 136 bytes "
            "of the "
            "file");
  EXPECT_EQ(fault_of([](Pieces *p) { p->list_offset = 12; }),
            "leaf at offset 120: its list at offset 12 is none within the first 136 bytes");
  EXPECT_EQ(fault_of([](Pieces *p) { p->list_offset = 16; }),
            "list at offset 16: 0 metrics, where there is room for 28");
  EXPECT_EQ(fault_of([](Pieces *p) { p->list_offset = 48; }),
            "list at offset 48: 7219945534742593585 metrics, where there is room for 20");
  EXPECT_EQ(fault_of([](Pieces *p) { p->list_offset = 40; }),
            "list at offset 40: entry 0, offset 392: no metric begins there");
  EXPECT_EQ(fault_of([](Pieces *p) { p->tag = "a:2"; }),
            "list at offset 104: entry 0, offset 40: the metric does not have the tag");
  EXPECT_EQ(fault_of([](Pieces *p) { p->extra = {40}; }),
            "list at offset 104: entry 1, offset 40: not behind the one before it");
  EXPECT_EQ(fault_of([](Pieces *p) { p->extra = {48}; }),
            "list at offset 104: entry 1, offset 48: no metric begins there");
  std::string other_period = Pieces().bytes();
  other_period[8 + 4 + 16] = 61;
  EXPECT_THAT(fault_of_verifying(other_period),
              testing::MatchesRegex("hash at offset 200: found .*, expected .*: some byte was changed"));
  EXPECT_EQ(fault_of([](Pieces *p) { p->metrics = 2; }), "the directory says 2 metrics, found 1");
  EXPECT_EQ(fault_of([](Pieces *p) { p->tags = 3; }), "the directory says 3 tags, found 1");
  EXPECT_EQ(fault_of([](Pieces *p) { p->tagged = 0; }), "the directory says 0 entries of lists, found 1");
}

TEST_F(MetricIndexTest, EveryByteChangedIsSafeToAsk) {
  const std::string good = Pieces().bytes();
  const TempDir folder;
  for (size_t at = 0; at < good.size(); ++at) {
    std::string bytes = good;
    bytes[at] = static_cast<char>(bytes[at] ^ 0x55);
    Problem problem;
    const auto index = MetricIndex::open(folder.write("index", bytes), &problem);
    if (index == nullptr) continue;
    std::optional<MetricFiles> files;
    IndexStats stats;
    const auto go_on = [](std::string_view, const MetricFiles &) { return true; };
    static_cast<void>(index->find(Pieces().key, &files));
    static_cast<void>(index->each("", go_on));
    static_cast<void>(index->each_with_tags(std::vector<std::string>{"a:1"}, go_on));
    static_cast<void>(index->stats(&stats));
    static_cast<void>(index->verify());
  }
}

TEST_F(MetricIndexTest, EachFailedWriteFailsTheIndex) {
  MetricIndexBuilder builder;
  for (const char *name : {"-a|ST[a:1]", "-b|ST[a:1,b:2]", "-c"}) builder.add(kCheck + name, rollup(60));
  const TempDir folder;
  const faults::Uses uses;
  for (const faults::Call call : {faults::Call::pwritev, faults::Call::pwrite, faults::Call::fdatasync}) {
    bool was_hit = true;
    int first = 1;
    for (; was_hit; ++first) {
      const std::string path = folder.file("index" + std::to_string(first));
      const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
      MetricIndexBuilder::Counts counts;
      const faults::Fail fails(call, ENOSPC, first, 1);
      const int error = builder.write(fd, 0, &counts);
      was_hit = fails.hit();
      EXPECT_EQ(error, was_hit ? ENOSPC : 0);
      close(fd);
      Problem problem;
      // A sync that fails behind the flag leaves what looks whole; the caller does not put it in place.
      const bool is_whole = !was_hit || call == faults::Call::fdatasync;
      EXPECT_TRUE(is_whole || MetricIndex::open(path, &problem) == nullptr);
    }
    EXPECT_GT(first, 2);
  }
}

TEST_F(MetricIndexTest, EightThreadsAskOneIndex) {
  MetricIndexBuilder builder;
  Keys keys;
  for (int i = 0; i < 2000; ++i) {
    keys.push_back(kCheck + "-m" + std::to_string(i) + "|ST[a:" + std::to_string(i % 7) + "]");
    builder.add(keys.back(), rollup(i % 2 == 0 ? 60 : 300));
  }
  const Written written(builder);
  const auto index = written.index();
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  for (size_t reader = 0; reader < 8; ++reader) {
    readers.emplace_back([&, reader] {
      std::optional<MetricFiles> files;
      for (size_t i = reader; i < keys.size(); i += 3)
        if (!index->find(keys[i], &files).empty() || !files ||
            files->front().period_s != (i % 2 == 0 ? 60u : 300u))
          ++wrong;
      size_t count = 0;
      const auto counting = [&](std::string_view, const MetricFiles &) { return ++count > 0; };
      if (!index->each("", counting).empty() || count != keys.size()) ++wrong;
      if (!index->each_with_tags(std::vector<std::string>{"a:3"}, counting).empty()) ++wrong;
      if (count != keys.size() + 286) ++wrong;
      if (!index->verify().empty()) ++wrong;
    });
  }
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

// The kibibytes of the file that this process has in memory.
size_t resident_KiB(const std::string &path) {
  std::ifstream maps("/proc/self/smaps");
  std::string line;
  size_t sum = 0;
  bool is_ours = false;
  while (std::getline(maps, line)) {
    std::istringstream words(line);
    std::string first;
    size_t number = 0;
    words >> first;
    if (first.find('-') != std::string::npos) is_ours = line.ends_with(path);
    if (is_ours && first == "Rss:" && words >> number) sum += number;
  }
  return sum;
}

// An index of more than 1 GiB, most of it a hole between the metrics and the tags, as if a million others lay there.
TEST_F(MetricIndexTest, OpeningAGibibyteTouchesTheHeaderAndTheCellsOnTheWay) {
  constexpr uint64_t kHole = uint64_t{1} << 30;
  IndexModel low;
  const uint64_t files = low.rollups({60});
  const uint64_t a = low.leaf(kCheck + "-a|ST[c:1]", files), b = low.leaf(kCheck + "-b|ST[c:1]", files);
  const uint64_t metrics = low.node4(kCheck + "-", {{'a', a}, {'b', b}});
  IndexModel high;
  high.bytes.clear();
  const uint64_t list = kHole + high.list({a, b});
  const uint64_t tags = kHole + high.leaf("c:1", list);
  std::string end = high.finish(metrics, 2, tags, 1, 2);
  std::string size;
  put_le(size, kHole + end.size(), 8);
  end.replace(end.size() - 64, 8, size);

  const TempDir folder;
  const std::string path = folder.write("index", low.bytes);
  const int fd = open(path.c_str(), O_WRONLY);
  ASSERT_EQ(pwrite(fd, end.data(), end.size(), kHole), static_cast<ssize_t>(end.size()));
  close(fd);

  Problem problem;
  const auto index = MetricIndex::open(path, &problem);
  ASSERT_NE(index, nullptr) << problem.text;
  EXPECT_EQ(index->directory().file_bytes, kHole + end.size());
  EXPECT_LE(resident_KiB(path), 128u);
  std::optional<MetricFiles> found;
  EXPECT_EQ(index->find(kCheck + "-b|ST[c:1]", &found), "");
  EXPECT_TRUE(found.has_value());
  EXPECT_EQ(keys_with(*index, {"c:1"}), (Keys{kCheck + "-a|ST[c:1]", kCheck + "-b|ST[c:1]"}));
  EXPECT_GT(resident_KiB(path), 0u);
  // The kernel maps the pages around one that is asked for as far as it has them: 64 KiB each.
  EXPECT_LE(resident_KiB(path), 256u);
}

}  // namespace
