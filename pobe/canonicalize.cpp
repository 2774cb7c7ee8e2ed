#include "pobe/blocks_private.h"
#include "pobe/bounded_writer_private.h"
#include "pobe/tag_list_private.h"
#include "pobe/text_private.h"

namespace pobe {
namespace {

struct Options {
  bool accept_stream_tags;
  bool accept_measurement_tags;
  bool keep_measurement_tags;
};

// A name taken apart.
struct Parts {
  std::string_view plain_name;
  std::string_view stream_body;  // empty without a stream-tag block, and with an empty one
  bool has_stream_block = false;
  bool has_measurement_block = false;
};

int note_stream_block(Parts &parts, std::string_view text, const Options &options) noexcept {
  if (!options.accept_stream_tags) return POBE_E_STREAM_TAGS;
  if (parts.has_stream_block) return POBE_E_SECOND_STREAM_BLOCK;
  if (!text.starts_with("ST[")) return POBE_E_STREAM_BLOCK_START;
  parts.has_stream_block = true;
  parts.stream_body = block_body(text);
  return 0;
}

int note_measurement_block(Parts &parts, std::string_view text, const Options &options) noexcept {
  if (!options.accept_measurement_tags) return POBE_E_MEASUREMENT_TAGS;
  if (options.keep_measurement_tags && !text.starts_with("MT{")) return POBE_E_MEASUREMENT_BLOCK_START;
  parts.has_measurement_block = true;
  return 0;
}

int take_apart(std::string_view name, const Options &options, Parts &parts) noexcept {
  parts.plain_name = name;
  for (;;) {
    const Block block = take_last_block(parts.plain_name);
    if (block.kind == BlockKind::none) return 0;
    const auto note = block.kind == BlockKind::stream ? note_stream_block : note_measurement_block;
    if (const int error = note(parts, block.text, options)) return error;
  }
}

// Collects the tags of all measurement blocks; which block a tag was in makes no difference.
int parse_measurement_tags(std::string_view name, TagList &tags) noexcept {
  for (;;) {
    const Block block = take_last_block(name);
    if (block.kind == BlockKind::none) return 0;
    if (block.kind == BlockKind::stream) continue;
    if (const int error = tags.parse(block_body(block.text))) return error;
  }
}

void write_block(BoundedWriter &out, std::string_view opening, const TagList &tags,
                 std::string_view closing) noexcept {
  if (tags.size() == 0) return;
  out.append(opening);
  tags.write_canonical(out);
  out.append(closing);
}

// The stream-tag block with its "|" and brackets; nothing if it has no tags.
std::string_view stream_block_as_written(const Parts &parts) noexcept {
  constexpr std::string_view opening = "|ST[";
  if (parts.stream_body.empty()) return {};
  return {parts.stream_body.data() - opening.size(), opening.size() + parts.stream_body.size() + 1};
}

// With measurement tags to keep. Nothing is written before both lists are known to be good.
ssize_t write_with_measurement_tags(std::string_view name, const Parts &parts, TagList &stream_tags,
                                    BoundedWriter &out) noexcept {
  TagList measurement_tags;
  if (const int error = parse_measurement_tags(name, measurement_tags)) return error;
  stream_tags.settle();
  measurement_tags.settle();
  out.append(parts.plain_name);
  write_block(out, "|ST[", stream_tags, "]");
  write_block(out, "|MT{", measurement_tags, "}");
  return static_cast<ssize_t>(out.size());
}

ssize_t canonicalize(std::string_view name, BoundedWriter out, const Options &options) noexcept {
  if (const int error = check_text(name)) return error;
  Parts parts;
  if (const int error = take_apart(name, options, parts)) return error;
  TagList stream_tags;
  if (const int error = stream_tags.parse(parts.stream_body)) return error;
  if (parts.has_measurement_block && options.keep_measurement_tags)
    return write_with_measurement_tags(name, parts, stream_tags, out);
  out.append(parts.plain_name);
  // Nearly always so: most names come from where they were made canonical before.
  if (stream_tags.is_canonical_as_written()) {
    out.append(stream_block_as_written(parts));
  } else {
    stream_tags.settle();
    write_block(out, "|ST[", stream_tags, "]");
  }
  return static_cast<ssize_t>(out.size());
}

}  // namespace
}  // namespace pobe

ssize_t pobe_metric_canonicalize_ex(const char *in, size_t in_len, char *out, size_t out_size,
                                    bool accept_stream_tags, bool accept_measurement_tags,
                                    bool keep_measurement_tags) {
  if (in_len == 0) return 0;
  if (in == nullptr || (out == nullptr && out_size > 0)) return POBE_E_ARGUMENT;
  return pobe::canonicalize({in, in_len}, pobe::BoundedWriter(out, out_size),
                            {accept_stream_tags, accept_measurement_tags, keep_measurement_tags});
}
