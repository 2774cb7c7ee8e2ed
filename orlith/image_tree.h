// Reads a tree in an image of any bytes and looks at nothing but the cells on its way, each checked before it is used:
// for files that come from outside and are too large to be read whole before the first question.
//
// A cell ends before the one that leads to it begins (doc/tree-image.md), so a way down gets nowhere twice; and a walk
// asks of each cell that it begins behind the one before it, so that no bytes make it longer than they are many. What
// is found in a damaged tree may be wrong; it never lies outside of the image.
//
// Results of type string tell what is wrong at which offset, and are empty while nothing is.
//
// Threads: any number may read one tree.
#ifndef ORLITH_IMAGE_TREE_H
#define ORLITH_IMAGE_TREE_H

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "liborlith/util/vask_art.h"

struct ImageLeaf {
  uint64_t offset;
  std::string_view key;
  uint64_t value;
};

// What a tree is made of.
struct TreeShape {
  static constexpr std::array<unsigned, 4> kRooms = {4, 16, 48, 256};
  std::array<uint64_t, 4> nodes = {};  // by kind
  std::array<uint64_t, 4> node_bytes = {};
  uint64_t leaves = 0;
  uint64_t leaf_bytes = 0;  // without what their values refer to
  uint64_t key_bytes = 0;
  uint64_t depth = 0;  // of the deepest leaf: cells from the root on
};

class ImageTree {
 public:
  // The cells lie within the first `end` bytes of the image, which begins at a multiple of 8 in memory.
  ImageTree(std::string_view image, uint64_t end, uint64_t root) : image_(image), end_(end), root_(root) {}

  // The leaf of a key, if there is one.
  std::string find(std::string_view key, std::optional<ImageLeaf> *leaf) const;

  // Calls `visit` for the leaves whose keys begin with `prefix`, in the tree's order, until it returns false. Fills
  // *shape, unless it is null, with what it met.
  using Visit = std::function<bool(const ImageLeaf &)>;
  std::string each(std::string_view prefix, const Visit &visit, TreeShape *shape = nullptr) const;

  // The leaf at an offset.
  std::string leaf_at(uint64_t offset, ImageLeaf *leaf) const { return check_leaf(offset, end_, leaf); }

 private:
  // A node, checked as far as its size.
  struct Node {
    uint64_t offset;
    const vask_art_node *header;
  };
  class Walk;

  std::string check_node(uint64_t pin, uint64_t limit, Node *node) const;
  std::string check_leaf(uint64_t offset, uint64_t limit, ImageLeaf *leaf) const;
  // 0 where there is none.
  static std::string child(const Node &node, uint8_t byte, uint64_t *pin);
  // The child from *next on, in order; 0 behind the last.
  static std::string next_child(const Node &node, unsigned *next, uint64_t *pin);
  static bool has_path(const Node &node, std::string_view key, size_t depth);
  std::string go_down(std::string_view prefix, uint64_t *pin, uint64_t *limit) const;

  std::string_view image_;
  uint64_t end_;
  uint64_t root_;
};

#endif
