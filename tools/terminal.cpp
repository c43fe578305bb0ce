#include "tools/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

bool MayUseColours() {
  const char* const refusal = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return (refusal == nullptr || refusal[0] == 0) && terminal != nullptr && terminal[0] != 0 &&
         std::string_view(terminal) != "dumb" && isatty(STDOUT_FILENO) == 1;
}

size_t TerminalColumns() {
  winsize size = {};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size_t{size.ws_col} : 0;
}

std::string Painted(Paint paint, const std::string& text) {
  static const bool mayUse = MayUseColours();
  if (!mayUse || text.empty()) return text;
  const char* code = "1";
  if (paint == Paint::kGreen) code = "32";
  if (paint == Paint::kYellow) code = "33";
  if (paint == Paint::kRed) code = "31";
  return std::string("\033[") + code + "m" + text + "\033[0m";
}

size_t ColumnsOf(const std::string& text) {
  size_t columns = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\033') {
      i = text.find('m', i);
      if (i == std::string::npos) break;
    } else if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
      ++columns;  // not the continuation of a character in UTF-8
    }
  }
  return columns;
}
