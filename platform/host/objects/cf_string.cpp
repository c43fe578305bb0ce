#include "platform/host/objects/cf_string.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/hash.h"

namespace {

constexpr size_t kMaxUnits = INT32_MAX;  // the largest CFIndex

bool IsUTF16(CFStringEncoding encoding) { return HostMaxBytesPerUnit(encoding) == 2; }

// The form in which a text is stored: the smallest one that holds every unit.
struct Form {
  bool isASCII = true;
  bool isWide = false;
};

Form FormOf(HostTextView text) {
  Form form;
  if (text.narrow != nullptr) {
    form.isASCII = HostIsASCII(text.narrow, text.length);
    return form;
  }
  UInt32 bits = 0;
  for (size_t i = 0; i < text.length; ++i) bits |= text.wide[i];
  form.isASCII = bits < 0x80;
  form.isWide = bits > 0xFF;
  return form;
}

bool IsInside(CFRange range, size_t length) {
  return range.location >= 0 && range.length >= 0 &&
         int64_t{range.location} + range.length <= static_cast<int64_t>(length);
}

// Writes the byte-order mark of UTF-16. Returns false if there is no room.
bool PutByteOrderMark(UInt8* out, size_t room) {
  constexpr UniChar kMark = 0xFEFF;
  if (room < sizeof kMark) return false;
  if (out != nullptr) std::memcpy(out, &kMark, sizeof kMark);
  return true;
}

// The constant strings by their bytes. Made on first use and never destroyed: a CFSTR may be used
// by the destructors of globals.
struct ConstantTable {
  std::mutex lock;
  std::unordered_map<std::string, HostCFString*> strings;
};

ConstantTable& Constants() {
  static auto* table = new ConstantTable;
  return *table;
}

}  // namespace

// Allocates the object with its units, which the caller fills, and writes the terminator. (Always
// inline: most callers know the form.)
[[gnu::always_inline]] inline __CFString* __CFString::Allocate(bool ascii, bool wide, size_t units,
                                                               Constant constant,
                                                               HostObjectPool* pool) {
  const uint64_t unitSize = wide ? sizeof(UniChar) : 1;
  constexpr size_t kHeadSize = sizeof(__CFString) - sizeof(__CFString::firstUnits);
  const uint64_t size = (uint64_t{units} + 1) * unitSize;
  // Whole words, because CreateIfASCII copies words.
  const uint64_t room = kHeadSize + ((size + 7) & ~uint64_t{7});
  if (units > kMaxUnits || room > PTRDIFF_MAX) return nullptr;
  const HostObjectBlock block =
      HostObjectPool::Take(pool, std::max(static_cast<size_t>(room), sizeof(__CFString)));
  if (block.bytes == nullptr) return nullptr;
  auto* string = new (block.bytes) __CFString(ascii, wide, units, constant);
  string->RememberBlock(block);
  auto* end = static_cast<UInt8*>(block.bytes) + kHeadSize + size;
  for (uint64_t i = 1; i <= unitSize; ++i) end[-static_cast<ptrdiff_t>(i)] = 0;
  return string;
}

__CFString* __CFString::Make(HostTextView text, Constant constant) {
  const Form form = FormOf(text);
  __CFString* string = Allocate(form.isASCII, form.isWide, text.length, constant);
  if (string == nullptr) return nullptr;
  auto* bytes = const_cast<UInt8*>(string->Narrow());
  if (form.isWide) {
    std::memcpy(bytes, text.wide, text.length * sizeof(UniChar));
  } else if (text.narrow != nullptr) {
    std::memcpy(bytes, text.narrow, text.length);
  } else {
    for (size_t i = 0; i < text.length; ++i) bytes[i] = static_cast<UInt8>(text.wide[i]);
  }
  return string;
}

__CFString* __CFString::CreateASCII(const UInt8* bytes, size_t count, HostObjectPool* pool,
                                    UInt32 hash) {
  __CFString* string = Allocate(true, false, count, Constant::kNo, pool);
  if (string == nullptr || count == 0) return string;
  std::memcpy(string->firstUnits, bytes, count);
  string->hash.store(hash, std::memory_order_relaxed);
  return string;
}

// Checks and copies a word at a time. The bytes of the last word that do not belong to the string
// are the terminator, which is written over them, or come after it.
__CFString* __CFString::CreateIfASCII(const UInt8* bytes, size_t count, HostObjectPool* pool,
                                      bool* isASCII) {
  *isASCII = true;
  __CFString* string = Allocate(true, false, count, Constant::kNo, pool);
  if (string == nullptr) return nullptr;
  UInt8* const units = string->firstUnits;
  UInt64 seen = 0;
  UInt64 word;
  size_t at = 0;
  for (; count - at >= sizeof word; at += sizeof word) {
    std::memcpy(&word, bytes + at, sizeof word);
    std::memcpy(units + at, &word, sizeof word);
    seen |= word;
  }
  std::memcpy(&word, bytes + at, sizeof word);
  std::memcpy(units + at, &word, sizeof word);
  units[count] = 0;
  if (const size_t rest = count - at; rest > 0) {
    const size_t unused = 8 * (sizeof word - rest);
    seen |= kHostIsBigEndian ? word >> unused : word << unused;
  }
  if ((seen & 0x8080808080808080u) == 0) return string;
  *isASCII = false;
  string->Release();
  return nullptr;
}

