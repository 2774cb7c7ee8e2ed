#include "liborlith/util/metric_locator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/util/metric_locator_internal.h"
#include "liborlith/util/metric_name.h"
#include "ruxo/memory.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Immutable data of the test's own, counting its releases.
struct Parts {
  explicit Parts(const char *name) : key(name) {
    data.key_mem = key.c_str();
    data.key_len = static_cast<uint32_t>(key.size());
    data.untagged_metric_name_len = data.key_len;
    data.hash = hash.data();
    data.check_uuid = uuid.bytes;
    data.release = [](orlith_metric_locator_immutable_data_t *) { ++releases; };
  }
  static inline int releases = 0;
  std::string key;
  std::array<uint8_t, 32> hash{};
  Uuid uuid;
  orlith_metric_locator_immutable_data_t data{};
};

std::string tag_text(const orlith_metric_locator_t *loc, int index) {
  const pobe_metric_tag_t &tag = orlith_metric_locator_get_stream_tags(loc)->tags[index];
  return {tag.tag, tag.total_size};
}

}  // namespace

// ---- Layout

TEST(MetricLocatorLayout, FieldsStandWhereHostsExpectThem) {
  EXPECT_EQ(sizeof(orlith_metric_locator), 64U);
  EXPECT_EQ(offsetof(orlith_metric_locator, activity_oil), 0U);
  EXPECT_EQ(offsetof(orlith_metric_locator, last_n), 8U);
  EXPECT_EQ(offsetof(orlith_metric_locator, last_t), 16U);
  EXPECT_EQ(offsetof(orlith_metric_locator, last_h), 24U);
  EXPECT_EQ(offsetof(orlith_metric_locator, account_id), 32U);
  EXPECT_EQ(offsetof(orlith_metric_locator, ref_cnt), 36U);
  EXPECT_EQ(offsetof(orlith_metric_locator, last_update_lock), 40U);
  EXPECT_EQ(offsetof(orlith_metric_locator, activity_oil_lock), 44U);
  EXPECT_EQ(offsetof(orlith_metric_locator, type), 48U);
  EXPECT_EQ(offsetof(orlith_metric_locator, egress_function), 50U);
  EXPECT_EQ(offsetof(orlith_metric_locator, canonical_copy), 51U);
  EXPECT_EQ(offsetof(orlith_metric_locator, immutable), 56U);
}

TEST(MetricLocatorLayout, ImmutableDataFieldsStandWhereHostsExpectThem) {
  EXPECT_EQ(sizeof(orlith_metric_locator_immutable_data), 72U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, stream_tags), 0U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, surrogate_id), 24U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, key_len), 32U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, untagged_metric_name_len), 36U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, release), 40U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, key_mem), 48U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, hash), 56U);
  EXPECT_EQ(offsetof(orlith_metric_locator_immutable_data, check_uuid), 64U);
}

TEST(MetricLocatorLayout, ANamedLocatorIsOneBlock) {
  const LocatorPtr loc = make_locator("cpu|ST[a:1]");
  const auto *start = reinterpret_cast<const uint8_t *>(loc.get());
  const auto *key = reinterpret_cast<const uint8_t *>(loc->immutable->key_mem);
  EXPECT_EQ(reinterpret_cast<const uint8_t *>(loc->immutable), start + 64);
  EXPECT_EQ(key, start + 64 + 72);
  EXPECT_EQ(loc->immutable->hash, key + 12) << "after the 11 bytes of the name and its NUL";
  EXPECT_EQ(loc->immutable->check_uuid, key + 12 + 32);
  EXPECT_EQ(loc->immutable->release, orlith_metric_locator_immutable_data_release);
}

TEST(MetricLocatorLayout, TypeCodesAreFixed) {
  EXPECT_EQ(sizeof(orlith_metric_locator_metric_type_e), 2U);
  EXPECT_EQ(METRIC_TYPE_UNKNOWN, 0);
  EXPECT_EQ(METRIC_TYPE_NUMERIC, 1);
  EXPECT_EQ(METRIC_TYPE_HISTOGRAM, 2);
  EXPECT_EQ(METRIC_TYPE_TEXT, 4);
  EXPECT_EQ(METRIC_TYPE_ANY, 65535);
}

