#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "pobe/pobe.h"
#include "test/pobe/random_names.h"

namespace {

bool refuse_category_a(const char *cat, size_t cat_len, const char *, size_t) {
  return !(cat_len == 2 && memcmp(cat, "a:", 2) == 0);
}

// The short way's answer, checked against the long way whenever it is yes.
bool short_way(const std::string &name, pobe_metric_tagset_validate_f validate = nullptr) {
  SCOPED_TRACE("name: \"" + name + "\"");
  pobe_metric_tagset_t set;
  if (!pobe_metric_tagset_init_if_canonical(&set, name.data(), name.size(), validate)) {
    EXPECT_EQ(set.tags, nullptr);
    EXPECT_EQ(set.tag_count, 0);
    EXPECT_EQ(set.canonical_size, 0U);
    return false;
  }
  char out[8192];
  const ssize_t len =
      pobe_metric_canonicalize_ex(name.data(), name.size(), out, sizeof out, true, true, false);
  EXPECT_EQ(std::string(out, len < 0 ? 0 : static_cast<size_t>(len)), name);

  const size_t block = set.tag_count == 0 ? name.size() : name.rfind("|ST[");
  const std::string body = set.tag_count == 0 ? "" : name.substr(block + 4, name.size() - block - 5);
  pobe_metric_tagset_t parsed;
  EXPECT_EQ(pobe_metric_tagset_init(&parsed, body.data(), body.size()), 0);
  EXPECT_EQ(set.tag_count, parsed.tag_count);
  EXPECT_EQ(set.canonical_size, parsed.canonical_size);
  for (int i = 0; i < std::min(set.tag_count, parsed.tag_count); ++i) {
    EXPECT_EQ(set.tags[i].tag - (name.data() + block + 4), parsed.tags[i].tag - body.data());
    EXPECT_EQ(set.tags[i].total_size, parsed.tags[i].total_size);
    EXPECT_EQ(set.tags[i].category_size, parsed.tags[i].category_size);
  }
  pobe_metric_tagset_cleanup(&parsed);
  pobe_metric_tagset_cleanup(&set);
  return true;
}

}  // namespace

TEST(CanonicalName, RecognisesTheCommonKinds) {
  EXPECT_TRUE(short_way("cpu"));
  EXPECT_TRUE(short_way("http`requests`duration of a long name|with a bar"));
  EXPECT_TRUE(short_way("cpu|ST[a:1]"));
  EXPECT_TRUE(short_way("cpu|ST[a:,a:1,a:2,ab:0,b:x:y]"));
  EXPECT_TRUE(short_way("|ST[a:1]"));
  EXPECT_TRUE(short_way("x|ST[y|ST[a:1]"));
}

TEST(CanonicalName, LeavesEverythingElseToTheLongWay) {
  for (const std::string &name : {std::string(""),
                                  std::string("cpu|ST[b:1,a:2]"),
                                  std::string("cpu|ST[a:1,a:1]"),
                                  std::string("cpu|ST[]"),
                                  std::string("cpu|ST[a:1]|MT{b:1}"),
                                  std::string("cpu|MT{b:1}|ST[a:1]"),
                                  std::string("cpu|ST[b\"YQ==\":1]"),
                                  std::string("cpu|ST[a:1]|ST[b:2]"),
                                  std::string("cpu|xST[a:1]"),
                                  std::string("cpu]"),
                                  std::string("cpu}"),
                                  std::string("cpu|ST[a]"),
                                  std::string("cpu|ST[:1]"),
                                  std::string("cpu|ST[a:1,]"),
                                  std::string("cpu|ST[ a:1]"),
                                  std::string("cpu|ST[a:1 ]"),
                                  std::string("cpu|ST[a:{]"),
                                  std::string("cpu\x01"),
                                  std::string("cpu\x7f"),
                                  std::string("m\xc3\xa9moire"),
                                  std::string("a\0b", 3),
                                  std::string("longer than eight\x1f")}) {
    EXPECT_FALSE(short_way(name)) << name;
  }
}

TEST(CanonicalName, SidesMayBe254BytesLong) {
  EXPECT_TRUE(short_way("n|ST[" + std::string(254, 'c') + ":" + std::string(254, 'v') + "]"));
  EXPECT_FALSE(short_way("n|ST[" + std::string(255, 'c') + ":v]"));
  EXPECT_FALSE(short_way("n|ST[c:" + std::string(255, 'v') + "]"));
}

TEST(CanonicalName, UpToThirtyTwoTagsGoTheShortWay) {
  const auto with_tags = [](int count) {
    std::string body;
    for (int i = 0; i < count; ++i) body += (i == 0 ? "t" : ",t") + std::to_string(100 + i) + ":v";
    return "n|ST[" + body + "]";
  };
  EXPECT_TRUE(short_way(with_tags(32)));
  EXPECT_FALSE(short_way(with_tags(33)));
}

TEST(CanonicalName, AControlByteAnywhereIsSeen) {
  for (size_t len = 1; len < 40; ++len) {
    EXPECT_TRUE(short_way(std::string(len, 'x')));
    for (size_t at = 0; at < len; ++at) {
      for (const char byte : {'\0', '\x1f', '\x7f', '\x80', '\xff'}) {
        std::string name(len, 'x');
        name[at] = byte;
        EXPECT_FALSE(short_way(name)) << len << " " << at;
      }
    }
  }
}

TEST(CanonicalName, ARefusalByTheValidationIsLeftToTheLongWay) {
  EXPECT_FALSE(short_way("n|ST[a:1,b:2]", refuse_category_a));
  EXPECT_TRUE(short_way("n|ST[aa:1,b:2]", refuse_category_a));
  EXPECT_TRUE(short_way("a:1", refuse_category_a));
}

TEST(CanonicalName, AgreesWithTheLongWayOnRandomNames) {
  const uint32_t seed = 60221;
  SCOPED_TRACE(seed);
  RandomNames names(seed);
  int recognised = 0;
  for (int round = 0; round < 200000 && !testing::Test::HasFailure(); ++round) {
    const std::string name = names.next();
    recognised += short_way(name) ? 1 : 0;
    char out[8192];
    const ssize_t len =
        pobe_metric_canonicalize_ex(name.data(), name.size(), out, sizeof out, true, true, false);
    if (len > 0) recognised += short_way(std::string(out, static_cast<size_t>(len))) ? 1 : 0;
  }
  EXPECT_GT(recognised, 20000);
}
