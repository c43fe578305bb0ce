#include "platform/host/plist/reader.h"

#include <utility>

namespace {

constexpr char kEncodingHint[] = "save the file as UTF-8, or as UTF-16 with a byte-order mark";

// A fault may quote the file: no more than a piece of it, and nothing that a terminal or a log
// obeys.
std::string Presentable(std::string text) {
  constexpr size_t kLongest = 200;
  if (text.size() > kLongest) {
    size_t cut = kLongest;
    while ((text[cut] & 0xC0) == 0x80) --cut;
    text.replace(cut, std::string::npos, "...");
  }
  for (char& c : text) {
    const auto code = static_cast<UInt8>(c);
    if (code < ' ' || code == 0x7F) c = '?';
  }
  return text;
}

}  // namespace

bool HostPlistReader::Begin() {
  if (input.problem != nullptr) return Fail(end, input.problem, kEncodingHint);
  return !input.isCopy || builder.Charge(input.count) || FailBuilding(begin);
}

bool HostPlistReader::Fail(const UInt8* where, std::string text, std::string hint) {
  const HostTextPosition position = HostFindPosition(begin, where);
  error->text = Presentable(std::move(text));
  error->hint = std::move(hint);
  error->offset = static_cast<size_t>(where - begin);
  error->line = position.line + 1;
  error->column = position.column + 1;
  return false;
}

bool HostPlistReader::FailNotUTF8(const UInt8* where) {
  return Fail(where, "the bytes are not UTF-8", kEncodingHint);
}