// ---- Creation

TEST(MetricLocatorCreate, StartsWithTheGivenIdentityAndNothingElse) {
  const LocatorPtr loc = make_locator("cpu", METRIC_TYPE_TEXT);
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(loc->ref_cnt, 1U);
  EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), 0);
  EXPECT_EQ(orlith_metric_locator_get_type(loc.get()), METRIC_TYPE_TEXT);
  EXPECT_EQ(orlith_metric_locator_get_egress_function(loc.get()), 0);
  EXPECT_EQ(orlith_metric_locator_get_surrogate_id(loc.get()), 0U);
  EXPECT_FALSE(orlith_metric_locator_is_canonical(loc.get()));
  EXPECT_EQ(loc->activity_oil, nullptr);
  EXPECT_EQ(loc->last_n, nullptr);
  EXPECT_EQ(loc->last_t, nullptr);
  EXPECT_EQ(loc->last_h, nullptr);
  uint8_t uuid[16];
  orlith_metric_locator_get_check_uuid(loc.get(), uuid);
  EXPECT_EQ(hex_of(uuid, 16), "4c1f2a3b00114d228e339a44bb55cc66");
  EXPECT_STREQ(orlith_metric_locator_get_name_with_tags(loc.get()), "cpu");
}

TEST(MetricLocatorCreate, StoresTheCanonicalNameAndItsTags) {
  const LocatorPtr loc = make_locator("cpu|MT{unit:ms}|ST[host:web-01,dc:ams]");
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(name_of(loc.get()), "cpu|ST[dc:ams,host:web-01]");
  ASSERT_EQ(orlith_metric_locator_get_stream_tags(loc.get())->tag_count, 2);
  EXPECT_EQ(tag_text(loc.get(), 0), "dc:ams");
  EXPECT_EQ(tag_text(loc.get(), 1), "host:web-01");
}

TEST(MetricLocatorCreate, TagsPointIntoTheName) {
  const LocatorPtr loc = make_locator("cpu|ST[a:1]");
  EXPECT_EQ(orlith_metric_locator_get_stream_tags(loc.get())->tags[0].tag,
            orlith_metric_locator_get_name_with_tags(loc.get()) + strlen("cpu|ST["));
}

TEST(MetricLocatorCreate, TheNameWithoutTagsDiffersInLengthOnly) {
  const LocatorPtr loc = make_locator("a|ST[x:1]");
  EXPECT_EQ(orlith_metric_locator_get_name_without_tags(loc.get()),
            orlith_metric_locator_get_name_with_tags(loc.get()));
  EXPECT_EQ(orlith_metric_locator_get_name_len_without_tags(loc.get()), 1U);
  EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(loc.get()), 9U);
  const mem_reader_t with = orlith_metric_locator_get_name_buf_with_tags(loc.get());
  const mem_reader_t without = orlith_metric_locator_get_name_buf_without_tags(loc.get());
  EXPECT_EQ(with.input_buffer, without.input_buffer);
  EXPECT_EQ(with.input_buffer_size, 9U);
  EXPECT_EQ(without.input_buffer_size, 1U);
}

TEST(MetricLocatorCreate, ANameWithoutTagsIsItsOwnUntaggedName) {
  const LocatorPtr loc = make_locator("disk`used|total");
  EXPECT_EQ(orlith_metric_locator_get_name_len_without_tags(loc.get()), 15U);
}

