// Names near the edges of the grammar: most are well formed, some are well formed but not canonical, some are
// not names at all. Seeded, so that a failure can be repeated.
#ifndef TEST_POBE_RANDOM_NAMES_H
#define TEST_POBE_RANDOM_NAMES_H

#include <random>
#include <string>

#include "test/pobe/naive_metric_name.h"

class RandomNames {
 public:
  explicit RandomNames(uint32_t seed) : random_(seed) {}

  std::string next() {
    std::string name = plain_text();
    for (uint32_t blocks = below(4); blocks > 0; --blocks) name += block();
    while (below(6) == 0 && !name.empty()) damage(name);
    return name;
  }

  std::string tag_list() {
    std::string list;
    for (uint32_t tags = below(6); tags > 0; --tags) list += (list.empty() ? "" : ",") + tag();
    return list;
  }

  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }

 private:
  template <size_t N>
  std::string one_of(const char *const (&texts)[N]) {
    return texts[below(N)];
  }

  std::string plain_text() {
    return one_of({"", "cpu", "cpu`user", "m\xc3\xa9moire", "a|b", "x|ST[a:1", "ST[", "|", "  "});
  }

  // Few and short, so that equal and nearly equal tags are common.
  std::string side() {
    return one_of({"a", "b", "ab", "a b", "a!", "\xc3\xa9", "a:b", "A", "", " a", "a,b", "|", "\"", "[]"});
  }

  std::string tag() {
    if (below(30) == 0) return one_of({"", "a", ":", "b\"", "b\"YQ==\"", "a:b\"YQ\"", "a:b\"AA==\""});
    return written(side(), true) + ":" + written(side(), false);
  }

  std::string written(const std::string &side, bool is_category) {
    const bool encode = below(4) == 0 || (!naive::can_be_plain(side, is_category) && below(20) != 0);
    return encode ? "b\"" + naive::base64_encode(side) + "\"" : side;
  }

  std::string block() {
    if (below(12) == 0)
      return one_of(
          {"|xST[a:1]", "|STST[a:1]", "|ST[MT{a:1}", "|MT{ST[a:1]", "|xMT{a:1}", "|ST[a:1", "|MT{a:1", "|"});
    return below(2) == 0 ? "|ST[" + tag_list() + "]" : "|MT{" + tag_list() + "}";
  }

  void damage(std::string &name) {
    const size_t at = below(static_cast<uint32_t>(name.size()));
    static constexpr const char *kPieces[] = {"|",  ",", ":",    "[",    "]",   "{",   "}",
                                              "\"", " ", "\x01", "\xc2", "ST[", "MT{", "b\""};
    switch (below(3)) {
      case 0:
        name.erase(at, 1);
        break;
      case 1:
        name.insert(at, one_of(kPieces));
        break;
      default:
        name[at] = static_cast<char>(random_());
    }
  }

  std::mt19937 random_;
};

#endif
