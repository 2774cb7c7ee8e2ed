// Taking the tag blocks off the end of a name. Internal to the library.
#ifndef POBE_BLOCKS_PRIVATE_H
#define POBE_BLOCKS_PRIVATE_H

#include <string_view>

namespace pobe {

enum class BlockKind { none, stream, measurement };

struct Block {
  BlockKind kind;
  std::string_view text;  // what follows the "|", brackets included; at least 4 bytes unless the kind is none
};

// Looks at what follows the last "|" of `name`. If it is a block, takes it and its "|" off `name` and returns
// it; otherwise returns kind none and leaves `name` alone: what is left then is the plain name.
//
// A block is known by its marker anywhere in it and by its last byte, not by its beginning; readers of names
// elsewhere look for blocks in exactly this way, and a name must fall apart identically everywhere. In this
// order:
//   1. "MT{" somewhere: a measurement block if the last byte is "}", otherwise no block whatever else it
//   holds;
//   2. "ST[" somewhere and a last byte "]": a stream block.
[[nodiscard]] Block take_last_block(std::string_view &name) noexcept;

// The tag list between the brackets of a block. `text` is a Block's.
inline std::string_view block_body(std::string_view text) noexcept {
  return text.substr(3, text.size() - 4);
}

}  // namespace pobe

#endif