// Kept on purpose, though such a mark begins no block and belongs to the plain name: see doc/metric-locator.md.
TEST(MetricLocatorCreate, TheFirstMarkEndsTheUntaggedNameEvenWhereItBeginsNoBlock) {
  const struct {
    const char *name;
    size_t untagged;
    int tags;
  } cases[] = {{"cpu|ST[a:1", 3, 0}, {"x|ST[y|ST[a:1]", 1, 1}, {"|ST[a:1]", 0, 1}, {"cpu|ST|x", 8, 0}};
  for (const auto &test : cases) {
    const LocatorPtr loc = make_locator(test.name);
    ASSERT_NE(loc, nullptr) << test.name;
    EXPECT_EQ(name_of(loc.get()), test.name);
    EXPECT_EQ(orlith_metric_locator_get_name_len_without_tags(loc.get()), test.untagged) << test.name;
    EXPECT_EQ(orlith_metric_locator_get_stream_tags(loc.get())->tag_count, test.tags) << test.name;
  }
}

TEST(MetricLocatorCreate, ANullOrEmptyNameIsEmpty) {
  const LocatorPtr from_null(orlith_metric_locator_create(Uuid().bytes, nullptr, METRIC_TYPE_NUMERIC));
  const LocatorPtr from_empty = make_locator("");
  for (const orlith_metric_locator_t *loc : {from_null.get(), from_empty.get()}) {
    ASSERT_NE(loc, nullptr);
    EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(loc), 0U);
    EXPECT_STREQ(orlith_metric_locator_get_name_with_tags(loc), "");
    const mem_reader_t with = orlith_metric_locator_get_name_buf_with_tags(loc);
    EXPECT_EQ(with.input_buffer, nullptr);
    EXPECT_EQ(with.input_buffer_size, 0U);
    const mem_reader_t without = orlith_metric_locator_get_name_buf_without_tags(loc);
    EXPECT_EQ(without.input_buffer, nullptr);
    EXPECT_EQ(without.input_buffer_size, 0U);
    EXPECT_EQ(hex_of(orlith_metric_locator_get_hash(loc), 32),
              "f9a8c8470ca8c4be205e00715167adf54b33d8d5dda713cec89eed46bfdcdfb9")
        << "of the UUID text and \"-\"";
  }
}

// The digests were computed with another SHA-256 over "<uuid>-<canonical name>".
TEST(MetricLocatorCreate, HashesTheUuidTextADashAndTheCanonicalName) {
  const struct {
    const char *name;
    const char *digest;
  } cases[] = {
      {"cpu", "b5b8320bb966a4518ac91b801f87e400cd4a0501e9dec00adf9bb37df6bdc8ed"},
      {"a|ST[x:1]", "3197e7b7c66a829294ecd5e220ef56cf652e8f193e040459d73a3b3f0f0864d1"},
      {"cpu`idle|ST[host:web-01,dc:ams]", "ef2291febfe7c1de38596bacc460e7ae9b6ee0c7c0c94c24c82f50f64b31e8ca"},
  };
  for (const auto &test : cases) {
    const LocatorPtr loc = make_locator(test.name);
    EXPECT_EQ(hex_of(orlith_metric_locator_get_hash(loc.get()), 32), test.digest) << test.name;
  }
}

TEST(MetricLocatorCreate, TheUuidIsHashedInLowerCase) {
  const LocatorPtr loc = make_locator("cpu", METRIC_TYPE_NUMERIC, "4C1F2A3B-0011-4D22-8E33-9A44BB55CC66");
  EXPECT_EQ(hex_of(orlith_metric_locator_get_hash(loc.get()), 32),
            "b5b8320bb966a4518ac91b801f87e400cd4a0501e9dec00adf9bb37df6bdc8ed");
}

TEST(MetricLocatorCreate, AcceptsACanonicalNameOf4095Bytes) {
  const LocatorPtr loc = make_locator(std::string(4095, 'x'));
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(loc.get()), 4095U);
  EXPECT_EQ(hex_of(orlith_metric_locator_get_hash(loc.get()), 32),
            "371fe1e5bffe58c784ef8cbc320324cfe395b8f6e63fc6b6286f4e61c60db620");
}

TEST(MetricLocatorCreate, RefusesACanonicalNameOf4096Bytes) {
  LogCapture log(&ml_error_ls);
  const std::string name(4096, 'x');
  EXPECT_EQ(make_locator(name), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("Metric name is too long: " + name + "\n"));
}