__CFString* __CFString::Create(HostTextView text) { return Make(text, Constant::kNo); }

__CFString* __CFString::Create(CFStringEncoding encoding, const UInt8* bytes, size_t count,
                               bool external) {
  if (!HostIsKnownEncoding(encoding) || count > kMaxUnits) return nullptr;
  if (count == 0) bytes = reinterpret_cast<const UInt8*>("");
  const bool storedAsIs =
      encoding == kCFStringEncodingISOLatin1 || (!IsUTF16(encoding) && HostIsASCII(bytes, count));
  if (storedAsIs) return Make({bytes, nullptr, count}, Constant::kNo);

  const std::unique_ptr<UniChar[]> units(new (std::nothrow) UniChar[count]);
  size_t length = 0;
  if (units == nullptr) return nullptr;
  if (!HostDecodeText(encoding, bytes, count, external, units.get(), &length)) return nullptr;
  return Make({nullptr, units.get(), length}, Constant::kNo);
}

__CFString* __CFString::CreateConstant(const char* text) {
  std::vector<UniChar> units;
  for (; *text != 0; ++text) units.push_back(HostMacRomanToUnicode(static_cast<UInt8>(*text)));
  return Make({nullptr, units.data(), units.size()}, Constant::kYes);
}

void __CFString::LastRelease() {
  static_assert(std::is_trivially_destructible_v<__CFString>);
  FreeBlock();
}

HostTextView __CFString::Text() const {
  if (!isWide) return {Narrow(), nullptr, length};
  return {nullptr, static_cast<const UniChar*>(Units()), length};
}

UInt32 __CFString::WorkOutHash() const {
  const UInt32 worked = HostHashBytes(Units(), isWide ? length * sizeof(UniChar) : length);
  const UInt32 stored = worked != 0 ? worked : 1;
  hash.store(stored, std::memory_order_relaxed);
  return stored;
}

CFStringRef __CFString::CopyDescription() const {
  Retain();
  return this;
}

CFTypeID CFStringGetTypeID(void) { return kHostTypeString; }

CFStringRef CFStringCreateWithCString(CFAllocatorRef, const char* text, CFStringEncoding encoding) {
  if (text == nullptr) return nullptr;
  return HostCFString::Create(encoding, reinterpret_cast<const UInt8*>(text), std::strlen(text),
                              false);
}

CFStringRef CFStringCreateWithPascalString(CFAllocatorRef, ConstStr255Param text,
                                           CFStringEncoding encoding) {
  return text != nullptr ? HostCFString::Create(encoding, text + 1, text[0], false) : nullptr;
}

CFStringRef CFStringCreateWithBytes(CFAllocatorRef, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation) {
  if (count < 0 || (bytes == nullptr && count > 0)) return nullptr;
  return HostCFString::Create(encoding, bytes, static_cast<size_t>(count),
                              isExternalRepresentation != 0);
}

CFStringRef CFStringCreateWithCharacters(CFAllocatorRef, const UniChar* characters, CFIndex count) {
  if (count < 0 || (characters == nullptr && count > 0)) return nullptr;
  return HostCFString::Create(HostTextView{nullptr, characters, static_cast<size_t>(count)});
}

CFStringRef CFStringCreateWithSubstring(CFAllocatorRef, CFStringRef ref, CFRange range) {
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || !IsInside(range, string->Length())) return nullptr;
  return HostCFString::Create(
      string->Text().Part(static_cast<size_t>(range.location), static_cast<size_t>(range.length)));
}

CFStringRef CFStringCreateCopy(CFAllocatorRef, CFStringRef ref) {
  return static_cast<CFStringRef>(CFRetain(HostCast<HostCFString>(ref)));
}

CFStringRef CFStringCreateWithFormat(CFAllocatorRef allocator, CFDictionaryRef options,
                                     CFStringRef format, ...) {
  va_list arguments;
  va_start(arguments, format);
  CFStringRef result = CFStringCreateWithFormatAndArguments(allocator, options, format, arguments);
  va_end(arguments);
  return result;
}

CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef, CFDictionaryRef,
                                                 CFStringRef format, va_list arguments) {
  const auto* string = HostCast<HostCFString>(format);
  return string != nullptr ? HostFormatString(*string, arguments) : nullptr;
}

CFIndex CFStringGetLength(CFStringRef ref) {
  const auto* string = HostCast<HostCFString>(ref);
  return string != nullptr ? static_cast<CFIndex>(string->Length()) : 0;
}

