#include "tools/plist/json.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <deque>
#include <unordered_map>
#include <utility>
#include <vector>

#include "tools/plist/leaf.h"
#include "tools/plist/walk.h"

namespace {

// As for the other forms of files.
constexpr size_t kMemoryFactor = 8;
constexpr size_t kFreeMemory = size_t{4} << 20;

JsonValue JsonOfLeaf(CFTypeRef leaf) {
  switch (KindOf(leaf)) {
    case PlistKind::kBoolean:
      return JsonValue::Bool(CFBooleanGetValue(static_cast<CFBooleanRef>(leaf)));
    case PlistKind::kReal: {
      double value = 0;
      CFNumberGetValue(static_cast<CFNumberRef>(leaf), kCFNumberDoubleType, &value);
      return JsonValue::Real(value);
    }
    case PlistKind::kInteger: {
      SInt64 value = 0;
      if (CFNumberGetValue(static_cast<CFNumberRef>(leaf), kCFNumberSInt64Type, &value)) {
        return JsonValue::Integer(value);
      }
      return LeafText(leaf);  // beyond the range that JSON readers keep exact
    }
    default:
      return LeafText(leaf);
  }
}

// Reads JSON strictly by its grammar. For one use. Keeps the items of open containers in a list of
// its own, which never moves, and makes each container when it ends, in its final size. Everything
// that this takes, and the text itself, is charged against the limit.
class Reader {
 public:
  explicit Reader(std::string_view text)
      : whole(text), rest(text), memoryLeft((kMemoryFactor - 1) * text.size() + kFreeMemory) {}

  CFTypeRef Read(std::string& problem) {
    OwnedRef<CFTypeRef> root = Document();
    if (fault.empty()) return CFRetain(root);
    problem = Place() + fault;
    return nullptr;
  }

  size_t Reached() const { return whole.size() - rest.size(); }

 private:
  static constexpr size_t kMaxDepth = 512;
  static constexpr size_t kMaxKnown = 1024;
  static constexpr size_t kMaxKnownSize = 32;
  // What objects take, generously.
  static constexpr size_t kArrayCost = 72, kItemCost = 8, kNumberCost = 48;
  static constexpr size_t kDictionaryCost = 96, kPairCost = 24, kStringCost = 72;

  struct Frame {
    size_t first;  // index of its first item
    bool isDictionary;
  };

  OwnedRef<CFTypeRef> Document() {
    OwnedRef<CFTypeRef> done;
    do {
      OwnedRef<CFTypeRef> value = Begin();
      // A complete value may complete the containers around it.
      while (value != nullptr) {
        if (open.empty()) {
          done = std::move(value);
          break;
        }
        Put(std::move(value));
        value = End();
      }
    } while (fault.empty() && !open.empty());
    if (fault.empty() && (SkipBlanks(), !rest.empty())) Fail("unexpected text after the value");
    return done;
  }

  // Returns a leaf or an empty container; null if a container was opened, or after a fault.
  OwnedRef<CFTypeRef> Begin() {
    SkipBlanks();
    if (rest.empty()) return Fail("expected a value");
    if (Take('[')) return Open(false);
    if (Take('{')) return Open(true);
    if (rest.front() == '"') return String();
    if (Word("true")) return kCFBooleanTrue;
    if (Word("false")) return kCFBooleanFalse;
    if (rest.starts_with("null")) return Fail("null is not a value of property lists");
    return Number();
  }

  OwnedRef<CFTypeRef> Open(bool isDictionary) {
    if (open.size() == kMaxDepth) return Fail("more than 512 levels");
    open.push_back({items.size(), isDictionary});
    SkipBlanks();
    if (Take(isDictionary ? '}' : ']')) return Pop();
    if (isDictionary) Key();
    return nullptr;
  }

  void Put(OwnedRef<CFTypeRef> value) {
    if (Charge(kItemCost)) items.push_back(std::move(value));
  }

  // Returns the innermost container if it ends after its last value; otherwise null.
  OwnedRef<CFTypeRef> End() {
    if (!fault.empty()) return nullptr;
    const bool isDictionary = open.back().isDictionary;
    SkipBlanks();
    if (Take(isDictionary ? '}' : ']')) return Pop();
    if (!Take(','))
      return Fail(isDictionary ? "expected \",\" or \"}\"" : "expected \",\" or \"]\"");
    if (isDictionary) Key();
    return nullptr;
  }