TEST(MetricLocatorCreate, OnlyTheCanonicalLengthCounts) {
  const LocatorPtr loc = make_locator(std::string(4095, 'x') + "|MT{a:1}");
  ASSERT_NE(loc, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(loc.get()), 4095U);
}

TEST(MetricLocatorCreate, LogsTheCodeAndTheGivenNameWhenThereIsNoCanonicalForm) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(make_locator("cpu|ST[a:1]|ST[b:2]"), nullptr);
  EXPECT_THAT(log.lines(),
              ElementsAre("Unable to canonicalize metric name (error code -6): cpu|ST[a:1]|ST[b:2]\n"));
}

TEST(MetricLocatorCreate, PrintsNoMoreThanTheGivenName) {
  LogCapture log(&ml_error_ls);
  const std::string_view text = "cpu\x01tail";
  EXPECT_EQ(make_locator(text.substr(0, 4)), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("Unable to canonicalize metric name (error code -2): cpu\x01\n"));
}

TEST(MetricLocatorCreate, ANulInANameIsRefusedBeforeItCouldBeFatal) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(make_locator(std::string_view("a\0b", 3)), nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines()[0].starts_with("Unable to canonicalize metric name (error code -2): a"));
}

TEST(MetricLocatorCreate, RefusesReservedTags) {
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(make_locator("cpu|ST[__name:x]"), nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("Unable to parse metric name: cpu|ST[__name:x]\n"));
}

TEST(MetricLocatorCreate, TracesTheNameAndItsTagsOnTheDebugStream) {
  LogCapture log(&ml_debug_ls);
  const LocatorPtr loc = make_locator("cpu|ST[b:2,a:1]");
  char parsed[64];
  snprintf(parsed, sizeof parsed, "parsed tags: 2, %p\n",
           static_cast<const void *>(orlith_metric_locator_get_stream_tags(loc.get())->tags));
  EXPECT_THAT(log.lines(), ElementsAre("Canonical ML name: cpu|ST[a:1,b:2]\n", parsed));
}

TEST(MetricLocatorCreate, AnEmptyNameIsNotCanonicalized) {
  LogCapture log(&ml_debug_ls);
  const LocatorPtr loc = make_locator("");
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines()[0].starts_with("parsed tags: 0, "));
}

TEST(MetricLocatorCreateFull, SetsTheAccountAndTakesTheTypeModulo65536) {
  const mem_reader_t name = reader_of("cpu");
  const LocatorPtr loc(orlith_metric_locator_create_full(-7, 65536 + 4, Uuid().bytes, &name));
  EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), -7);
  EXPECT_EQ(orlith_metric_locator_get_type(loc.get()), METRIC_TYPE_TEXT);
  const mem_reader_t bad = reader_of("a\x02");
  LogCapture log(&ml_error_ls);
  EXPECT_EQ(orlith_metric_locator_create_full(1, 1, Uuid().bytes, &bad), nullptr);
}

TEST(MetricLocatorFromParts, UsesTheGivenDataAsItIs) {
  Parts parts("not canonical|ST[b:2,a:1]");
  const LocatorPtr a(orlith_metric_locator_create_from_parts(&parts.data, 5, METRIC_TYPE_HISTOGRAM));
  const LocatorPtr b(orlith_metric_locator_create_from_parts(&parts.data, 6, METRIC_TYPE_TEXT));
  EXPECT_EQ(a->ref_cnt, 1U);
  EXPECT_EQ(orlith_metric_locator_get_account_id(a.get()), 5);
  EXPECT_EQ(orlith_metric_locator_get_type(a.get()), METRIC_TYPE_HISTOGRAM);
  EXPECT_EQ(orlith_metric_locator_get_name_with_tags(a.get()), parts.key.c_str());
  orlith_metric_locator_set_surrogate_id(a.get(), 99);
  EXPECT_EQ(orlith_metric_locator_get_surrogate_id(b.get()), 99U) << "locators of the same data share the id";
}