UniChar CFStringGetCharacterAtIndex(CFStringRef ref, CFIndex index) {
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || !IsInside({index, 1}, string->Length())) return 0;
  return string->Text().At(static_cast<size_t>(index));
}

void CFStringGetCharacters(CFStringRef ref, CFRange range, UniChar* buffer) {
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || buffer == nullptr || !IsInside(range, string->Length())) return;
  const HostTextView text = string->Text();
  for (CFIndex i = 0; i < range.length; ++i) {
    buffer[i] = text.At(static_cast<size_t>(range.location + i));
  }
}

Boolean CFStringGetCString(CFStringRef ref, char* buffer, CFIndex size, CFStringEncoding encoding) {
  if (buffer == nullptr || size <= 0) return false;
  buffer[0] = 0;
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || IsUTF16(encoding)) return false;
  size_t used = 0;
  const size_t taken = HostEncodeText(encoding, string->Text(), 0, reinterpret_cast<UInt8*>(buffer),
                                      static_cast<size_t>(size) - 1, &used);
  buffer[used] = 0;
  return taken == string->Length() && HostIsKnownEncoding(encoding);
}

Boolean CFStringGetPascalString(CFStringRef ref, StringPtr buffer, CFIndex size,
                                CFStringEncoding encoding) {
  if (buffer == nullptr || size <= 0) return false;
  buffer[0] = 0;
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || IsUTF16(encoding)) return false;
  size_t used = 0;
  const size_t taken = HostEncodeText(encoding, string->Text(), 0, buffer + 1,
                                      std::min<size_t>(static_cast<size_t>(size) - 1, 255), &used);
  buffer[0] = static_cast<unsigned char>(used);
  return taken == string->Length() && HostIsKnownEncoding(encoding);
}

const char* CFStringGetCStringPtr(CFStringRef ref, CFStringEncoding encoding) {
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || IsUTF16(encoding) || !HostIsKnownEncoding(encoding)) return nullptr;
  const char* text = encoding == kCFStringEncodingISOLatin1
                         ? reinterpret_cast<const char*>(string->Latin1())
                         : string->ASCII();
  // A text with a NUL inside would look shorter than it is.
  return text != nullptr && std::strlen(text) == string->Length() ? text : nullptr;
}

CFIndex CFStringGetBytes(CFStringRef ref, CFRange range, CFStringEncoding encoding, UInt8 lossByte,
                         Boolean isExternalRepresentation, UInt8* buffer, CFIndex max,
                         CFIndex* used) {
  if (used != nullptr) *used = 0;
  const auto* string = HostCast<HostCFString>(ref);
  if (string == nullptr || !IsInside(range, string->Length())) return 0;

  size_t room = buffer != nullptr ? static_cast<size_t>(std::max<CFIndex>(max, 0)) : kMaxUnits;
  size_t markSize = 0;
  if (isExternalRepresentation && encoding == kCFStringEncodingUnicode) {
    if (!PutByteOrderMark(buffer, room)) return 0;
    markSize = sizeof(UniChar);
  }
  const HostTextView part =
      string->Text().Part(static_cast<size_t>(range.location), static_cast<size_t>(range.length));
  size_t size = 0;
  const size_t taken =
      HostEncodeText(encoding, part, lossByte, buffer != nullptr ? buffer + markSize : nullptr,
                     room - markSize, &size);
  if (used != nullptr) {
    *used = static_cast<CFIndex>(std::min<uint64_t>(uint64_t{size} + markSize, INT32_MAX));
  }
  return static_cast<CFIndex>(taken);
}

CFIndex CFStringGetMaximumSizeForEncoding(CFIndex count, CFStringEncoding encoding) {
  const uint64_t unitSize = HostMaxBytesPerUnit(encoding);
  const uint64_t size = unitSize * static_cast<uint64_t>(std::max<CFIndex>(count, 0));
  return unitSize != 0 && count >= 0 && size <= INT32_MAX ? static_cast<CFIndex>(size) : -1;
}

CFComparisonResult CFStringCompare(CFStringRef a, CFStringRef b, CFOptionFlags) {
  const auto* left = HostCast<HostCFString>(a);
  const auto* right = HostCast<HostCFString>(b);
  if (left == nullptr || right == nullptr) return (left != nullptr) - (right != nullptr);
  const HostTextView x = left->Text();
  const HostTextView y = right->Text();
  const size_t common = std::min(x.length, y.length);
  for (size_t i = 0; i < common; ++i) {
    if (x.At(i) != y.At(i)) return x.At(i) < y.At(i) ? kCFCompareLessThan : kCFCompareGreaterThan;
  }
  return (x.length > y.length) - (x.length < y.length);
}

CFStringRef __CFStringMakeConstantString(const char* text) {
  if (text == nullptr) return nullptr;
  ConstantTable& table = Constants();
  const std::lock_guard<std::mutex> held(table.lock);
  HostCFString*& string = table.strings[text];
  if (string == nullptr) string = HostCFString::CreateConstant(text);
  return string;
}