  // Makes the innermost container, in its final size.
  OwnedRef<CFTypeRef> Pop() {
    const Frame frame = open.back();
    const size_t count = items.size() - frame.first;
    if (!Charge(frame.isDictionary ? kDictionaryCost + count / 2 * kPairCost
                                   : kArrayCost + count * kItemCost)) {
      return nullptr;
    }
    OwnedRef<CFTypeRef> made =
        frame.isDictionary ? MakeDictionary(frame.first) : MakeArray(frame.first);
    items.resize(frame.first);
    memoryLeft += count * kItemCost;
    open.pop_back();
    return made;
  }

  OwnedRef<CFTypeRef> MakeArray(size_t first) {
    const auto count = static_cast<CFIndex>(items.size() - first);
    CFMutableArrayRef array =
        Made(CFArrayCreateMutable(kCFAllocatorDefault, count, &kCFTypeArrayCallBacks));
    OwnedRef<CFTypeRef> owner(array);
    for (CFIndex i = 0; i < count; ++i) {
      InsertInArray(array, i, items[first + static_cast<size_t>(i)]);
    }
    return owner;
  }

  OwnedRef<CFTypeRef> MakeDictionary(size_t first) {
    const auto count = static_cast<CFIndex>((items.size() - first) / 2);
    CFMutableDictionaryRef dictionary =
        Made(CFDictionaryCreateMutable(kCFAllocatorDefault, count, &kCFTypeDictionaryKeyCallBacks,
                                       &kCFTypeDictionaryValueCallBacks));
    OwnedRef<CFTypeRef> owner(dictionary);
    for (size_t i = first; i < items.size(); i += 2) {
      CFTypeRef key = items[i];
      SetInDictionary(dictionary, static_cast<CFStringRef>(key), items[i + 1]);
    }
    return owner;
  }

  void Key() {
    SkipBlanks();
    if (!rest.starts_with('"')) return static_cast<void>(Fail("expected a key in quotation marks"));
    const size_t end = rest.find_first_of("\"\\", 1);
    const bool isPlain = end != rest.npos && rest[end] == '"';
    const std::string_view text = isPlain ? rest.substr(0, end + 1) : std::string_view();
    OwnedRef<CFTypeRef> key = Known(text);
    if (key != nullptr) {
      rest.remove_prefix(text.size());
    } else {
      key = String();
      if (key != nullptr) Remember(text, key);
    }
    if (key == nullptr) return;
    Put(std::move(key));
    SkipBlanks();
    if (fault.empty() && !Take(':')) Fail("expected \":\"");
  }

  // Equal keys and short numbers share one object.
  OwnedRef<CFTypeRef> Known(std::string_view text) const {
    const auto found = known.find(text);
    return found != known.end() ? CFRetain(found->second) : nullptr;
  }

  void Remember(std::string_view text, CFTypeRef object) {
    if (text.empty() || text.size() > kMaxKnownSize || known.size() == kMaxKnown) return;
    OwnedRef<CFTypeRef> shared(CFRetain(object));
    known.emplace(text, std::move(shared));
  }

  bool Charge(size_t cost) {
    if (cost > memoryLeft)
      return Fail("the list takes too much memory for a file of this size"), false;
    memoryLeft -= cost;
    return true;
  }

  OwnedRef<CFTypeRef> String() {
    std::vector<UniChar> units;
    rest.remove_prefix(1);
    for (;;) {
      const size_t plain = rest.find_first_of(std::string_view("\"\\"));
      if (plain == rest.npos) return Fail("unterminated string");
      for (const char c : rest.substr(0, plain)) {
        if (static_cast<unsigned char>(c) < ' ')
          return Fail("unescaped control character in a string");
      }
      const OwnedRef<CFStringRef> part(CreateString(rest.substr(0, plain)));
      if (static_cast<CFStringRef>(part) == nullptr) return Fail("the string is not UTF-8");
      const size_t count = static_cast<size_t>(CFStringGetLength(part));
      units.resize(units.size() + count);
      CFStringGetCharacters(part, CFRangeMake(0, static_cast<CFIndex>(count)),
                            units.data() + units.size() - count);
      rest.remove_prefix(plain);
      if (Take('"')) break;
      if (!Escape(units)) return Fail("unknown escape in a string");
    }
    const bool isWide = std::ranges::any_of(units, [](UniChar unit) { return unit > 0x7F; });
    if (!Charge(kStringCost + units.size() * (isWide ? sizeof(UniChar) : 1))) return nullptr;
    return Made(CFStringCreateWithCharacters(kCFAllocatorDefault, units.data(),
                                             static_cast<CFIndex>(units.size())));
  }

