// A second opinion on whether a text is JSON: RFC 8259 by regular expressions and reduction, nothing like a
// recursive descent. Slow, for tests and fuzzing.
#ifndef TEST_SUPPORT_JSON_MODEL_H
#define TEST_SUPPORT_JSON_MODEL_H

#include <regex.h>

#include <string>
#include <string_view>

namespace json_model {

class Pattern {
 public:
  explicit Pattern(const char *text) { regcomp(&compiled_, text, REG_EXTENDED); }
  ~Pattern() { regfree(&compiled_); }
  Pattern(const Pattern &) = delete;
  Pattern &operator=(const Pattern &) = delete;

  // The length of the match at the start of `text`; 0: none. The pattern must begin with "^".
  size_t match(const std::string &text) const {
    regmatch_t found;
    return regexec(&compiled_, text.c_str(), 1, &found, 0) == 0 ? static_cast<size_t>(found.rm_eo) : 0;
  }

 private:
  regex_t compiled_;
};

// Whether a text that holds no byte above 0x7f and no NUL is one JSON value, whatever the size of its numbers
// and whatever its \u escapes stand for. First every scalar becomes "v" and strings "s"; then "[v,v]" and
// "{s:v}" become "v" until nothing changes.
inline bool is_ascii_json(std::string_view input) {
  static const Pattern string("^\"([^\"\\\x01-\x1f]|\\\\([\"\\/bfnrt]|u[0-9a-fA-F]{4}))*\"");
  static const Pattern number("^-?(0|[1-9][0-9]*)([.][0-9]+)?([eE][-+]?[0-9]+)?");
  static const Pattern word("^(true|false|null)");
  std::string tokens;
  for (size_t at = 0; at < input.size();) {
    const std::string rest(input.substr(at));
    if (const size_t len = string.match(rest)) {
      tokens += 's';
      at += len;
    } else if (const size_t scalar_len = number.match(rest) + word.match(rest)) {
      // Two scalars in a row ("01", "truefalse") must not look like one.
      tokens += !tokens.empty() && tokens.back() == 'v' ? "?v" : "v";
      at += scalar_len;
    } else {
      const char c = rest[0];
      if (std::string_view("[]{},:").find(c) != std::string_view::npos) {
        tokens += c;
      } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
        // A space keeps neighbours apart ("1 2"), and is dropped below where it may stand.
        tokens += ' ';
      } else {
        return false;
      }
      ++at;
    }
  }
  std::string packed;
  for (size_t i = 0; i < tokens.size(); ++i) {
    const auto is_scalar = [](char c) { return c == 's' || c == 'v'; };
    if (tokens[i] != ' ') {
      packed += tokens[i];
    } else {
      size_t next = tokens.find_first_not_of(' ', i);
      if (next != std::string::npos && !packed.empty() && is_scalar(packed.back()) && is_scalar(tokens[next]))
        return false;
    }
  }
  static const Pattern array("^\\[([sv](,[sv])*)?\\]");
  static const Pattern object("^\\{(s:[sv](,s:[sv])*)?\\}");
  for (bool reduced = true; reduced;) {
    reduced = false;
    for (size_t at = packed.size(); at-- > 0;) {
      if (packed[at] != '[' && packed[at] != '{') continue;
      const std::string rest = packed.substr(at);
      if (const size_t len = array.match(rest) + object.match(rest)) {
        packed.replace(at, len, 1, 'v');
        reduced = true;
      }
    }
  }
  return packed == "v" || packed == "s";
}

}  // namespace json_model

#endif
