#include "liborlith/util/metric_name.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "liborlith/util/metric_name_private.h"
#include "test/pobe/naive_metric_name.h"
#include "test/pobe/random_names.h"
#include "test/support/log_capture.h"

// The splitter's own look for a block, which one test below replaces by an answer that cannot be.
extern "C" {
int __real_metric_name_parse_next_metadata(const mem_reader_t *, mem_reader_t *, mem_reader_t *,
                                           mem_reader_t *);
int __wrap_metric_name_parse_next_metadata(const mem_reader_t *, mem_reader_t *, mem_reader_t *,
                                           mem_reader_t *);
pobe_metric_tagset_context_t *__real_pobe_metric_tagset_context_alloc(void);
pobe_metric_tagset_context_t *__wrap_pobe_metric_tagset_context_alloc(void);
}

static bool refuse_context = false;

pobe_metric_tagset_context_t *__wrap_pobe_metric_tagset_context_alloc(void) {
  return refuse_context ? nullptr : __real_pobe_metric_tagset_context_alloc();
}

static std::vector<int> answers_to_fake;

int __wrap_metric_name_parse_next_metadata(const mem_reader_t *in, mem_reader_t *out, mem_reader_t *type,
                                           mem_reader_t *value) {
  if (answers_to_fake.empty()) return __real_metric_name_parse_next_metadata(in, out, type, value);
  const int answer = answers_to_fake.front();
  answers_to_fake.erase(answers_to_fake.begin());
  return answer != 0 ? answer : __real_metric_name_parse_next_metadata(in, out, type, value);
}

