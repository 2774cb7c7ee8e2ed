#include "ruxo/json_grammar_private.h"

#include <charconv>
#include <cstdint>

#include "ruxo/json.h"
#include "ruxo/utf8_private.h"

namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

template <class Integer>
bool fits(std::string_view digits) {
  Integer value;
  const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return result.ec == std::errc() && result.ptr == digits.data() + digits.size();
}

// Recursive descent, one member function a rule of the grammar; each consumes what it matched.
class Checker {
 public:
  explicit Checker(std::string_view text) : rest_(text) {}

  bool document() {
    skip_white_space();
    if (!value()) return false;
    skip_white_space();
    return rest_.empty();
  }

 private:
  bool value() {
    if (rest_.empty()) return false;
    switch (rest_.front()) {
      case '{':
        return nested(&Checker::object);
      case '[':
        return nested(&Checker::array);
      case '"':
        return string(Nul::allowed);
      case 't':
        return literal("true");
      case 'f':
        return literal("false");
      case 'n':
        return literal("null");
      default:
        return number();
    }
  }

  bool nested(bool (Checker::*container)()) {
    if (depth_ == RUXO_JSON_MAX_DEPTH) return false;
    ++depth_;
    const bool matched = (this->*container)();
    --depth_;
    return matched;
  }

  bool object() {
    take('{');
    skip_white_space();
    if (take('}')) return true;
    do {
      skip_white_space();
      if (!string(Nul::refused)) return false;
      skip_white_space();
      if (!take(':')) return false;
      skip_white_space();
      if (!value()) return false;
      skip_white_space();
    } while (take(','));
    return take('}');
  }

  bool array() {
    take('[');
    skip_white_space();
    if (take(']')) return true;
    do {
      skip_white_space();
      if (!value()) return false;
      skip_white_space();
    } while (take(','));
    return take(']');
  }

  enum class Nul { allowed, refused };

  bool string(Nul nul) {
    if (!take('"')) return false;
    while (!take('"')) {
      if (rest_.empty()) return false;
      if (take('\\')) {
        if (!escape(nul)) return false;
      } else {
        const size_t len = ruxo::utf8_character_len(rest_);
        if (len == 0 || static_cast<unsigned char>(rest_.front()) < 0x20) return false;
        rest_.remove_prefix(len);
      }
    }
    return true;
  }

  bool escape(Nul nul) {
    if (rest_.empty()) return false;
    const char kind = rest_.front();
    rest_.remove_prefix(1);
    if (kind != 'u') return std::string_view("\"\\/bfnrt").find(kind) != std::string_view::npos;
    uint32_t unit = 0;
    if (!four_hex_digits(unit) || (unit == 0 && nul == Nul::refused)) return false;
    if (unit < 0xd800 || unit > 0xdfff) return true;
    uint32_t second = 0;
    return unit < 0xdc00 && literal("\\u") && four_hex_digits(second) && second >= 0xdc00 && second <= 0xdfff;
  }

  bool four_hex_digits(uint32_t &unit) {
    if (rest_.size() < 4) return false;
    const auto result = std::from_chars(rest_.data(), rest_.data() + 4, unit, 16);
    if (result.ptr != rest_.data() + 4) return false;
    rest_.remove_prefix(4);
    return true;
  }

  bool number() {
    const std::string_view start = rest_;
    const bool negative = take('-');
    if (!take('0') && !digits()) return false;
    bool is_integer = true;
    if (take('.')) {
      is_integer = false;
      if (!digits()) return false;
    }
    if (take('e') || take('E')) {
      is_integer = false;
      if (!take('+')) take('-');
      if (!digits()) return false;
    }
    const std::string_view lexeme = start.substr(0, start.size() - rest_.size());
    return !is_integer || (negative ? fits<int64_t>(lexeme) : fits<uint64_t>(lexeme));
  }

  // At least one.
  bool digits() {
    const size_t before = rest_.size();
    while (!rest_.empty() && is_digit(rest_.front())) rest_.remove_prefix(1);
    return rest_.size() < before;
  }

  bool literal(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  bool take(char c) {
    if (rest_.empty() || rest_.front() != c) return false;
    rest_.remove_prefix(1);
    return true;
  }

  void skip_white_space() {
    const size_t end = rest_.find_first_not_of(" \t\r\n");
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end);
  }

  std::string_view rest_;
  int depth_ = 0;
};

}  // namespace

bool ruxo::json_is_well_formed(std::string_view text) {
  return Checker(text).document();
}
