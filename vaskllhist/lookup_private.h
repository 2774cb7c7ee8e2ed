// From a bucket's code to its index in a histogram, in two steps of constant time. Internal to the library.
#ifndef VASKLLHIST_LOOKUP_PRIVATE_H
#define VASKLLHIST_LOOKUP_PRIVATE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vaskllhist/decimal_private.h"

namespace vaskllhist {

// A page for each sign and exponent that is in use, with the index of each of its codes. All other pages are the one
// empty page, number 0, which is never written.
class Lookup {
 public:
  static constexpr uint16_t kAbsent = 0xffff;  // larger than any index

  explicit Lookup(const std::vector<Code> &codes) : pages_(1, empty_page()) { refresh(codes, 0); }

  // The index of the code, or kAbsent.
  uint16_t index_of(Code code) const noexcept {
    return pages_[page_of_[code >> kPageBits]][code % kPageSize];
  }

  // Makes sure that set() of this code needs no memory.
  void make_room(Code code) {
    uint16_t &page = page_of_[code >> kPageBits];
    if (page != 0) return;
    pages_.push_back(empty_page());
    page = static_cast<uint16_t>(pages_.size() - 1);
  }

  void set(Code code, size_t index) noexcept {
    pages_[page_of_[code >> kPageBits]][code % kPageSize] = static_cast<uint16_t>(index);
  }

  // Sets the indexes of all codes from `first` on.
  void refresh(const std::vector<Code> &codes, size_t first) {
    for (size_t i = first; i < codes.size(); ++i) {
      make_room(codes[i]);
      set(codes[i], i);
    }
  }

 private:
  using Page = std::array<uint16_t, kPageSize>;

  static Page empty_page() {
    Page page;
    page.fill(kAbsent);
    return page;
  }

  std::array<uint16_t, kPages> page_of_{};
  std::vector<Page> pages_;
};

}  // namespace vaskllhist

#endif
