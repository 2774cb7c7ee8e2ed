#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "pobe/pobe.h"
#include "test/pobe/naive_metric_name.h"
#include "test/pobe/random_names.h"

namespace {

struct Tagset : pobe_metric_tagset_t {
  explicit Tagset(const std::string &text_in, pobe_metric_tagset_validate_f validate = nullptr)
      : text(text_in) {
    pobe_metric_tagset_context_t *ctx = pobe_metric_tagset_context_alloc();
    pobe_metric_tagset_context_set_validate_function(ctx, validate);
    code = pobe_metric_tagset_init_with_context(this, text.data(), text.size(), ctx);
    pobe_metric_tagset_context_free(ctx);
  }
  ~Tagset() { pobe_metric_tagset_cleanup(this); }
  Tagset(const Tagset &) = delete;
  Tagset &operator=(const Tagset &) = delete;

  // Category and value as written.
  std::vector<naive::Pair> pairs() const {
    std::vector<naive::Pair> result;
    for (int i = 0; i < tag_count; ++i) {
      const std::string tag(tags[i].tag, tags[i].total_size);
      EXPECT_EQ(tag[tags[i].category_size - 1u], ':');
      result.emplace_back(tag.substr(0, tags[i].category_size - 1u), tag.substr(tags[i].category_size));
    }
    return result;
  }

  std::string text;
  int code;
};

using Pairs = std::vector<naive::Pair>;

TEST(Tagset, NullTextMakesAnEmptySet) {
  pobe_metric_tagset_t set{reinterpret_cast<pobe_metric_tag_t *>(8), 7, 9};
  EXPECT_EQ(pobe_metric_tagset_init(&set, nullptr, 0), 0);
  EXPECT_EQ(set.tags, nullptr);
  EXPECT_EQ(set.tag_count, 0);
  EXPECT_EQ(set.canonical_size, 0u);
  pobe_metric_tagset_cleanup(&set);
}

TEST(Tagset, NullArgumentsAreRefused) {
  pobe_metric_tagset_t set{nullptr, 7, 9};
  EXPECT_EQ(pobe_metric_tagset_init(&set, nullptr, 1), POBE_E_ARGUMENT);
  EXPECT_EQ(set.tag_count, 0);
  EXPECT_EQ(pobe_metric_tagset_init(nullptr, "a:1", 3), POBE_E_ARGUMENT);
  pobe_metric_tagset_cleanup(nullptr);
  pobe_metric_tagset_context_free(nullptr);
}

TEST(Tagset, TagsAreViewsIntoTheTextInItsOrder) {
  const Tagset set("b:2,a:1,url:http://h");
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.pairs(), (Pairs{{"b", "2"}, {"a", "1"}, {"url", "http://h"}}));
  EXPECT_EQ(set.tags[1].tag, set.text.data() + 4);
  EXPECT_EQ(set.tags[2].total_size, 12);
  EXPECT_EQ(set.tags[2].category_size, 4);
  EXPECT_EQ(set.canonical_size, set.text.size());
}

TEST(Tagset, EqualTagsAreListedButCountedOnceInTheCanonicalSize) {
  const Tagset set("a:1,b:1,a:1");
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.tag_count, 3);
  EXPECT_EQ(set.canonical_size, std::string("a:1,b:1").size());
}

TEST(Tagset, CanonicalSizeIsOfTheCanonicalSpelling) {
  const Tagset set("b\"YQ==\":1,b\"LA==\":1");
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.pairs(), (Pairs{{"b\"YQ==\"", "1"}, {"b\"LA==\"", "1"}}));
  EXPECT_EQ(set.canonical_size, std::string("b\"LA==\":1,a:1").size());
}

TEST(Tagset, FailureLeavesTheSetEmpty) {
  for (const char *text : {"a:1,b", "a:1,", "a:\x01", "a:\xff", "a:1,b:]"}) {
    const Tagset set(text);
    EXPECT_LT(set.code, 0) << text;
    EXPECT_EQ(set.tags, nullptr);
    EXPECT_EQ(set.tag_count, 0);
    EXPECT_EQ(set.canonical_size, 0u);
  }
}

TEST(Tagset, CleaningUpTwiceIsHarmless) {
  pobe_metric_tagset_t set;
  ASSERT_EQ(pobe_metric_tagset_init(&set, "a:1", 3), 0);
  pobe_metric_tagset_cleanup(&set);
  EXPECT_EQ(set.tags, nullptr);
  EXPECT_EQ(set.tag_count, 0);
  pobe_metric_tagset_cleanup(&set);
}