  bool Escape(std::vector<UniChar>& units) {
    constexpr std::string_view kLetters = "\"\\/bfnrt";
    constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (rest.size() < 2) return false;
    const char letter = rest[1];
    rest.remove_prefix(2);
    if (const size_t index = kLetters.find(letter); index != kLetters.npos) {
      units.push_back(static_cast<UniChar>(kMeanings[index]));
      return true;
    }
    if (letter != 'u' || rest.size() < 4) return false;
    UInt16 unit = 0;
    const auto parsed = std::from_chars(rest.data(), rest.data() + 4, unit, 16);
    if (parsed.ptr != rest.data() + 4) return false;
    rest.remove_prefix(4);
    units.push_back(unit);
    return true;
  }

  size_t Digits(size_t from) const {
    size_t end = from;
    while (end < rest.size() && rest[end] >= '0' && rest[end] <= '9') ++end;
    return end;
  }

  OwnedRef<CFTypeRef> Number() {
    const size_t start = rest.starts_with('-') ? 1 : 0;
    size_t end = Digits(start);
    if (end == start || (rest[start] == '0' && end > start + 1)) return Fail("not a JSON value");
    bool isReal = false;
    if (end < rest.size() && rest[end] == '.') {
      isReal = true;
      const size_t point = end;
      end = Digits(point + 1);
      if (end == point + 1) return Fail("expected digits after the decimal point");
    }
    if (end < rest.size() && (rest[end] | 0x20) == 'e') {
      isReal = true;
      size_t exponent = end + 1;
      if (exponent < rest.size() && (rest[exponent] == '+' || rest[exponent] == '-')) ++exponent;
      end = Digits(exponent);
      if (end == exponent) return Fail("expected digits in the exponent");
    }
    const std::string_view text = rest.substr(0, end);
    OwnedRef<CFTypeRef> number = Known(text);
    if (number == nullptr) {
      std::string problem;
      if (!Charge(kNumberCost)) return nullptr;
      number = CreateLeaf(isReal ? PlistKind::kReal : PlistKind::kInteger, text, problem);
      if (number == nullptr) return Fail(problem);
      Remember(text, number);
    }
    rest.remove_prefix(end);
    return number;
  }

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

  void SkipBlanks() {
    rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
  }

  OwnedRef<CFTypeRef> Fail(std::string what) {
    if (fault.empty()) fault = std::move(what);
    return nullptr;
  }

  std::string Place() const {
    size_t line = 1, column = 1;
    for (const char c : whole.substr(0, Reached())) {
      if (c == '\n')
        ++line, column = 1;
      else if ((static_cast<unsigned char>(c) & 0xC0) != 0x80)
        ++column;
    }
    return "JSON line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
  }

  const std::string_view whole;
  std::string_view rest;
  std::vector<Frame> open;
  std::deque<OwnedRef<CFTypeRef>> items;  // of all open containers, keys and values in turn
  std::unordered_map<std::string_view, OwnedRef<CFTypeRef>> known;
  size_t memoryLeft;
  std::string fault;
};

}  // namespace

JsonValue JsonOfPlist(CFTypeRef list) {
  JsonValue root;
  std::vector<JsonValue*> open;
  PlistStep step;
  for (PlistWalk walk(list); walk.Next(step);) {
    if (step.what == PlistStep::kClose) {
      open.pop_back();
      continue;
    }
    JsonValue made = step.what == PlistStep::kLeaf ? JsonOfLeaf(step.object)
                     : step.IsDictionary()         ? JsonValue(JsonValue::Object())
                                                   : JsonValue(JsonValue::Array());
    JsonValue* placed = &root;
    if (open.empty())
      root = std::move(made);
    else if (step.key != nullptr)
      placed = &open.back()->Add(TextOf(step.key), std::move(made));
    else
      placed = &open.back()->AsArray()->emplace_back(std::move(made));
    if (step.what == PlistStep::kOpen) open.push_back(placed);
  }
  return root;
}

void WritePlistJson(CFTypeRef list, const std::function<void(std::string_view)>& write) {
  PlistStep step;
  bool isFirst = true;
  for (PlistWalk walk(list); walk.Next(step);) {
    std::string text;
    if (step.what == PlistStep::kClose) {
      text = step.IsDictionary() ? "}" : "]";
    } else {
      if (!isFirst) text = ",";
      if (step.key != nullptr) text += JsonText(TextOf(step.key)) + ":";
      if (step.what == PlistStep::kLeaf)
        text += JsonText(JsonOfLeaf(step.object));
      else
        text += step.IsDictionary() ? "{" : "[";
    }
    isFirst = step.what == PlistStep::kOpen;
    write(text);
  }
}

CFTypeRef CreateFromJson(std::string_view text, std::string& problem, size_t* reached) {
  Reader reader(text);
  const CFTypeRef list = reader.Read(problem);
  if (reached != nullptr) *reached = reader.Reached();
  return list;
}