TEST(MetricLocatorFromParts, EachFinalDerefReleasesTheDataOnce) {
  Parts parts("cpu");
  Parts::releases = 0;
  orlith_metric_locator_t *loc = orlith_metric_locator_create_from_parts(&parts.data, 0, METRIC_TYPE_NUMERIC);
  EXPECT_EQ(orlith_metric_locator_ref(loc), loc);
  orlith_metric_locator_deref(loc);
  EXPECT_EQ(Parts::releases, 0);
  orlith_metric_locator_deref(loc);
  EXPECT_EQ(Parts::releases, 1);
}

TEST(MetricLocatorFromParts, ReleasesInsideAReclamationSection) {
  static bool in_section = false;
  Parts parts("cpu");
  parts.data.release = [](orlith_metric_locator_immutable_data_t *) { in_section = ruxo_memory_in_cs(); };
  orlith_metric_locator_deref(orlith_metric_locator_create_from_parts(&parts.data, 0, METRIC_TYPE_NUMERIC));
  EXPECT_TRUE(in_section);
  EXPECT_FALSE(ruxo_memory_in_cs());
}

TEST(MetricLocatorDeathTest, ANulInGivenPartsIsFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Parts parts("cpu");
  parts.data.key_len = 4;
  EXPECT_DEATH(
      orlith_metric_locator_create_from_parts(&parts.data, 0, METRIC_TYPE_NUMERIC),
      "\\[FATAL\\] assertion \\(strlen\\(rval->immutable->key_mem\\) == rval->immutable->key_len\\) at "
      "util/metric_locator\\.cpp:[0-9]+ failed");
}

// ---- Lifetime

TEST(MetricLocatorDeref, OfNullIsLogged) {
  LogCapture log(&ml_error_ls);
  orlith_metric_locator_deref(nullptr);
  EXPECT_THAT(log.lines(), ElementsAre("Attempt to deref null metric locator!\n"));
}

TEST(MetricLocatorDeref, FreesActivityAndLastValues) {  // the leak checker holds this
  orlith_metric_locator_t *loc = make_locator("cpu|ST[a:1]").release();
  loc->activity_oil = oil_alloc();
  oil_put(loc->activity_oil, 2, 3);
  loc->last_n = static_cast<last_two_numeric_t *>(calloc(1, sizeof(last_two_numeric_t)));
  loc->last_t = static_cast<last_text_t *>(calloc(1, sizeof(last_text_t)));
  loc->last_t->value = ruxo_memory_safe_strdup("text");
  loc->last_h = static_cast<last_hist_t *>(calloc(1, sizeof(last_hist_t)));
  loc->last_h->serialized_value = ruxo_memory_safe_strdup("AAA=");
  orlith_metric_locator_deref(loc);
  ruxo_memory_synchronize();
}

TEST(MetricLocatorDeref, AReaderInASectionKeepsItsText) {
  orlith_metric_locator_t *loc = make_locator("cpu").release();
  loc->last_t = static_cast<last_text_t *>(calloc(1, sizeof(last_text_t)));
  loc->last_t->value = ruxo_memory_safe_strdup("still here");
  ruxo_memory_begin();
  const char *text = loc->last_t->value;
  std::thread([loc] { orlith_metric_locator_deref(loc); }).join();
  EXPECT_STREQ(text, "still here");
  ruxo_memory_end();
  ruxo_memory_synchronize();
}

TEST(MetricLocatorRef, CountsFromManyThreads) {
  Parts parts("cpu");
  Parts::releases = 0;
  orlith_metric_locator_t *loc = orlith_metric_locator_create_from_parts(&parts.data, 0, METRIC_TYPE_NUMERIC);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    orlith_metric_locator_ref(loc);
    threads.emplace_back([loc] {
      for (int round = 0; round < 20000; ++round) {
        EXPECT_EQ(orlith_metric_locator_ref(loc), loc);
        EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(loc), 3U);
        orlith_metric_locator_deref(loc);
      }
      orlith_metric_locator_deref(loc);  // this thread's own reference
    });
  }
  orlith_metric_locator_deref(loc);  // the first one; whichever thread is last frees
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(Parts::releases, 1);
}