TEST(Tagset, Holds256Tags) {
  std::string text = "t:0";
  for (int i = 1; i < 256; ++i) text += ",t:" + std::to_string(i);
  EXPECT_EQ(Tagset(text).tag_count, 256);
  EXPECT_EQ(Tagset(text + ",t:x").code, POBE_E_TOO_MANY_TAGS);
}

TEST(Tagset, LongestTagsFitTheirSizes) {
  const std::string side = "b\"" + naive::base64_encode(std::string(254, ',')) + "\"";
  const Tagset set(side + ":" + side);
  ASSERT_EQ(set.code, 0);
  EXPECT_EQ(set.tags[0].total_size, 687);
  EXPECT_EQ(set.tags[0].category_size, 344);
}

// What the validation function below was offered.
std::vector<naive::Pair> offered;
bool note_and_refuse_r(const char *cat, size_t cat_len, const char *val, size_t val_len) {
  offered.emplace_back(std::string(cat, cat_len), std::string(val, val_len));
  return offered.back().first != "r:";
}

TEST(Tagset, ValidationSeesEveryTagWithTheCategorysColonCounted) {
  offered.clear();
  const Tagset set("b:2,a:,b:2", note_and_refuse_r);
  EXPECT_EQ(set.code, 0);
  EXPECT_EQ(offered, (Pairs{{"b:", "2"}, {"a:", ""}, {"b:", "2"}}));
}

TEST(Tagset, ValidationSeesTheCanonicalSpelling) {
  offered.clear();
  const Tagset set("b\"YQ==\":b\"MQ==\",b\"LA==\":b\"LA==\",a:b\"\"", note_and_refuse_r);
  EXPECT_EQ(set.code, 0);
  EXPECT_EQ(offered, (Pairs{{"a:", "1"}, {"b\"LA==\":", "b\"LA==\""}, {"a:", ""}}));
}

TEST(Tagset, ValidationMayRefuseATagHoweverItIsSpelt) {
  offered.clear();
  EXPECT_EQ(Tagset("a:1,r:1,b:1", note_and_refuse_r).code, POBE_E_TAG_REFUSED);
  EXPECT_EQ(offered.size(), 2u);
  EXPECT_EQ(Tagset("b\"cg==\":1", note_and_refuse_r).code, POBE_E_TAG_REFUSED);
  EXPECT_EQ(Tagset("rr:1", note_and_refuse_r).code, 0);
}

TEST(Tagset, LongestRewrittenCategoryIsOfferedWithItsColon) {
  offered.clear();
  const std::string longest(254, 'x');
  EXPECT_EQ(Tagset("b\"" + naive::base64_encode(longest) + "\":1", note_and_refuse_r).code, 0);
  EXPECT_EQ(offered, (Pairs{{longest + ":", "1"}}));
}

TEST(Tagset, ValidationIsNotAskedAboutAMalformedList) {
  offered.clear();
  EXPECT_EQ(Tagset("a:1,b", note_and_refuse_r).code, POBE_E_NO_COLON);
  EXPECT_TRUE(offered.empty());
}

TEST(Tagset, WithoutContextEveryTagIsAccepted) {
  pobe_metric_tagset_t set;
  EXPECT_EQ(pobe_metric_tagset_init_with_context(&set, "r:1", 3, nullptr), 0);
  EXPECT_EQ(set.tag_count, 1);
  pobe_metric_tagset_cleanup(&set);
}

TEST(Tagset, AgreesWithTheNaiveModel) {
  for (uint32_t seed = 1; seed <= 20000; ++seed) {
    SCOPED_TRACE(seed);
    RandomNames names(seed);
    std::string text = names.tag_list();
    if (seed % 5 == 0 && !text.empty())
      text[names.below(static_cast<uint32_t>(text.size()))] = "|:,b\"[\x01\xff"[seed % 8];
    const auto expected = naive::is_clean_text(text) ? naive::read_tags(text) : std::nullopt;
    const Tagset set(text);
    ASSERT_EQ(set.code == 0, expected.has_value()) << text;
    if (!expected) continue;
    Pairs meant;
    for (const auto &[category, value] : set.pairs())
      meant.emplace_back(naive::read_side(category, true).value(), naive::read_side(value, false).value());
    ASSERT_EQ(meant, *expected) << text;
    ASSERT_EQ(set.canonical_size, naive::write_tags({expected->begin(), expected->end()}).size()) << text;
  }
}

}  // namespace
