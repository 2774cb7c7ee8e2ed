#include <gtest/gtest.h>

#include <string>

#include "liborlith/util/metric_name.h"

namespace {

struct Cut {
  int kind;
  std::string name, type, value;
  bool operator==(const Cut &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Cut &cut) {
  return out << cut.kind << " name=" << cut.name << " type=" << cut.type << " value=" << cut.value;
}

mem_reader_t reader_of(const std::string &text) {
  mem_reader_t reader;
  mem_reader_init_mem(&reader, text.data(), text.size());
  return reader;
}

std::string string_of(const mem_reader_t &reader) {
  return {reinterpret_cast<const char *>(reader.input_buffer), reader.input_buffer_size};
}

Cut cut(const std::string &text) {
  const mem_reader_t in = reader_of(text);
  mem_reader_t out, type, value;
  const int kind = metric_name_parse_next_metadata(&in, &out, &type, &value);
  return {kind, string_of(out), string_of(type), string_of(value)};
}

Cut nothing_in(const std::string &text) {
  return {METRIC_NAME_METADATA_NONE, text, "", ""};
}

TEST(MetricNameMetadata, KindsArePinned) {
  EXPECT_EQ(METRIC_NAME_METADATA_NONE, 0);
  EXPECT_EQ(METRIC_NAME_METADATA_STREAM_TAGS, 1);
  EXPECT_EQ(METRIC_NAME_METADATA_MEASUREMENT_TAGS, 2);
}

TEST(MetricNameMetadata, StreamBlockIsCutOff) {
  EXPECT_EQ(cut("cpu|ST[a:1]"), (Cut{1, "cpu", "ST", "a:1"}));
  EXPECT_EQ(cut("cpu|ST[]"), (Cut{1, "cpu", "ST", ""}));
  EXPECT_EQ(cut("|ST[a:1]"), (Cut{1, "", "ST", "a:1"}));
}

TEST(MetricNameMetadata, MeasurementBlockIsCutOff) {
  EXPECT_EQ(cut("cpu|MT{x:1}"), (Cut{2, "cpu", "MT", "x:1"}));
  EXPECT_EQ(cut("cpu|MT{}"), (Cut{2, "cpu", "MT", ""}));
}

TEST(MetricNameMetadata, OnlyTheLastBlockIsCutOff) {
  EXPECT_EQ(cut("cpu|ST[a:1]|MT{x:1}"), (Cut{2, "cpu|ST[a:1]", "MT", "x:1"}));
  EXPECT_EQ(cut("cpu|MT{x:1}|ST[a:1]"), (Cut{1, "cpu|MT{x:1}", "ST", "a:1"}));
}

TEST(MetricNameMetadata, NothingToCut) {
  for (const std::string text :
       {"", "cpu", "cpu|", "|", "ST[a:1]", "MT{x:1}", "cpu|x", "cpu|ST[a:1", "cpu|ST[a:1]x", "cpu|MT{x:1",
        "cpu|MT{x:1]", "cpu|ST[a:1}", "cpu|]", "cpu|}", "cpu|T[]", "cpu|ST(a]"})
    EXPECT_EQ(cut(text), nothing_in(text));
}

TEST(MetricNameMetadata, EmptyReaderStaysNull) {
  mem_reader_t in;
  mem_reader_init_empty(&in);
  mem_reader_t out, type, value;
  EXPECT_EQ(metric_name_parse_next_metadata(&in, &out, &type, &value), METRIC_NAME_METADATA_NONE);
  EXPECT_EQ(out.input_buffer, nullptr);
  EXPECT_EQ(out.input_buffer_size, 0u);
}

// The type is the first two bytes and the value begins at the fourth, wherever the marker stands.
TEST(MetricNameMetadata, MarkerCountsAnywhereInTheBlock) {
  EXPECT_EQ(cut("cpu|xST[a:1]"), (Cut{1, "cpu", "xS", "[a:1"}));
  EXPECT_EQ(cut("cpu|STxST[a:1]"), (Cut{1, "cpu", "ST", "ST[a:1"}));
  EXPECT_EQ(cut("cpu|xMT{a:1}"), (Cut{2, "cpu", "xM", "{a:1"}));
  EXPECT_EQ(cut("cpu|ST[a:1,MT{x}"), (Cut{2, "cpu", "ST", "a:1,MT{x"}));
}

TEST(MetricNameMetadata, MeasurementMarkerExcludesTheStreamMarker) {
  EXPECT_EQ(cut("cpu|ST[a:MT{]"), nothing_in("cpu|ST[a:MT{]"));
  EXPECT_EQ(cut("cpu|MT{ST[a:1]"), nothing_in("cpu|MT{ST[a:1]"));
  EXPECT_EQ(cut("cpu|MT{ST[a:1]}"), (Cut{2, "cpu", "MT", "ST[a:1]"}));
}

TEST(MetricNameMetadata, ViewsPointIntoTheInput) {
  const std::string text = "cpu|ST[a:1]";
  mem_reader_t name = reader_of(text), type, value;
  ASSERT_EQ(metric_name_parse_next_metadata(&name, &name, &type, &value), METRIC_NAME_METADATA_STREAM_TAGS);
  EXPECT_EQ(name.input_buffer, reader_of(text).input_buffer);
  EXPECT_EQ(name.input_buffer_size, 3u);
  EXPECT_EQ(type.input_buffer, name.input_buffer + 4);
  EXPECT_EQ(value.input_buffer, name.input_buffer + 7);
}

TEST(MetricNameMetadata, BytesThatAreNoTextAreFine) {
  const std::string text("a\0\xff|ST[\0]", 9);
  EXPECT_EQ(cut(text), (Cut{1, std::string("a\0\xff", 3), "ST", std::string("\0", 1)}));
}

}  // namespace
