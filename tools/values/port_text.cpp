#include "tools/values/port_text.h"

#include <cstdio>

std::string EscapedBytes(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    const auto code = static_cast<unsigned char>(byte);
    if (code > 0x20 && code < 0x7F && byte != '\\') {
      text += byte;
    } else {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\x%02x", code);
      text += escape;
    }
  }
  return text;
}

std::string HexText(std::string_view bytes) {
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    text += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
    text += "0123456789abcdef"[static_cast<unsigned char>(byte) & 15];
  }
  return text;
}

std::string OneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    if (c == '\n' || c == '\r') {
      line += c == '\n' ? "\\n" : "\\r";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      line += "\\x" + HexText({&c, 1});
    } else {
      line += c;
    }
  }
  return line;
}

std::string NotAPortName(const std::string& text) {
  return "\"" + EscapedBytes(text) + "\" is not a port name; it has 1 to 127 bytes";
}

std::string AgeText(double seconds) {
  const struct {
    double seconds;
    char letter;
  } units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}};
  for (const auto& unit : units) {
    if (seconds >= unit.seconds) {
      return std::to_string(static_cast<int>(seconds / unit.seconds)) + unit.letter;
    }
  }
  return std::to_string(seconds > 0 ? static_cast<int>(seconds) : 0) + "s";
}