// ---- Clone

TEST(MetricLocatorClone, CopiesIdentityAccountTypeEgressAndActivity) {
  const LocatorPtr loc = make_locator("cpu|ST[a:1]", METRIC_TYPE_TEXT);
  orlith_metric_locator_set_accountid(loc.get(), 12);
  orlith_metric_locator_set_egress_function(loc.get(), 3);
  orlith_metric_locator_set_surrogate_id(loc.get(), 77);
  orlith_metric_locator_mark_canonical(loc.get());
  loc->activity_oil = oil_alloc();
  oil_put(loc->activity_oil, 10, 20);
  loc->last_t = static_cast<last_text_t *>(calloc(1, sizeof(last_text_t)));

  const LocatorPtr copy(orlith_metric_locator_clone(loc.get()));
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(orlith_metric_locator_equal(loc.get(), copy.get()));
  EXPECT_TRUE(orlith_metric_locator_matches(loc.get(), copy.get()));
  EXPECT_NE(copy->immutable, loc->immutable);
  EXPECT_EQ(orlith_metric_locator_get_account_id(copy.get()), 12);
  EXPECT_EQ(orlith_metric_locator_get_type(copy.get()), METRIC_TYPE_TEXT);
  EXPECT_EQ(orlith_metric_locator_get_egress_function(copy.get()), 3);
  EXPECT_EQ(orlith_metric_locator_get_surrogate_id(copy.get()), 0U);
  EXPECT_FALSE(orlith_metric_locator_is_canonical(copy.get()));
  EXPECT_EQ(copy->last_t, nullptr);
  ASSERT_NE(copy->activity_oil, nullptr);
  EXPECT_NE(copy->activity_oil, loc->activity_oil);
  EXPECT_TRUE(oil_exact_match(copy->activity_oil, loc->activity_oil));
  EXPECT_EQ(loc->activity_oil_lock, 0) << "the shared lock was given back";
}

TEST(MetricLocatorClone, WithoutActivityDataHasNone) {
  const LocatorPtr loc = make_locator("cpu");
  orlith_metric_locator_set_egress_function(loc.get(), 4);
  loc->activity_oil = oil_alloc();
  const LocatorPtr copy(orlith_metric_locator_clone_without_activity_data(loc.get()));
  EXPECT_EQ(copy->activity_oil, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_egress_function(copy.get()), 4);
}

TEST(MetricLocatorClone, OfALocatorWithoutActivityHasNone) {
  const LocatorPtr loc = make_locator("");
  const LocatorPtr copy(orlith_metric_locator_clone(loc.get()));
  EXPECT_EQ(copy->activity_oil, nullptr);
  EXPECT_EQ(orlith_metric_locator_get_name_len_with_tags(copy.get()), 0U);
  EXPECT_EQ(orlith_metric_locator_clone(nullptr), nullptr);
}

// ---- Setters, accessors on null

TEST(MetricLocatorSetters, Store) {
  const LocatorPtr loc = make_locator("cpu");
  orlith_metric_locator_set_accountid(loc.get(), -3);
  orlith_metric_locator_set_type(loc.get(), METRIC_TYPE_ANY);
  orlith_metric_locator_set_egress_function(loc.get(), 255);
  orlith_metric_locator_set_surrogate_id(loc.get(), UINT64_MAX);
  orlith_metric_locator_mark_canonical(loc.get());
  EXPECT_EQ(orlith_metric_locator_get_account_id(loc.get()), -3);
  EXPECT_EQ(orlith_metric_locator_get_type(loc.get()), METRIC_TYPE_ANY);
  EXPECT_EQ(orlith_metric_locator_get_egress_function(loc.get()), 255);
  EXPECT_EQ(orlith_metric_locator_get_surrogate_id(loc.get()), UINT64_MAX);
  EXPECT_TRUE(orlith_metric_locator_is_canonical(loc.get()));
}

