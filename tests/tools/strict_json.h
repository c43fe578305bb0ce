#pragma once

#include <string>
#include <string_view>
#include <vector>

// Reads one line of JSON by the letter of its grammar and keeps its strings, unescaped, and its
// numbers in the order in which they stand. Nothing may follow, blanks neither. For tests, whose
// documents are a few hundred levels deep at most.
class StrictJson {
 public:
  explicit StrictJson(std::string_view text) : rest(text) { isFine = Value() && rest.empty(); }

  bool IsFine() const { return isFine; }
  const std::vector<std::string>& Scalars() const { return scalars; }

 private:
  bool Take(char c) {
    if (!rest.starts_with(c)) return false;
    rest.remove_prefix(1);
    return true;
  }

  bool Word(std::string_view word) {
    if (!rest.starts_with(word)) return false;
    rest.remove_prefix(word.size());
    return true;
  }

  bool Value() {
    if (Take('[')) return Members(']', false);
    if (Take('{')) return Members('}', true);
    if (rest.starts_with('"')) return String();
    return Word("null") || Word("true") || Word("false") || Number();
  }

  bool Members(char end, bool areNamed) {
    if (Take(end)) return true;
    do {
      if (areNamed && !(String() && Take(':'))) return false;
      if (!Value()) return false;
    } while (Take(','));
    return Take(end);
  }

  size_t Digits() {
    size_t count = 0;
    while (count < rest.size() && rest[count] >= '0' && rest[count] <= '9') ++count;
    rest.remove_prefix(count);
    return count;
  }

  bool Number() {
    const std::string_view start = rest;
    Take('-');
    if (!Take('0') && Digits() == 0) return false;
    if (Take('.') && Digits() == 0) return false;
    if (Take('e') || Take('E')) {
      if (!Take('+')) Take('-');
      if (Digits() == 0) return false;
    }
    scalars.emplace_back(start.substr(0, start.size() - rest.size()));
    return true;
  }

  bool String() {
    std::string text;
    if (!Take('"')) return false;
    while (!Take('"')) {
      if (rest.empty() || static_cast<unsigned char>(rest[0]) < 0x20) return false;
      if (Take('\\') ? !Escape(text) : !Character(text)) return false;
    }
    scalars.push_back(text);
    return true;
  }

  bool Escape(std::string& text) {
    constexpr std::string_view kLetters = "\"\\/bfnrt", kMeant = "\"\\/\b\f\n\r\t";
    if (rest.empty()) return false;
    if (const size_t at = kLetters.find(rest[0]); at != kLetters.npos) {
      text += kMeant[at];
      rest.remove_prefix(1);
      return true;
    }
    if (!Take('u') || rest.size() < 4) return false;
    unsigned code = 0;
    for (const char c : rest.substr(0, 4)) {
      const size_t digit = std::string_view("0123456789abcdef").find(c);
      if (digit == std::string_view::npos) return false;
      code = code << 4 | static_cast<unsigned>(digit);
    }
    rest.remove_prefix(4);
    if (code >= 0x800) text += {static_cast<char>(0xE0 | code >> 12), Tail(code >> 6), Tail(code)};
    if (code >= 0x80 && code < 0x800) text += {static_cast<char>(0xC0 | code >> 6), Tail(code)};
    if (code < 0x80) text += static_cast<char>(code);
    return true;
  }

  static char Tail(unsigned bits) { return static_cast<char>(0x80 | (bits & 0x3F)); }

  // By the table of well-formed sequences: lead byte, range of the second, length.
  bool Character(std::string& text) {
    constexpr struct {
      unsigned from, to, low, high;
      size_t length;
    } kRows[] = {
        {0x00, 0x7F, 0, 0, 1},       {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
        {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
        {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4}};
    const auto byte = [this](size_t at) {
      return at < rest.size() ? static_cast<unsigned char>(rest[at]) : 0u;
    };
    for (const auto& row : kRows) {
      if (byte(0) < row.from || byte(0) > row.to) continue;
      if (row.length > 1 && (byte(1) < row.low || byte(1) > row.high)) return false;
      for (size_t i = 2; i < row.length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return false;
      }
      text += rest.substr(0, row.length);
      rest.remove_prefix(row.length);
      return true;
    }
    return false;
  }

  std::string_view rest;
  std::vector<std::string> scalars;
  bool isFine = false;
};
