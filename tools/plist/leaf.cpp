#include "tools/plist/leaf.h"

#include <optional>

#include "platform/host/plist/introspect.h"
#include "tools/command_line.h"
#include "tools/plist/date_text.h"
#include "tools/plist/json.h"
#include "tools/values/json_value.h"

namespace {

struct KindRow {
  PlistKind kind;
  const char* name;
  std::optional<HostPlistLeaf> leaf = {};  // for the host layer, if that reads its text
};
constexpr KindRow kKinds[] = {
    {PlistKind::kString, "string"},
    {PlistKind::kInteger, "integer", HostPlistLeaf::kInteger},
    {PlistKind::kReal, "real", HostPlistLeaf::kReal},
    {PlistKind::kBoolean, "bool"},
    {PlistKind::kDate, "date"},
    {PlistKind::kData, "data", HostPlistLeaf::kData},
    {PlistKind::kArray, "array"},
    {PlistKind::kDictionary, "dict"},
};

const KindRow* RowOf(PlistKind kind) {
  for (const KindRow& row : kKinds) {
    if (row.kind == kind) return &row;
  }
  return nullptr;
}

// The rest of a message that begins with a value of another kind.
std::string NotA(PlistKind kind) {
  const char* const article =
      kind == PlistKind::kInteger || kind == PlistKind::kArray ? "an " : "a ";
  return std::string(" is not ") + article + KindName(kind);
}

// Half of a surrogate pair in the three bytes that UTF-8 would have for it.
std::string HalfText(UniChar unit) {
  const char bytes[] = {static_cast<char>(0xE0 | unit >> 12),
                        static_cast<char>(0x80 | (unit >> 6 & 0x3F)),
                        static_cast<char>(0x80 | (unit & 0x3F))};
  return std::string(bytes, sizeof bytes);
}

CFTypeRef CreateFromText(const KindRow& row, std::string_view text, std::string& problem) {
  HostPropertyListError error;
  const CFTypeRef leaf = HostCreatePlistLeaf(*row.leaf, text, &error);
  if (leaf != nullptr) return leaf;
  if (error.text == kHostPlistNoMemory) throw std::bad_alloc();
  problem = Quoted(text) + NotA(row.kind);
  if (!error.hint.empty()) problem += " (" + error.hint + ")";
  return nullptr;
}

CFTypeRef CreateBoolean(std::string_view text, std::string& problem) {
  for (const char* word : {"true", "yes", "1"}) {
    if (text == word) return kCFBooleanTrue;
  }
  for (const char* word : {"false", "no", "0"}) {
    if (text == word) return kCFBooleanFalse;
  }
  problem = Quoted(text) + NotA(PlistKind::kBoolean) + " (true or false)";
  return nullptr;
}

CFTypeRef CreateFromList(std::string_view text, std::string& problem) {
  CFPropertyListFormat format = 0;
  HostPropertyListError error;
  CFTypeRef value = HostReadPropertyList(reinterpret_cast<const UInt8*>(text.data()), text.size(),
                                         kCFPropertyListMutableContainers, &format, &error);
  if (value == nullptr && error.text == kHostPlistNoMemory) throw std::bad_alloc();
  if (value == nullptr) problem = "the value is not a property list: " + error.Sentence();
  return value;
}

// Whether a text begins as no ordinary text does, but JSON or XML.
bool IsMeantAsContainer(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == text.npos) return false;
  text.remove_prefix(start);
  for (const char* beginning : {"{", "[", "<?xml", "<!DOCTYPE", "<plist", "<dict", "<array"}) {
    if (text.starts_with(beginning)) return true;
  }
  return false;
}

// The message when such a text is to replace a string.
std::string WhyNoString(std::string_view text) {
  std::string problem;
  const OwnedRef<CFTypeRef> value(CreateValue(text, problem));
  const std::string what = value != nullptr ? "the value would replace a string by " +
                                                  std::string(KindName(KindOf(value)))
                                            : problem;
  return what + " (--type string stores it as text" +
         (value != nullptr ? ", --type " + std::string(KindName(KindOf(value))) + " as such)"
                           : ")");
}

}  // namespace

PlistKind KindOf(CFTypeRef object) {
  const CFTypeID type = CFGetTypeID(object);
  if (type == CFStringGetTypeID()) return PlistKind::kString;
  if (type == CFBooleanGetTypeID()) return PlistKind::kBoolean;
  if (type == CFDateGetTypeID()) return PlistKind::kDate;
  if (type == CFDataGetTypeID()) return PlistKind::kData;
  if (type == CFArrayGetTypeID()) return PlistKind::kArray;
  if (type == CFDictionaryGetTypeID()) return PlistKind::kDictionary;
  if (type != CFNumberGetTypeID()) return PlistKind::kNone;
  return CFNumberIsFloatType(static_cast<CFNumberRef>(object)) ? PlistKind::kReal
                                                               : PlistKind::kInteger;
}

const char* KindName(PlistKind kind) {
  const KindRow* row = RowOf(kind);
  return row != nullptr ? row->name : "none";
}

