#include "platform/host/plist/characters.h"

namespace {

bool IsTrail(UInt8 byte) { return (byte & 0xC0) == 0x80; }

// Returns the size of the well-formed sequence at `at`, which does not begin with an ASCII byte; 0
// if it is not well formed.
size_t SequenceSize(const UInt8* at, size_t count) {
  const UInt8 lead = at[0];
  const size_t size = lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
  if (size == 0 || size > count) return 0;
  // The second byte's range excludes overlong forms, surrogates and what is beyond U+10FFFF.
  const UInt8 least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const UInt8 most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (at[1] < least || at[1] > most) return 0;
  for (size_t i = 2; i < size; ++i) {
    if (!IsTrail(at[i])) return 0;
  }
  return size;
}

constexpr UInt32 kNoScalar = 0xFFFFFFFF;

// Reads a character at `*at` of `count` bytes in UTF-16. Returns kNoScalar if it is cut or half of
// a pair.
UInt32 TakeUTF16(const UInt8* bytes, size_t count, bool isBig, size_t* at) {
  const auto unit = [&](size_t i) -> UInt32 {
    return isBig ? UInt32{bytes[i]} << 8 | bytes[i + 1] : UInt32{bytes[i + 1]} << 8 | bytes[i];
  };
  if (count - *at < 2) return kNoScalar;
  const UInt32 first = unit(*at);
  *at += 2;
  if ((first & 0xF800) != 0xD800) return first;
  if (first >= 0xDC00 || count - *at < 2) return kNoScalar;
  const UInt32 second = unit(*at);
  *at += 2;
  if ((second & 0xFC00) != 0xDC00) return kNoScalar;
  return 0x10000 + ((first & 0x3FF) << 10 | (second & 0x3FF));
}

// Whether the first bytes are those of UTF-32, which is not read.
bool LooksLikeUTF32(const UInt8* bytes, size_t count) {
  if (count < 4) return false;
  const bool isBig = bytes[0] == 0 && bytes[1] == 0;
  const bool isLittle = bytes[2] == 0 && bytes[3] == 0;
  const bool hasMark =
      isBig ? bytes[2] == 0xFE && bytes[3] == 0xFF : bytes[0] == 0xFF && bytes[1] == 0xFE;
  const bool isASCII = isBig ? bytes[2] == 0 && bytes[3] != 0 : bytes[0] != 0 && bytes[1] == 0;
  return isBig != isLittle && (hasMark || isASCII);
}

// Whether the first two characters are ASCII in UTF-16 without a byte-order mark.
bool LooksLikeUTF16(const UInt8* bytes, size_t count) {
  if (count < 4) return false;
  const bool isBig = bytes[0] == 0 && bytes[2] == 0 && bytes[1] != 0 && bytes[3] != 0;
  return isBig || (bytes[1] == 0 && bytes[3] == 0 && bytes[0] != 0 && bytes[2] != 0);
}

}  // namespace

HostPlistText HostTakePlistText(const UInt8* bytes, size_t count, std::vector<UInt8>* converted) {
  HostPlistText text = {bytes, count};
  if (LooksLikeUTF32(bytes, count)) text.problem = "the text is UTF-32";
  if (LooksLikeUTF16(bytes, count)) text.problem = "the text is UTF-16 without a byte-order mark";
  if (text.problem != nullptr) {
    text.count = 0;
    return text;
  }
  if (count >= 3 && std::memcmp(bytes, "\xEF\xBB\xBF", 3) == 0) {
    text.bytes += 3;
    text.count -= 3;
    return text;
  }
  const bool isBig = count >= 2 && bytes[0] == 0xFE && bytes[1] == 0xFF;
  const bool isLittle = count >= 2 && bytes[0] == 0xFF && bytes[1] == 0xFE;
  if (!isBig && !isLittle) return text;

  converted->resize(count / 2 * 3);  // three bytes for a unit, four for a pair
  size_t size = 0;
  bool isGood = true;
  for (size_t at = 2; at < count && isGood;) {
    const UInt32 scalar = TakeUTF16(bytes, count, isBig, &at);
    isGood = scalar != kNoScalar;
    if (isGood) size += HostPutUTF8(scalar, converted->data() + size);
  }
  text = {converted->data(), size, true, true};
  if (!isGood) text.problem = "the bytes are not UTF-16";
  return text;
}

void HostNormaliseLineEnds(HostPlistText* text, std::vector<UInt8>* converted) {
  if (text->count == 0 || std::memchr(text->bytes, '\r', text->count) == nullptr) return;
  if (!text->isCopy) converted->resize(text->count);
  UInt8* const out = converted->data();
  size_t size = 0;
  for (size_t at = 0; at < text->count; ++at) {
    const UInt8 byte = text->bytes[at];
    const bool isFirstOfTwo = byte == '\r' && at + 1 < text->count && text->bytes[at + 1] == '\n';
    if (!isFirstOfTwo) out[size++] = byte == '\r' ? UInt8{'\n'} : byte;
  }
  text->bytes = out;
  text->count = size;
  text->isCopy = true;
}

const UInt8* HostFindBadUTF8(const UInt8* at, const UInt8* end) {
  while (at < end) {
    uint64_t word;
    if (end - at >= static_cast<ptrdiff_t>(sizeof word)) {
      std::memcpy(&word, at, sizeof word);
      if ((word & kHostHighs) == 0) {
        at += sizeof word;
        continue;
      }
    }
    const size_t size = *at < 0x80 ? 1 : SequenceSize(at, static_cast<size_t>(end - at));
    if (size == 0) return at;
    at += size;
  }
  return end;
}

size_t HostPutUTF8(UInt32 scalar, UInt8* out) {
  if (scalar < 0x80) {
    out[0] = static_cast<UInt8>(scalar);
    return 1;
  }
  const size_t size = scalar < 0x800 ? 2 : scalar < 0x10000 ? 3 : 4;
  for (size_t i = size - 1; i > 0; --i, scalar >>= 6) {
    out[i] = static_cast<UInt8>(0x80 | (scalar & 0x3F));
  }
  constexpr UInt8 kLeads[] = {0, 0, 0xC0, 0xE0, 0xF0};
  out[0] = static_cast<UInt8>(kLeads[size] | scalar);
  return size;
}

HostTextPosition HostFindPosition(const UInt8* begin, const UInt8* at) {
  HostTextPosition position;
  for (; begin < at; ++begin) {
    const bool isOldEnd = *begin == '\r' && !(at - begin > 1 && begin[1] == '\n');
    if (*begin == '\n' || isOldEnd) {
      ++position.line;
      position.column = 0;
    } else if (!IsTrail(*begin)) {
      ++position.column;
    }
  }
  return position;
}
