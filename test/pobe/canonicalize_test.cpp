#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "pobe/pobe.h"
#include "test/pobe/naive_metric_name.h"
#include "test/pobe/random_names.h"

namespace {

// The canonical form, or "refused: " with the name of the code.
std::string canonical(const std::string &name, naive::Flags flags = {}) {
  std::string out(name.size() + 64, '#');
  const ssize_t size =
      pobe_metric_canonicalize_ex(name.data(), name.size(), out.data(), out.size(), flags.accept_stream_tags,
                                  flags.accept_measurement_tags, flags.keep_measurement_tags);
  switch (size) {
#define POBE_TEST_CASE(name, code, text) \
  case code:                             \
    return "refused: " #name;
    POBE_ERRORS(POBE_TEST_CASE)
#undef POBE_TEST_CASE
    default:
      break;
  }
  EXPECT_GE(size, 0);
  EXPECT_LE(static_cast<size_t>(size), name.size()) << "no canonical form is longer than its name: " << name;
  EXPECT_EQ(out.substr(static_cast<size_t>(size)), std::string(out.size() - static_cast<size_t>(size), '#'))
      << "written past the returned length: " << name;
  return out.substr(0, static_cast<size_t>(size));
}

std::string tagged(const std::string &tags) {
  return canonical("cpu|ST[" + tags + "]");
}

constexpr naive::Flags kKeep{true, true, true};
constexpr naive::Flags kNoStream{false, true, false};
constexpr naive::Flags kNoMeasurement{true, false, false};

TEST(Canonicalize, PlainNameStaysAsItIs) {
  for (const std::string name : {"cpu", " cpu ", "a`b", "a,b:c", "[x]", "{x}", "\"", "ST[a:1]", "MT{a:1}",
                                 "cpu usage \xc3\xa9\xe2\x82\xac\xf0\x9f\x92\xa9"})
    EXPECT_EQ(canonical(name), name);
}

TEST(Canonicalize, EmptyNameIsEmpty) {
  EXPECT_EQ(canonical(""), "");
  EXPECT_EQ(pobe_metric_canonicalize_ex(nullptr, 0, nullptr, 0, true, true, false), 0);
}

TEST(Canonicalize, EmptyPlainNameMayHaveTags) {
  EXPECT_EQ(canonical("|ST[a:1]"), "|ST[a:1]");
  EXPECT_EQ(canonical("|MT{a:1}"), "");
}

TEST(Canonicalize, TagsAreSortedByCategoryThenValue) {
  EXPECT_EQ(tagged("b:1,a:2,a:1"), "cpu|ST[a:1,a:2,b:1]");
  EXPECT_EQ(tagged("a:1,a:2,b:1"), "cpu|ST[a:1,a:2,b:1]");
}

TEST(Canonicalize, OrderIsOfUnsignedBytesWithAPrefixFirst) {
  EXPECT_EQ(tagged("\xc3\xa9:1,z:1,Z:1,a:1"), "cpu|ST[Z:1,a:1,z:1,\xc3\xa9:1]");
  EXPECT_EQ(tagged("ab:1,a:1,a:,aa:1"), "cpu|ST[a:,a:1,aa:1,ab:1]");
}

// "a!" sorts after "a" although "!" sorts before ":": it is categories that are compared, not whole tags.
TEST(Canonicalize, OrderComparesCategoriesNotTheColonAfterThem) {
  EXPECT_EQ(tagged("a!:1,a:1"), "cpu|ST[a:1,a!:1]");
}

// b"LA==" is ",", which sorts before "a", although the spelling with b" would come later.
TEST(Canonicalize, OrderIsOfDecodedBytes) {
  EXPECT_EQ(tagged("a:1,b\"LA==\":1"), "cpu|ST[b\"LA==\":1,a:1]");
  EXPECT_EQ(tagged("a:b,a:b\"LA==\""), "cpu|ST[a:b\"LA==\",a:b]");
  EXPECT_EQ(tagged("a:b\"XQ==\",a:b\"W10=\""), "cpu|ST[a:b\"W10=\",a:b\"XQ==\"]");
}

TEST(Canonicalize, EqualTagsCollapse) {
  EXPECT_EQ(tagged("a:1,a:1"), "cpu|ST[a:1]");
  EXPECT_EQ(tagged("a:1,b:1,a:1,b:1,a:1"), "cpu|ST[a:1,b:1]");
  EXPECT_EQ(tagged("a:1,b\"YQ==\":1,a:b\"MQ==\""), "cpu|ST[a:1]");
  EXPECT_EQ(tagged("a:b\"LA==\",a:b\"LA==\""), "cpu|ST[a:b\"LA==\"]");
}

TEST(Canonicalize, EncodedSideIsWrittenPlainlyWhereItCanBe) {
  EXPECT_EQ(tagged("b\"YQ==\":b\"eA==\""), "cpu|ST[a:x]");
  EXPECT_EQ(tagged("a:b\"\""), "cpu|ST[a:]");
  EXPECT_EQ(tagged("a:b\"w6k=\""), "cpu|ST[a:\xc3\xa9]");
}

TEST(Canonicalize, EncodedSideStaysWhereItMust) {
  // , : | [ ] { } " and a leading or trailing blank; the colon only in a category
  for (const std::string code :
       {"LA==", "Og==", "fA==", "Ww==", "XQ==", "ew==", "fQ==", "Ig==", "IGE=", "YSA=", "IA=="})
    EXPECT_EQ(tagged("b\"" + code + "\":1"), "cpu|ST[b\"" + code + "\":1]");
  EXPECT_EQ(tagged("a:b\"Og==\""), "cpu|ST[a::]");
  EXPECT_EQ(tagged("a:b\"fA==\""), "cpu|ST[a:b\"fA==\"]");
}

TEST(Canonicalize, ValueMayHoldColonsAndInnerBlanks) {
  EXPECT_EQ(tagged("url:http://h:80/x"), "cpu|ST[url:http://h:80/x]");
  EXPECT_EQ(tagged("a b:c d"), "cpu|ST[a b:c d]");
  EXPECT_EQ(tagged("b:1"), "cpu|ST[b:1]");
  EXPECT_EQ(tagged("a:b"), "cpu|ST[a:b]");
}

TEST(Canonicalize, OtherBlanksThanTheSpaceArePartOfASide) {
  EXPECT_EQ(tagged("a:\xc2\xa0x\xe3\x80\x80"), "cpu|ST[a:\xc2\xa0x\xe3\x80\x80]");
}

TEST(Canonicalize, EmptyBlockIsDropped) {
  EXPECT_EQ(canonical("cpu|ST[]"), "cpu");
  EXPECT_EQ(canonical("cpu|MT{}"), "cpu");
  EXPECT_EQ(canonical("cpu|MT{}|ST[]", kKeep), "cpu");
}

TEST(Canonicalize, MeasurementBlocksAreDroppedOnEitherSide) {
  EXPECT_EQ(canonical("cpu|ST[a:1]|MT{x:1}"), "cpu|ST[a:1]");
  EXPECT_EQ(canonical("cpu|MT{x:1}|ST[a:1]"), "cpu|ST[a:1]");
  EXPECT_EQ(canonical("cpu|MT{x:1}|ST[b:1,a:1]|MT{y:1}|MT{}"), "cpu|ST[a:1,b:1]");
  EXPECT_EQ(canonical("cpu|MT{x:1}"), "cpu");
}

TEST(Canonicalize, DroppedMeasurementBlockIsNotRead) {
  EXPECT_EQ(canonical("cpu|MT{not a tag, [at] all}"), "cpu");
  EXPECT_EQ(canonical("cpu|xMT{x:1}"), "cpu");
  EXPECT_EQ(canonical("cpu|ST[a:1,MT{x:1}"), "cpu");
  EXPECT_EQ(canonical("cpu|MT{x:\x01}"), "refused: CONTROL");
}

TEST(Canonicalize, KeptMeasurementTagsAreOneCanonicalBlockAtTheEnd) {
  EXPECT_EQ(canonical("cpu|MT{y:1,x:1}|ST[b:1,a:1]", kKeep), "cpu|ST[a:1,b:1]|MT{x:1,y:1}");
  EXPECT_EQ(canonical("cpu|MT{x:1}|MT{a:1,x:1}", kKeep), "cpu|MT{a:1,x:1}");
  EXPECT_EQ(canonical("cpu|MT{b\"YQ==\":1}", kKeep), "cpu|MT{a:1}");
  EXPECT_EQ(canonical("cpu|ST[a:1]|MT{x:1}", kKeep), "cpu|ST[a:1]|MT{x:1}");
}

TEST(Canonicalize, KeptMeasurementBlockIsReadStrictly) {
  EXPECT_EQ(canonical("cpu|xMT{x:1}", kKeep), "refused: MEASUREMENT_BLOCK_START");
  EXPECT_EQ(canonical("cpu|MT{x}", kKeep), "refused: NO_COLON");
  EXPECT_EQ(canonical("cpu|MT{MT{x:1}", kKeep), "refused: CATEGORY_BYTE");
}

TEST(Canonicalize, KeepingNeedsAccepting) {
  EXPECT_EQ(canonical("cpu|MT{x:1}", {true, false, true}), "refused: MEASUREMENT_TAGS");
  EXPECT_EQ(canonical("cpu", {true, false, true}), "cpu");
}

TEST(Canonicalize, BlocksThatAreNotAcceptedAreRefusedEvenWhenEmpty) {
  EXPECT_EQ(canonical("cpu|ST[a:1]", kNoStream), "refused: STREAM_TAGS");
  EXPECT_EQ(canonical("cpu|ST[]", kNoStream), "refused: STREAM_TAGS");
  EXPECT_EQ(canonical("cpu|MT{x:1}", kNoStream), "cpu");
  EXPECT_EQ(canonical("cpu|MT{x:1}", kNoMeasurement), "refused: MEASUREMENT_TAGS");
  EXPECT_EQ(canonical("cpu|MT{}", kNoMeasurement), "refused: MEASUREMENT_TAGS");
  EXPECT_EQ(canonical("cpu|ST[b:1,a:1]", kNoMeasurement), "cpu|ST[a:1,b:1]");
  EXPECT_EQ(canonical("cpu|ST[a:1", {false, false, false}), "cpu|ST[a:1");
}

TEST(Canonicalize, TextAfterABarThatIsNoBlockIsPartOfThePlainName) {
  for (const std::string name :
       {"cpu|", "|", "||", "cpu|x", "cpu|ST[a:1", "cpu|MT{x:1", "cpu|ST[a:1]x", "cpu|ST(a:1]",
        "cpu|ST[a:MT{]", "cpu|MT{ST[a:1]", "cpu|ST[a:x|y]", "cpu|ST[a:1]|MT{x:1", "cpu|]", "cpu|}",
        "cpu|T[a:1]", "cpu|S[T]", "cpu|M{T}"})
    EXPECT_EQ(canonical(name), name);
}

TEST(Canonicalize, BlocksAfterABarThatIsNoBlockAreStillTaken) {
  EXPECT_EQ(canonical("cpu|ST[a:MT{]|ST[b:1,a:1]"), "cpu|ST[a:MT{]|ST[a:1,b:1]");
  EXPECT_EQ(canonical("cpu||ST[b:1,a:1]"), "cpu||ST[a:1,b:1]");
  EXPECT_EQ(canonical("cpu|ST[a:1|MT{x:1}"), "cpu|ST[a:1");
  EXPECT_EQ(canonical("cpu||MT{x:1}"), "cpu|");
  EXPECT_EQ(canonical("cpu|ST[c:1]|x|ST[b:1,a:1]"), "cpu|ST[c:1]|x|ST[a:1,b:1]");
}

TEST(Canonicalize, SecondStreamBlockIsRefused) {
  EXPECT_EQ(canonical("cpu|ST[a:1]|ST[b:2]"), "refused: SECOND_STREAM_BLOCK");
  EXPECT_EQ(canonical("cpu|ST[]|ST[a:1]"), "refused: SECOND_STREAM_BLOCK");
  EXPECT_EQ(canonical("cpu|ST[]|MT{x:1}|ST[]"), "refused: SECOND_STREAM_BLOCK");
}

TEST(Canonicalize, StreamBlockMustBeginWithItsMarker) {
  EXPECT_EQ(canonical("cpu|xST[a:1]"), "refused: STREAM_BLOCK_START");
  EXPECT_EQ(canonical("cpu|STST[a:1]"), "refused: STREAM_BLOCK_START");
  EXPECT_EQ(canonical("cpu|STxST[a:1]"), "refused: STREAM_BLOCK_START");
  EXPECT_EQ(canonical("cpu|ST[ST[a:1]"), "refused: CATEGORY_BYTE");
}

TEST(Canonicalize, NullPointersAreRefused) {
  char out[8];
  EXPECT_EQ(pobe_metric_canonicalize_ex(nullptr, 1, out, sizeof(out), true, true, false), POBE_E_ARGUMENT);
  EXPECT_EQ(pobe_metric_canonicalize_ex("cpu", 3, nullptr, 1, true, true, false), POBE_E_ARGUMENT);
  EXPECT_EQ(pobe_metric_canonicalize_ex("cpu", 3, nullptr, 0, true, true, false), 3);
}

TEST(Canonicalize, ControlCharactersAreRefusedAnywhere) {
  for (int c = 0; c < 0x20; ++c)
    EXPECT_EQ(canonical("cpu" + std::string(1, static_cast<char>(c))), "refused: CONTROL") << c;
  EXPECT_EQ(canonical("\x7f"), "refused: CONTROL");
  EXPECT_EQ(canonical("cpu\xc2\x80"), "refused: CONTROL");
  EXPECT_EQ(canonical("cpu\xc2\x9f"), "refused: CONTROL");
  EXPECT_EQ(canonical("cpu\xc2\xa0"), "cpu\xc2\xa0");
  EXPECT_EQ(tagged("a:b\x01"), "refused: CONTROL");
  EXPECT_EQ(tagged("a:b\"AA==\""), "refused: CONTROL");
  EXPECT_EQ(tagged("b\"CQ==\":1"), "refused: CONTROL");
}

TEST(Canonicalize, InvalidUtf8IsRefusedAnywhere) {
  EXPECT_EQ(canonical("cpu\xff"), "refused: UTF8");
  EXPECT_EQ(tagged("a:\xc3"), "refused: UTF8");
  EXPECT_EQ(tagged("a:b\"/w==\""), "refused: UTF8");
  // A character cut in two by a comma or a bracket is not put together again.
  EXPECT_EQ(canonical("cpu|ST[a:\xe2\x82]\xac"), "refused: UTF8");
}

TEST(Canonicalize, TagSyntaxErrorsHaveTheirOwnCodes) {
  EXPECT_EQ(tagged(","), "refused: EMPTY_TAG");
  EXPECT_EQ(tagged("a:1,"), "refused: EMPTY_TAG");
  EXPECT_EQ(tagged("a:1,,b:1"), "refused: EMPTY_TAG");
  EXPECT_EQ(tagged("a"), "refused: NO_COLON");
  EXPECT_EQ(tagged("a,b:1"), "refused: NO_COLON");
  EXPECT_EQ(tagged("b\"YQ==\""), "refused: NO_COLON");
  EXPECT_EQ(tagged(":1"), "refused: EMPTY_CATEGORY");
  EXPECT_EQ(tagged("b\"\":1"), "refused: EMPTY_CATEGORY");
  EXPECT_EQ(tagged(" a:1"), "refused: CATEGORY_BLANK");
  EXPECT_EQ(tagged("a :1"), "refused: CATEGORY_BLANK");
  EXPECT_EQ(tagged(" :1"), "refused: CATEGORY_BLANK");
  EXPECT_EQ(tagged("a:1, b:1"), "refused: CATEGORY_BLANK");
  EXPECT_EQ(tagged("a: 1"), "refused: VALUE_BLANK");
  EXPECT_EQ(tagged("a:1 ,b:1"), "refused: VALUE_BLANK");
  EXPECT_EQ(tagged("a: "), "refused: VALUE_BLANK");
}

TEST(Canonicalize, BytesOfTheFrameAreRefusedInPlainSides) {
  for (const std::string byte : {"[", "]", "{", "}", "\""}) {
    EXPECT_EQ(tagged("x" + byte + ":1"), "refused: CATEGORY_BYTE") << byte;
    EXPECT_EQ(tagged("a:x" + byte + "y"), "refused: VALUE_BYTE") << byte;
  }
  EXPECT_EQ(tagged("\"a\":1"), "refused: CATEGORY_BYTE");
  EXPECT_EQ(tagged("B\"YQ==\":1"), "refused: CATEGORY_BYTE");
  EXPECT_EQ(tagged("a:\"1\""), "refused: VALUE_BYTE");
}

TEST(Canonicalize, EncodedSidesAreReadStrictly) {
  for (const std::string side : {"b\"", "b\"YQ==", "b\"YQ==,x:1"}) {
    EXPECT_EQ(tagged(side), "refused: QUOTE_OPEN") << side;
    EXPECT_EQ(tagged("a:" + side), "refused: QUOTE_OPEN") << side;
  }
  EXPECT_EQ(tagged("b\"YQ==\"x:1"), "refused: QUOTE_TRAILER");
  EXPECT_EQ(tagged("a:b\"YQ==\"x"), "refused: QUOTE_TRAILER");
  EXPECT_EQ(tagged("a:b\"YQ==\":"), "refused: QUOTE_TRAILER");
  for (const std::string code :
       {"YQ", "YQ=", "YQ===", "YR==", "Y===", "=", "YWJ=", "YQ==YQ==", "Y Q=", "YQ-_", "Y=Q="})
    EXPECT_EQ(tagged("a:b\"" + code + "\""), "refused: BASE64") << code;
}

TEST(Canonicalize, SidesHoldAtMost254DecodedBytes) {
  const std::string longest(254, 'x');
  const std::string too_long(255, 'x');
  const auto encoded = [](const std::string &side) { return "b\"" + naive::base64_encode(side) + "\""; };
  EXPECT_EQ(tagged(longest + ":" + longest), "cpu|ST[" + longest + ":" + longest + "]");
  EXPECT_EQ(tagged(encoded(longest) + ":" + encoded(longest)), "cpu|ST[" + longest + ":" + longest + "]");
  EXPECT_EQ(tagged(too_long + ":1"), "refused: CATEGORY_LENGTH");
  EXPECT_EQ(tagged("a:" + too_long), "refused: VALUE_LENGTH");
  EXPECT_EQ(tagged(encoded(too_long) + ":1"), "refused: CATEGORY_LENGTH");
  EXPECT_EQ(tagged("a:" + encoded(too_long)), "refused: VALUE_LENGTH");
  EXPECT_EQ(tagged("a:" + encoded(std::string(100000, 'x'))), "refused: VALUE_LENGTH");
  EXPECT_EQ(tagged(std::string(100000, 'x') + ":1"), "refused: CATEGORY_LENGTH");
  const std::string unwritable = "," + std::string(253, 'x');
  EXPECT_EQ(tagged(encoded(unwritable) + ":" + encoded(unwritable)),
            "cpu|ST[" + encoded(unwritable) + ":" + encoded(unwritable) + "]");
}

std::string numbered_tags(int first, int count) {
  std::string tags;
  for (int i = first; i < first + count; ++i)
    tags += (tags.empty() ? "" : ",") + std::string("t:") + std::to_string(1000 + i);
  return tags;
}

TEST(Canonicalize, AtMost256TagsEvenIfSomeAreEqual) {
  EXPECT_EQ(tagged(numbered_tags(0, 256)), "cpu|ST[" + numbered_tags(0, 256) + "]");
  EXPECT_EQ(tagged(numbered_tags(0, 257)), "refused: TOO_MANY_TAGS");
  EXPECT_EQ(tagged(numbered_tags(0, 256) + ",t:1000"), "refused: TOO_MANY_TAGS");
}

TEST(Canonicalize, KeptMeasurementTagsAreCountedOverAllBlocks) {
  const std::string half = numbered_tags(0, 128);
  const std::string other_half = numbered_tags(128, 128);
  EXPECT_EQ(canonical("cpu|MT{" + other_half + "}|MT{" + half + "}", kKeep),
            "cpu|MT{" + half + "," + other_half + "}");
  EXPECT_EQ(canonical("cpu|MT{" + half + "}|MT{" + other_half + "}|MT{x:1}", kKeep),
            "refused: TOO_MANY_TAGS");
  EXPECT_EQ(canonical("cpu|MT{" + half + "}|MT{" + other_half + "}|MT{}", kKeep),
            "cpu|MT{" + half + "," + other_half + "}");
}

// The worked example of doc/metric-names.md.
TEST(Canonicalize, WorkedExample) {
  EXPECT_EQ(canonical("cpu|MT{trace:7}|ST[host:w1,b\"YXBw\":db,host:b\"dyxf\"]"),
            "\x63\x70\x75\x7c\x53\x54\x5b\x61\x70\x70\x3a\x64\x62\x2c\x68\x6f"
            "\x73\x74\x3a\x62\x22\x64\x79\x78\x66\x22\x2c\x68\x6f\x73\x74\x3a"
            "\x77\x31\x5d");
}

TEST(Canonicalize, OutIsNeverWrittenPastItsSize) {
  const std::string name = "cpu|MT{y:1,x:2}|ST[b:2,a:1,b\"LA==\":b\"eA==\"]";
  const std::string expected = "cpu|ST[b\"LA==\":x,a:1,b:2]|MT{x:2,y:1}";
  for (size_t out_size = 0; out_size <= expected.size() + 2; ++out_size) {
    std::string out(expected.size() + 4, '#');
    EXPECT_EQ(pobe_metric_canonicalize_ex(name.data(), name.size(), out.data(), out_size, true, true, true),
              static_cast<ssize_t>(expected.size()));
    EXPECT_EQ(out.substr(out_size), std::string(out.size() - out_size, '#')) << out_size;
    if (out_size >= expected.size()) {
      EXPECT_EQ(out.substr(0, expected.size()), expected);
    }
  }
}

TEST(Canonicalize, RefusalLeavesOutAsItWas) {
  for (const std::string name : {"cpu|ST[a:1,b]", "cpu|MT{x}|ST[a:1]", "cpu\x01"}) {
    char out[] = "########";
    EXPECT_LT(pobe_metric_canonicalize_ex(name.data(), name.size(), out, 8, true, true, true), 0);
    EXPECT_STREQ(out, "########");
  }
}

TEST(Canonicalize, AgreesWithTheNaiveModel) {
  int accepted = 0;
  int refused = 0;
  for (uint32_t seed = 1; seed <= 30000; ++seed) {
    SCOPED_TRACE(seed);
    RandomNames names(seed);
    const std::string name = names.next();
    const naive::Flags flags{seed % 7 != 0, seed % 5 != 0, seed % 3 == 0};
    const auto expected = naive::canonicalize(name, flags);
    const std::string actual = canonical(name, flags);
    ++(expected ? accepted : refused);
    if (!expected) {
      ASSERT_TRUE(actual.starts_with("refused: ")) << name << " gives " << actual;
      continue;
    }
    ASSERT_EQ(actual, *expected) << name;
    ASSERT_EQ(canonical(actual, flags), actual) << name;
  }
  // The names are worth something only if they fall on both sides often.
  EXPECT_GT(accepted, 8000);
  EXPECT_GT(refused, 8000);
}

}  // namespace