PlistKind KindNamed(std::string_view name) {
  for (const KindRow& row : kKinds) {
    if (name == row.name) return row.kind;
  }
  return PlistKind::kNone;
}

void InsertInArray(CFMutableArrayRef array, CFIndex index, CFTypeRef value) {
  const CFIndex count = CFArrayGetCount(array);
  CFArrayInsertValueAtIndex(array, index, value);
  if (CFArrayGetCount(array) != count + 1) throw std::bad_alloc();
}

void SetInDictionary(CFMutableDictionaryRef dictionary, CFStringRef key, CFTypeRef value) {
  CFDictionarySetValue(dictionary, key, value);
  if (CFDictionaryGetValue(dictionary, key) != value) throw std::bad_alloc();
}

std::string UnknownPlistType(std::string_view name) {
  return "unknown type " + Quoted(name) +
         " (string, integer, real, bool, date, data, array or dict)";
}

std::string TextOf(CFStringRef string) {
  const CFIndex length = CFStringGetLength(string);
  std::string text;
  for (CFIndex at = 0; at < length;) {
    const CFRange rest = CFRangeMake(at, length - at);
    CFIndex used = 0;
    at += CFStringGetBytes(string, rest, kCFStringEncodingUTF8, 0, false, nullptr, 0, &used);
    const size_t before = text.size();
    text.resize(before + static_cast<size_t>(used));
    CFStringGetBytes(string, rest, kCFStringEncodingUTF8, 0, false,
                     reinterpret_cast<UInt8*>(text.data() + before), used, &used);
    if (at < length) text += HalfText(CFStringGetCharacterAtIndex(string, at++));
  }
  return text;
}

CFStringRef CreateString(std::string_view utf8) {
  if (utf8.size() > INT32_MAX) return nullptr;
  const CFStringRef string =
      CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(utf8.data()),
                              static_cast<CFIndex>(utf8.size()), kCFStringEncodingUTF8, false);
  return string != nullptr || !IsUtf8(utf8) ? string : Made(string);
}

std::string LeafText(CFTypeRef leaf) {
  const PlistKind kind = KindOf(leaf);
  switch (kind) {
    case PlistKind::kString:
      return TextOf(static_cast<CFStringRef>(leaf));
    case PlistKind::kBoolean:
      return CFBooleanGetValue(static_cast<CFBooleanRef>(leaf)) ? "true" : "false";
    case PlistKind::kReal: {
      double value = 0;
      CFNumberGetValue(static_cast<CFNumberRef>(leaf), kCFNumberDoubleType, &value);
      return JsonValue::Real(value).Plain();
    }
    case PlistKind::kDate:
      return DateText(static_cast<CFDateRef>(leaf));
    default:
      return HostPlistLeafText(leaf);
  }
}

CFTypeRef CreateLeaf(PlistKind kind, std::string_view text, std::string& problem) {
  if (kind == PlistKind::kBoolean) return CreateBoolean(text, problem);
  if (kind == PlistKind::kDate) return CreateDate(text, problem);
  if (kind == PlistKind::kString) {
    CFTypeRef string = CreateString(text);
    if (string == nullptr) problem = "the value is not UTF-8";
    return string;
  }
  const KindRow* row = RowOf(kind);
  if (row != nullptr && row->leaf) return CreateFromText(*row, text, problem);
  problem = std::string(KindName(kind)) + " is not a leaf";
  return nullptr;
}

CFTypeRef CreateValue(std::string_view text, std::string& problem) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  const char first = start != text.npos ? text[start] : ' ';
  if (first == '<' || first == '(') return CreateFromList(text, problem);
  std::string jsonProblem, listProblem;
  CFTypeRef value = CreateFromJson(text, jsonProblem);
  // { a = b; } is a list in the old text form.
  if (value == nullptr && first == '{') value = CreateFromList(text, listProblem);
  if (value != nullptr) return value;
  if (first != '{' && first != '[' && first != '"') {
    return CreateLeaf(PlistKind::kString, text, problem);
  }
  problem = jsonProblem;
  return nullptr;
}

CFTypeRef CreateValueOfType(const std::string& type, std::string_view text, CFTypeRef replaced,
                            std::string& problem) {
  const PlistKind kind = type.empty() ? KindOf(replaced) : KindNamed(type);
  if (!type.empty() && kind == PlistKind::kNone) {
    problem = UnknownPlistType(type);
    return nullptr;
  }
  if (type.empty() && kind == PlistKind::kNone) return CreateValue(text, problem);
  if (type.empty() && kind == PlistKind::kString && IsMeantAsContainer(text)) {
    problem = WhyNoString(text);
    return nullptr;
  }
  if (!IsContainer(kind)) return CreateLeaf(kind, text, problem);
  const CFTypeRef value = CreateValue(text, problem);
  if (value == nullptr || KindOf(value) == kind) return value;
  CFRelease(value);
  problem = "the value" + NotA(kind);
  if (type.empty()) problem += " (--type sets a value of another type)";
  return nullptr;
}
