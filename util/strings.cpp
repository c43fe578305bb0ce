#include "util/strings.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "util/text_scan.h"

namespace {

// The length as an int; 0 for null.
int LengthOf(const char* text) {
  return text != nullptr ? static_cast<int>(std::min<size_t>(std::strlen(text), INT_MAX)) : 0;
}

// Returns how many of `wanted` characters to append to `current` ones. Meant: negative if there are
// already more than `size`, because callers rely on the cut: nothing is moved then, and size - 1
// characters remain.
int AppendCount(int current, int wanted, int size) {
  return wanted >= size - current ? size - current - 1 : wanted;
}

unsigned char* AppendToPString(unsigned char* dst, const void* src, int length, int size) {
  if (size < 1) return dst;
  const int current = dst[0];
  const int count = AppendCount(current, length, size);
  BlockMoveData(src, dst + 1 + current, count);
  // Meant: the length wraps if `size` allows more than 255 characters, because callers rely on it.
  dst[0] = static_cast<unsigned char>(current + count);
  return dst;
}

}  // namespace

unsigned char* pstrcpy(unsigned char* dst, const unsigned char* src, int size) {
  if (dst == nullptr || size < 1) return dst;
  const int length = src != nullptr ? src[0] : 0;
  if (length > 0) BlockMoveData(src + 1, dst + 1, std::min(length, size - 1));
  // Meant: the whole length even after a cut, because callers rely on it.
  dst[0] = static_cast<unsigned char>(length);
  return dst;
}

char* pcstrcpy(char* dst, const unsigned char* src, int size) {
  if (dst == nullptr || size < 1) return dst;
  const int count = std::min(src != nullptr ? int{src[0]} : 0, size - 1);
  if (count > 0) BlockMoveData(src + 1, dst, count);
  dst[count] = 0;
  return dst;
}

unsigned char* cpstrcpy(unsigned char* dst, const char* src, int size) {
  if (dst == nullptr || size < 1) return dst;
  const int count = std::min(LengthOf(src), std::min(size, 256) - 1);
  BlockMoveData(src, dst + 1, count);
  dst[0] = static_cast<unsigned char>(count);
  return dst;
}

char* cstrcpy(char* dst, const char* src, int size) {
  if (dst == nullptr || size < 1) return dst;
  const int count = std::min(size - 1, LengthOf(src));
  if (count < 1) {
    dst[0] = 0;
  } else {
    // Meant: a cut text has its next character in place of the NUL, because callers rely on it.
    BlockMoveData(src, dst, count + 1);
  }
  return dst;
}

unsigned char* pstrcat(unsigned char* dst, const unsigned char* src, int size) {
  return AppendToPString(dst, src + 1, src[0], size);
}

unsigned char* cpstrcat(unsigned char* dst, const char* src, int size) {
  return AppendToPString(dst, src, LengthOf(src), size);
}

char* pcstrcat(char* dst, const unsigned char* src, int size) {
  if (size < 1) return dst;
  const int current = LengthOf(dst);
  const int count = AppendCount(current, src[0], size);
  BlockMoveData(src + 1, dst + current, count);
  dst[current + count] = 0;
  return dst;
}

char* cstrcat(char* dst, const char* src, int size) {
  if (dst == nullptr || size < 1) return dst;
  const int current = LengthOf(dst);
  cstrcpy(dst + current, src, size - current);
  return dst;
}

SInt16 stricmp(const char* a, const char* b, bool caseSensitive, bool diacriticalSensitive) {
  Str255 left;
  cpstrcpy(left, a, 255);
  return pcstricmp(left, b, caseSensitive, diacriticalSensitive);
}

SInt16 pcstricmp(const unsigned char* a, const char* b, bool caseSensitive,
                 bool diacriticalSensitive) {
  Str255 right;
  cpstrcpy(right, b, 255);
  return RelString(a, right, caseSensitive, diacriticalSensitive);
}

unsigned char* MakePCString(unsigned char* buffer, int length, int size) {
  if (length < 0 || size < 2) return buffer;
  length = std::min(length, size - 2);
  // Meant: before the length is limited, so that the C string may be longer: callers rely on it.
  buffer[1 + length] = 0;
  buffer[0] = static_cast<unsigned char>(std::min(length, 254));
  return buffer;
}

char* NumToCString(SInt32 number, char* out, int size) {
  Str255 text;
  NumToString(number, text);
  return pcstrcpy(out, text, size);
}

char* BufToCString(char* dst, const void* src, int srcLength, int size) {
  if (dst == nullptr || size < 1 || srcLength < 0) return dst;
  // Meant: the last byte is never copied, because callers count a NUL.
  const int count = std::max(std::min(srcLength, size) - 1, 0);
  BlockMoveData(src, dst, count);
  dst[count] = 0;
  return dst;
}

char* HexDump(const void* data, char* out, int digits, UInt32 flags) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const auto* bytes = static_cast<const UInt8*>(data);
  const int count = std::max(digits, 0);
  for (int i = 0; i < count; ++i) {
    const UInt8 byte = bytes[i / 2];
    out[i] = kDigits[i % 2 == 0 ? byte >> 4 : byte & 15];
  }
  if ((flags & kHexDumpTerminate) != 0) out[count] = 0;
  return out;
}

char* ASCIICharDump(const void* data, char* out, int count, UInt32 flags) {
  const auto* bytes = static_cast<const UInt8*>(data);
  count = std::max(count, 0);
  for (int i = 0; i < count; ++i)
    out[i] = IsPrintableASCII(bytes[i]) ? static_cast<char>(bytes[i]) : '.';
  if ((flags & kASCIICharDumpTerminate) != 0) out[count] = 0;
  return out;
}

char* TruncToCStr(char* buffer, char stop, UInt32 size) {
  auto* found = static_cast<char*>(std::memchr(buffer, stop, size));
  if (found != nullptr) *found = 0;
  return buffer;
}