namespace {

struct Split {
  std::string plain;
  std::vector<std::string> tags;  // as written
  bool operator==(const Split &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Split &split) {
  out << split.plain;
  for (const std::string &tag : split.tags) out << " [" << tag << "]";
  return out;
}

std::optional<Split> split(const std::string &name) {
  mem_reader_t in, out;
  mem_reader_init_mem(&in, name.data(), name.size());
  pobe_metric_tagset_t set{reinterpret_cast<pobe_metric_tag_t *>(8), 7, 9};
  if (!metric_name_v1_parse(&in, &out, &set)) {
    EXPECT_EQ(set.tags, nullptr) << name;
    EXPECT_EQ(set.tag_count, 0) << name;
    EXPECT_EQ(set.canonical_size, 0u) << name;
    return std::nullopt;
  }
  EXPECT_EQ(out.input_buffer, in.input_buffer) << "the plain name is a prefix of the input";
  Split result{{reinterpret_cast<const char *>(out.input_buffer), out.input_buffer_size}, {}};
  for (int i = 0; i < set.tag_count; ++i) result.tags.emplace_back(set.tags[i].tag, set.tags[i].total_size);
  pobe_metric_tagset_cleanup(&set);
  return result;
}

std::optional<Split> whole_name(const std::string &name) {
  return Split{name, {}};
}

TEST(MetricName, PlainNameHasNoTags) {
  EXPECT_EQ(split("cpu"), whole_name("cpu"));
}

TEST(MetricName, EmptyNameIsAName) {
  EXPECT_EQ(split(""), whole_name(""));
  mem_reader_t in, out;
  mem_reader_init_empty(&in);
  pobe_metric_tagset_t set;
  EXPECT_TRUE(metric_name_v1_parse(&in, &out, &set));
  EXPECT_EQ(out.input_buffer_size, 0u);
}

TEST(MetricName, StreamTagsAreParsed) {
  EXPECT_EQ(split("cpu|ST[a:1,b:2]"), (Split{"cpu", {"a:1", "b:2"}}));
  EXPECT_EQ(split("cpu|ST[]"), whole_name("cpu"));
  EXPECT_EQ(split("|ST[a:1]"), (Split{"", {"a:1"}}));
}

TEST(MetricName, MeasurementBlocksAreDroppedBeforeAndAfterTheStreamTags) {
  EXPECT_EQ(split("cpu|ST[a:1]|MT{x:1}"), (Split{"cpu", {"a:1"}}));
  EXPECT_EQ(split("cpu|MT{x:1}|ST[a:1]"), (Split{"cpu", {"a:1"}}));
  EXPECT_EQ(split("cpu|MT{x:1}|ST[a:1]|MT{y}|MT{}"), (Split{"cpu", {"a:1"}}));
  EXPECT_EQ(split("cpu|MT{x:1}"), whole_name("cpu"));
}

TEST(MetricName, TypeOfAMeasurementBlockIsNotChecked) {
  EXPECT_EQ(split("cpu|xMT{x:1}"), whole_name("cpu"));
}

TEST(MetricName, SecondStreamBlockFails) {
  EXPECT_EQ(split("cpu|ST[a:1]|ST[b:2]"), std::nullopt);
  EXPECT_EQ(split("cpu|ST[a:1]|MT{x:1}|ST[b:2]"), std::nullopt);
  EXPECT_EQ(split("cpu|ST[]|ST[]"), std::nullopt);
}

TEST(MetricName, ReservedCategoriesFail) {
  for (const std::string category : {"__name", "__type", "__activity", "__check_uuid"}) {
    EXPECT_EQ(split("cpu|ST[" + category + ":x]"), std::nullopt);
    EXPECT_EQ(split("cpu|ST[a:1," + category + ":]"), std::nullopt);
    EXPECT_EQ(split("cpu|ST[" + category + "x:y]"), (Split{"cpu", {category + "x:y"}}));
    EXPECT_EQ(split("cpu|MT{" + category + ":x}"), whole_name("cpu"));
  }
  EXPECT_EQ(split("cpu|ST[__namex:y]"), (Split{"cpu", {"__namex:y"}}));
  EXPECT_EQ(split("cpu|ST[__NAME:y]"), (Split{"cpu", {"__NAME:y"}}));
}

TEST(MetricName, ReservedCategoryFailsHoweverItIsSpelt) {
  EXPECT_EQ(split("cpu|ST[b\"" + naive::base64_encode("__name") + "\":x]"), std::nullopt);
  EXPECT_TRUE(split("cpu|ST[b\"" + naive::base64_encode("__namex") + "\":x]"));
}

TEST(MetricName, UnclosedBlockIsPartOfThePlainName) {
  EXPECT_EQ(split("cpu|ST[a:1"), whole_name("cpu|ST[a:1"));
  EXPECT_EQ(split("cpu|MT{x:1"), whole_name("cpu|MT{x:1"));
}

// Even a stream block before it: the look for blocks ends there.
TEST(MetricName, UnclosedMeasurementBlockEndsTheLook) {
  EXPECT_EQ(split("cpu|ST[a:1]|MT{x:1"), whole_name("cpu|ST[a:1]|MT{x:1"));
  EXPECT_EQ(split("cpu|ST[a:MT{]"), whole_name("cpu|ST[a:MT{]"));
}

TEST(MetricName, TrailingBarIsPartOfThePlainName) {
  EXPECT_EQ(split("cpu|"), whole_name("cpu|"));
  EXPECT_EQ(split("cpu||ST[a:1]"), (Split{"cpu|", {"a:1"}}));
}

TEST(MetricName, BarThatBeginsNoBlockIsPartOfThePlainName) {
  EXPECT_EQ(split("cpu|user|ST[a:1]"), (Split{"cpu|user", {"a:1"}}));
  EXPECT_EQ(split("cpu|ST[a:1]|x"), whole_name("cpu|ST[a:1]|x"));
}

TEST(MetricName, StreamBlockOfAnotherTypeFails) {
  EXPECT_EQ(split("cpu|xST[a:1]"), std::nullopt);
  EXPECT_EQ(split("cpu|xST[a:1]|MT{x:1}"), std::nullopt);
  EXPECT_EQ(split("cpu|STxST[a:1]"), std::nullopt);
}

TEST(MetricName, MalformedTagsFail) {
  for (const std::string list : {"a", "a:1,", ",", ":1", "a:[", "a:\x01", "a:\xff", "b\"YQ\":1"})
    EXPECT_EQ(split("cpu|ST[" + list + "]"), std::nullopt) << list;
}

// Without the context, reserved categories could not be refused.
TEST(MetricName, FailsWithoutMemoryForAContext) {
  refuse_context = true;
  EXPECT_EQ(split("cpu|ST[a:1]"), std::nullopt);
  EXPECT_EQ(split("cpu|MT{a:1}"), whole_name("cpu"));
  refuse_context = false;
}

TEST(MetricName, InputAndOutputMayBeTheSameReader) {
  const std::string name = "cpu|ST[a:1]|MT{x:1}";
  mem_reader_t reader;
  mem_reader_init_mem(&reader, name.data(), name.size());
  pobe_metric_tagset_t set;
  ASSERT_TRUE(metric_name_v1_parse(&reader, &reader, &set));
  EXPECT_EQ(reader.input_buffer_size, 3u);
  ASSERT_EQ(set.tag_count, 1);
  EXPECT_EQ(set.tags[0].tag, name.data() + 7);
  pobe_metric_tagset_cleanup(&set);
}

TEST(MetricName, DebugLinesTellTheNameAndTheTags) {
  LogCapture debug(&mn_debug_ls);
  split("cpu|ST[a:1,b:2]|MT{x:1}");
  EXPECT_EQ(debug.lines(), (std::vector<std::string>{"Parsing: cpu|ST[a:1,b:2]|MT{x:1}\n",
                                                     "Found stream tags to parse: a:1,b:2\n"}));
  debug.clear();
  split("cpu|xST[a:1]");
  split("");
  EXPECT_EQ(debug.lines(), (std::vector<std::string>{"Parsing: cpu|xST[a:1]\n", "Parsing: \n"}));
}

TEST(MetricName, DebugLineEndsWithTheViewNotWithTheText) {
  const char text[] = "cpu|ST[a:1]tail";
  mem_reader_t reader;
  mem_reader_init_mem(&reader, text, 11);
  pobe_metric_tagset_t set;
  LogCapture debug(&mn_debug_ls);
  ASSERT_TRUE(metric_name_v1_parse(&reader, &reader, &set));
  pobe_metric_tagset_cleanup(&set);
  EXPECT_EQ(debug.lines(),
            (std::vector<std::string>{"Parsing: cpu|ST[a:1]\n", "Found stream tags to parse: a:1\n"}));
}

TEST(MetricName, FailuresAreNotLoggedAsErrors) {
  LogCapture errors(&mn_error_ls);
  EXPECT_FALSE(split("cpu|ST[a]"));
  EXPECT_FALSE(split("cpu|xST[a:1]"));
  EXPECT_FALSE(split("cpu|ST[__name:x]"));
  EXPECT_EQ(errors.lines(), std::vector<std::string>{});
}

void split_with_answers(const std::vector<int> &answers) {
  answers_to_fake = answers;
  split("cpu|ST[a:1]|MT{x:1}");
}

TEST(MetricNameDeathTest, KindThatIsNoneOfTheThreeIsFatal) {
  const char *line =
      "message=\"\\[FATAL\\] assertion \\(ruxo_false\\) at util/metric_name\\.cpp:[0-9]+ failed\"";
  EXPECT_DEATH(split_with_answers({3}), line);
  EXPECT_DEATH(split_with_answers({-1}), line);
  EXPECT_DEATH(split_with_answers({0, 0, 7}), line);
}

TEST(RejectArtificialStreamTags, ComparesTheCategoryWithItsColon) {
  const auto accepts = [](const std::string &category) {
    return reject_artificial_stream_tags(category.data(), category.size(), "v", 1);
  };
  for (const std::string category : {"__name:", "__type:", "__activity:", "__check_uuid:"}) {
    EXPECT_FALSE(accepts(category));
    EXPECT_TRUE(accepts(category.substr(0, category.size() - 1)));
    EXPECT_TRUE(accepts(category + "x"));
    EXPECT_TRUE(accepts("_" + category));
  }
  EXPECT_TRUE(accepts("name:"));
  EXPECT_TRUE(accepts("__foo1:"));
  EXPECT_TRUE(accepts(""));
}

TEST(RejectArtificialStreamTags, NullCategoryIsAccepted) {
  EXPECT_TRUE(reject_artificial_stream_tags(nullptr, 7, "v", 1));
  EXPECT_TRUE(reject_artificial_stream_tags(nullptr, 0, nullptr, 0));
}

TEST(RejectArtificialStreamTags, ValueIsNotLookedAt) {
  EXPECT_FALSE(reject_artificial_stream_tags("__name:", 7, nullptr, 0));
}

// Start-up happens once in a process, so each of these has a fresh one, whatever ran before: the statement is run
// by a new copy of this executable, and the number of the first check that fails is its exit code.
class MetricNameInitDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

int first_failure(std::initializer_list<bool> checks) {
  int number = 0;
  for (const bool passed : checks) {
    ++number;
    if (!passed) return number;
  }
  return 0;
}

int start_with_configured_streams() {
  const ruxo_log_stream_t debug = ruxo_log_stream_new("debug/metric_name");
  const ruxo_log_stream_t error = ruxo_log_stream_new("error/metric_name");
  const bool were_null = mn_debug_ls == nullptr && mn_error_ls == nullptr;
  orlith_metric_name_lib_init();
  return first_failure({were_null, mn_debug_ls == debug, mn_error_ls == error});
}

int start_without_streams() {
  orlith_metric_name_lib_init();
  return first_failure({mn_debug_ls == ruxo_debug, mn_error_ls == ruxo_error});
}

int start_twice() {
  const ruxo_log_stream_t own = ruxo_log_stream_new("test/own");
  mn_debug_ls = own;
  orlith_metric_name_lib_init();
  const bool kept = mn_debug_ls == own;
  mn_error_ls = nullptr;
  orlith_metric_name_lib_init();
  return first_failure({kept, mn_error_ls == nullptr});
}

TEST_F(MetricNameInitDeathTest, UsesTheStreamsThatAreConfigured) {
  EXPECT_EXIT(std::exit(start_with_configured_streams()), testing::ExitedWithCode(0), "");
}

TEST_F(MetricNameInitDeathTest, FallsBackToTheGlobalStreams) {
  EXPECT_EXIT(std::exit(start_without_streams()), testing::ExitedWithCode(0), "");
}

TEST_F(MetricNameInitDeathTest, KeepsTheHostsHandlesAndStartsOnce) {
  EXPECT_EXIT(std::exit(start_twice()), testing::ExitedWithCode(0), "");
}

bool is_reserved(const std::string &category) {
  return category == "__name" || category == "__type" || category == "__activity" ||
         category == "__check_uuid";
}

// Every name that has a canonical form can be split, before and after, into the same plain name and tags.
TEST(MetricName, AgreesWithTheCanonicalForm) {
  int accepted = 0;
  for (uint32_t seed = 1; seed <= 30000; ++seed) {
    SCOPED_TRACE(seed);
    const std::string name = RandomNames(seed).next();
    std::string canonical(name.size(), '\0');
    const ssize_t size = pobe_metric_canonicalize_ex(name.data(), name.size(), canonical.data(),
                                                     canonical.size(), true, true, false);
    const auto model = naive::read_name(name);
    ASSERT_EQ(size >= 0, model.has_value()) << name;
    if (size < 0) continue;
    ++accepted;
    canonical.resize(static_cast<size_t>(size));
    const auto before = split(name);
    const auto after = split(canonical);
    ASSERT_TRUE(before && after) << name;
    ASSERT_EQ(before->plain, model->plain) << name;
    ASSERT_EQ(after->plain, model->plain) << name;
    std::vector<std::string> tags;
    for (const naive::Pair &tag : model->stream_tags)
      tags.push_back(naive::write_category(tag) + ":" + naive::write_value(tag));
    ASSERT_EQ(after->tags, tags) << name;
    std::set<naive::Pair> meant;
    for (const std::string &tag : before->tags) meant.insert(naive::read_tags(tag).value().at(0));
    ASSERT_EQ(meant, model->stream_tags) << name;
  }
  EXPECT_GT(accepted, 8000);
}

// What the splitter refuses although it has a canonical form is refused for a reserved category alone.
TEST(MetricName, OnlyReservedCategoriesSeparateSplittingFromTheCanonicalForm) {
  for (const char *category : {"__name", "__type", "__activity", "__check_uuid", "__nam", "name"}) {
    const std::string name = std::string("cpu|ST[") + category + ":x]";
    char out[64];
    const ssize_t size =
        pobe_metric_canonicalize_ex(name.data(), name.size(), out, sizeof(out), true, true, false);
    ASSERT_EQ(size, static_cast<ssize_t>(name.size()));
    EXPECT_EQ(split({out, static_cast<size_t>(size)}).has_value(), !is_reserved(category));
  }
}

}  // namespace