TEST(MetricLocatorAccessors, OfNull) {
  EXPECT_EQ(orlith_metric_locator_get_surrogate_id(nullptr), 0U);
  EXPECT_EQ(orlith_metric_locator_get_name_with_tags(nullptr), nullptr);
  EXPECT_EQ(orlith_metric_locator_get_name_without_tags(nullptr), nullptr);
}

// ---- Comparison

TEST(MetricLocatorCompare, AccountAndTypeDoNotCount) {
  const LocatorPtr a = make_locator("cpu", METRIC_TYPE_NUMERIC);
  const LocatorPtr b = make_locator("cpu", METRIC_TYPE_TEXT);
  orlith_metric_locator_set_accountid(b.get(), 9);
  EXPECT_TRUE(orlith_metric_locator_equal(a.get(), b.get()));
  EXPECT_TRUE(orlith_metric_locator_matches(a.get(), b.get()));
}

TEST(MetricLocatorCompare, NamesTagsAndUuidsCount) {
  const LocatorPtr a = make_locator("cpu");
  for (const LocatorPtr &other : {make_locator("cpv"), make_locator("cpu|ST[a:1]"), make_locator("cp"),
                                  make_locator("cpu", 1, "4c1f2a3b-0011-4d22-8e33-9a44bb55cc67")}) {
    EXPECT_FALSE(orlith_metric_locator_equal(a.get(), other.get()));
    EXPECT_FALSE(orlith_metric_locator_matches(a.get(), other.get()));
  }
}

TEST(MetricLocatorCompare, NullsMatchButAreNotEqual) {
  const LocatorPtr a = make_locator("cpu");
  EXPECT_FALSE(orlith_metric_locator_equal(nullptr, nullptr));
  EXPECT_FALSE(orlith_metric_locator_equal(a.get(), nullptr));
  EXPECT_FALSE(orlith_metric_locator_equal(nullptr, a.get()));
  EXPECT_TRUE(orlith_metric_locator_matches(nullptr, nullptr));
  EXPECT_FALSE(orlith_metric_locator_matches(a.get(), nullptr));
  EXPECT_FALSE(orlith_metric_locator_matches(nullptr, a.get()));
}

TEST(MetricLocatorCompare, UuidsAreOrderedAsUnsignedBytes) {
  const LocatorPtr low = make_locator("x", 1, "7f000000-0000-0000-0000-000000000000");
  const LocatorPtr high = make_locator("a", 1, "80000000-0000-0000-0000-000000000000");
  EXPECT_LT(orlith_metric_locator_uuid_cmp(low.get(), high.get()), 0);
  EXPECT_GT(orlith_metric_locator_uuid_cmp(high.get(), low.get()), 0);
  EXPECT_EQ(orlith_metric_locator_uuid_cmp(low.get(), low.get()), 0);
}

// ---- The activity lock

TEST(ActivityLock, AddsTheDocumentedAmounts) {
  int32_t word = 0;
  activity_lock::lock_shared(&word);
  activity_lock::lock_shared(&word);
  EXPECT_EQ(word, 8);
  activity_lock::unlock_shared(&word);
  activity_lock::unlock_shared(&word);
  activity_lock::lock_exclusive(&word);
  EXPECT_EQ(word, 0x50004);
  activity_lock::unlock_exclusive(&word);
  EXPECT_EQ(word, 0);
}

