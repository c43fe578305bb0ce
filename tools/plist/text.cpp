#include "tools/plist/text.h"

#include <algorithm>

#include "tools/output.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/walk.h"
#include "tools/values/json_value.h"
#include "tools/values/port_text.h"

namespace {

bool IsPlainWord(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
  });
}

std::string DataText(CFDataRef data) {
  constexpr CFIndex kMaxShown = 32;
  const CFIndex count = CFDataGetLength(data);
  const std::string_view shown(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                               static_cast<size_t>(std::min(count, kMaxShown)));
  if (count <= kMaxShown) return "<" + HexText(shown) + ">";
  return "<" + HexText(shown) + "...> (" + std::to_string(count) + " bytes)";
}

std::string LeafLine(CFTypeRef leaf) {
  switch (KindOf(leaf)) {
    case PlistKind::kString:
      return JsonText(LeafText(leaf));
    case PlistKind::kData:
      return DataText(static_cast<CFDataRef>(leaf));
    default:
      return LeafText(leaf);
  }
}

}  // namespace

void WritePlistText(CFTypeRef list, const std::function<void(std::string_view)>& write) {
  PlistStep step;
  for (PlistWalk walk(list); walk.Next(step);) {
    std::string text(2 * step.depth, ' ');
    if (step.what == PlistStep::kClose) {
      write(text + (step.IsDictionary() ? "}\n" : "]\n"));
      continue;
    }
    if (step.key != nullptr) {
      const std::string key = TextOf(step.key);
      text += (IsPlainWord(key) ? key : JsonText(key)) + " = ";
    }
    if (step.what == PlistStep::kLeaf)
      text += LeafLine(step.object) + "\n";
    else
      text += step.IsDictionary() ? "{\n" : "[\n";
    write(text);
  }
}

void PrintPlistText(CFTypeRef list) { WritePlistText(list, Print); }

void PrintPlistJson(CFTypeRef list) { WritePlistJson(list, Print); }

std::string PlistLine(CFTypeRef value) {
  switch (KindOf(value)) {
    case PlistKind::kArray:
      return "[...] (" + std::to_string(CFArrayGetCount(static_cast<CFArrayRef>(value))) + ")";
    case PlistKind::kDictionary:
      return "{...} (" + std::to_string(CFDictionaryGetCount(static_cast<CFDictionaryRef>(value))) +
             ")";
    default:
      return LeafLine(value);
  }
}
