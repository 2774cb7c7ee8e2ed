#include "pobe/blocks_private.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using pobe::Block;
using pobe::BlockKind;

TEST(Blocks, BlockIsTakenOffWithItsBar) {
  std::string_view name = "cpu|ST[a:1]|MT{x:1}";
  Block block = pobe::take_last_block(name);
  EXPECT_EQ(block.kind, BlockKind::measurement);
  EXPECT_EQ(block.text, "MT{x:1}");
  EXPECT_EQ(pobe::block_body(block.text), "x:1");
  EXPECT_EQ(name, "cpu|ST[a:1]");
  block = pobe::take_last_block(name);
  EXPECT_EQ(block.kind, BlockKind::stream);
  EXPECT_EQ(pobe::block_body(block.text), "a:1");
  EXPECT_EQ(name, "cpu");
  EXPECT_EQ(pobe::take_last_block(name).kind, BlockKind::none);
  EXPECT_EQ(name, "cpu");
}

TEST(Blocks, NothingIsTakenOffWhatHasNone) {
  for (const std::string_view text : {"", "|", "cpu", "cpu|", "cpu|]", "cpu|}", "cpu|ST[a:1", "cpu|MT{a:1",
                                      "cpu|MT{ST[]", "ST[a:1]", "cpu|S[T]", "cpu|ST]["}) {
    std::string_view name = text;
    EXPECT_EQ(pobe::take_last_block(name).kind, BlockKind::none) << text;
    EXPECT_EQ(name, text);
  }
}

TEST(Blocks, NullViewHasNone) {
  std::string_view name;
  EXPECT_EQ(pobe::take_last_block(name).kind, BlockKind::none);
}

TEST(Blocks, MarkerIsFoundBehindOtherBrackets) {
  std::string_view name = "|[[T[xST[]";
  EXPECT_EQ(pobe::take_last_block(name).kind, BlockKind::stream);
  name = "|{T{{MT{}";
  EXPECT_EQ(pobe::take_last_block(name).kind, BlockKind::measurement);
}

// Every short text over the bytes that matter, against a plain search.
TEST(Blocks, AgreesWithAPlainSearchOnEveryShortText) {
  const std::string alphabet = "MST[]{}|";
  for (uint32_t code = 0; code < 1u << 21; ++code) {
    std::string text;
    for (uint32_t rest = code, i = 0; i < 7; ++i, rest >>= 3) text += alphabet[rest & 7];
    std::string_view name = text;
    const Block block = pobe::take_last_block(name);
    const size_t bar = text.rfind('|');
    const std::string tail = bar == std::string::npos ? "" : text.substr(bar + 1);
    BlockKind expected = BlockKind::none;
    if (tail.find("MT{") != std::string::npos)
      expected = tail.ends_with('}') ? BlockKind::measurement : BlockKind::none;
    else if (tail.find("ST[") != std::string::npos && tail.ends_with(']'))
      expected = BlockKind::stream;
    ASSERT_EQ(block.kind, expected) << text;
    ASSERT_EQ(name, expected == BlockKind::none ? text : text.substr(0, bar)) << text;
  }
}

}  // namespace