TEST(ActivityLock, WritersExcludeReadersAndEachOther) {
  int32_t word = 0;
  int64_t left = 0;  // plain: a missing exclusion is a data race, and a torn pair
  int64_t right = 0;
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 3000; ++round) {
        const activity_lock::ExclusiveGuard guard(&word);
        ++left;
        ++right;
      }
    });
    threads.emplace_back([&] {
      for (int round = 0; round < 3000; ++round) {
        const activity_lock::SharedGuard guard(&word);
        if (left != right) ++torn;
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(left, 9000);
  EXPECT_EQ(right, 9000);
  EXPECT_EQ(word, 0);
}

TEST(ActivityLock, AClonerSeesWholeListsWhileAWriterReplacesThem) {
  const LocatorPtr loc = make_locator("cpu");
  loc->activity_oil = oil_alloc();
  std::thread writer([&] {
    for (uint32_t round = 1; round <= 500; ++round) {
      oil_list_t *fresh = oil_alloc();
      oil_put(fresh, round, round + 1000);
      oil_list_t *old = nullptr;
      {
        const activity_lock::ExclusiveGuard guard(&loc->activity_oil_lock);
        old = loc->activity_oil;
        loc->activity_oil = fresh;
      }
      oil_free(old);
    }
  });
  for (int round = 0; round < 200; ++round) {
    const LocatorPtr copy(orlith_metric_locator_clone(loc.get()));
    uint32_t first = 0;
    uint32_t last = 0;
    const int known = oil_epoch_apoc(copy->activity_oil, &first, &last);
    EXPECT_TRUE(known == 0 || last == first + 1000) << first << " " << last;
  }
  writer.join();
}

// ---- Start-up

// Each in a process of its own: start-up runs once in a process.
int start_with(ruxo_log_stream_t debug_ls) {
  ml_debug_ls = debug_ls;
  ml_error_ls = nullptr;
  orlith_metric_locator_lib_init();
  ml_error_ls = ml_error_ls == ruxo_error ? ml_error_ls : nullptr;
  orlith_metric_locator_lib_init();
  return ml_debug_ls == (debug_ls != nullptr ? debug_ls : ruxo_debug) && ml_error_ls == ruxo_error ? 0 : 1;
}

TEST(MetricLocatorInitDeathTest, FillsTheHandlesThatTheHostHasNotSet) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit(start_with(nullptr)), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(exit(start_with(ruxo_log_stream_new("test/mine"))), testing::ExitedWithCode(0), "");
}

TEST(MetricLocatorInitDeathTest, UsesTheStreamsTheHostHasConfigured) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto start = [] {
    ruxo_log_stream_t debug_ls = ruxo_log_stream_new("debug/metric_locator");
    ruxo_log_stream_t error_ls = ruxo_log_stream_new("error/metric_locator");
    orlith_metric_locator_lib_init();
    return ml_debug_ls == debug_ls && ml_error_ls == error_ls ? 0 : 1;
  };
  EXPECT_EXIT(exit(start()), testing::ExitedWithCode(0), "");
}

// ---- The short way for canonical names, against the steps one by one, which a live debug stream brings about

TEST(MetricLocatorCreate, BothWaysMakeTheSameLocator) {
  for (const char *name :
       {"cpu", "cpu|ST[a:1,b:2]", "cpu|ST[b:2,a:1]", "x|ST[y|ST[a:1]", "µs|ST[a:é]", "a|b|c",
        "cpu|ST[a:1]|MT{m:1}", "cpu|ST[b\"w6k=\":1]", "|ST[a:]", "cpu]", "cpu|ST[]"}) {
    SCOPED_TRACE(name);
    const LocatorPtr quick = make_locator(name);
    LogCapture trace(&mn_debug_ls);
    const LocatorPtr traced = make_locator(name);
    EXPECT_FALSE(trace.lines().empty());
    ASSERT_NE(quick, nullptr);
    ASSERT_NE(traced, nullptr);
    EXPECT_TRUE(orlith_metric_locator_equal(quick.get(), traced.get()));
    EXPECT_TRUE(orlith_metric_locator_matches(quick.get(), traced.get()));
    EXPECT_EQ(orlith_metric_locator_get_name_len_without_tags(quick.get()),
              orlith_metric_locator_get_name_len_without_tags(traced.get()));
    const pobe_metric_tagset_t *a = orlith_metric_locator_get_stream_tags(quick.get());
    const pobe_metric_tagset_t *b = orlith_metric_locator_get_stream_tags(traced.get());
    ASSERT_EQ(a->tag_count, b->tag_count);
    EXPECT_EQ(a->canonical_size, b->canonical_size);
    for (int i = 0; i < a->tag_count; ++i) EXPECT_EQ(tag_text(quick.get(), i), tag_text(traced.get(), i));
  }
}
