#include <CoreServices/TextUtils.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include <CoreServices/MacMemory.h>

namespace {

using ByteMap = std::array<UInt8, 256>;

struct BytePair {
  UInt8 from;
  UInt8 to;
};

constexpr BytePair kUpperPairs[] = {
    {0x87, 0xE7}, {0x88, 0xCB}, {0x89, 0xE5}, {0x8A, 0x80}, {0x8B, 0xCC}, {0x8C, 0x81},
    {0x8D, 0x82}, {0x8E, 0x83}, {0x8F, 0xE9}, {0x90, 0xE6}, {0x91, 0xE8}, {0x92, 0xEA},
    {0x93, 0xED}, {0x94, 0xEB}, {0x95, 0xEC}, {0x96, 0x84}, {0x97, 0xEE}, {0x98, 0xF1},
    {0x99, 0xEF}, {0x9A, 0x85}, {0x9B, 0xCD}, {0x9C, 0xF2}, {0x9D, 0xF4}, {0x9E, 0xF3},
    {0x9F, 0x86}, {0xBE, 0xAE}, {0xBF, 0xAF}, {0xCF, 0xCE}, {0xD8, 0xD9},
};

constexpr BytePair kUnmarkedPairs[] = {
    {0x80, 'A'}, {0x81, 'A'}, {0x82, 'C'}, {0x83, 'E'}, {0x84, 'N'}, {0x85, 'O'}, {0x86, 'U'},
    {0x87, 'a'}, {0x88, 'a'}, {0x89, 'a'}, {0x8A, 'a'}, {0x8B, 'a'}, {0x8C, 'a'}, {0x8D, 'c'},
    {0x8E, 'e'}, {0x8F, 'e'}, {0x90, 'e'}, {0x91, 'e'}, {0x92, 'i'}, {0x93, 'i'}, {0x94, 'i'},
    {0x95, 'i'}, {0x96, 'n'}, {0x97, 'o'}, {0x98, 'o'}, {0x99, 'o'}, {0x9A, 'o'}, {0x9B, 'o'},
    {0x9C, 'u'}, {0x9D, 'u'}, {0x9E, 'u'}, {0x9F, 'u'}, {0xAE, 'A'}, {0xAF, 'O'}, {0xBE, 'a'},
    {0xBF, 'o'}, {0xCB, 'A'}, {0xCC, 'A'}, {0xCD, 'O'}, {0xCE, 'O'}, {0xCF, 'o'}, {0xD8, 'y'},
    {0xD9, 'Y'}, {0xE5, 'A'}, {0xE6, 'E'}, {0xE7, 'A'}, {0xE8, 'E'}, {0xE9, 'E'}, {0xEA, 'I'},
    {0xEB, 'I'}, {0xEC, 'I'}, {0xED, 'I'}, {0xEE, 'O'}, {0xEF, 'O'}, {0xF1, 'O'}, {0xF2, 'U'},
    {0xF3, 'U'}, {0xF4, 'U'},
};

constexpr ByteMap MakeMap(bool upper, bool unmarked) {
  ByteMap map{};
  for (size_t i = 0; i < map.size(); ++i) {
    auto byte = static_cast<UInt8>(i);
    if (upper) {
      if (byte >= 'a' && byte <= 'z') byte = static_cast<UInt8>(byte - 'a' + 'A');
      for (const BytePair pair : kUpperPairs) {
        if (pair.from == i) byte = pair.to;
      }
    }
    if (unmarked) {
      const UInt8 marked = byte;
      for (const BytePair pair : kUnmarkedPairs) {
        if (pair.from == marked) byte = pair.to;
      }
    }
    map[i] = byte;
  }
  return map;
}

// Indexes: raise case, strip marks.
constexpr ByteMap kMaps[2][2] = {{MakeMap(false, false), MakeMap(false, true)},
                                 {MakeMap(true, false), MakeMap(true, true)}};

const ByteMap& Folding(Boolean caseSensitive, Boolean diacSensitive) {
  return kMaps[caseSensitive ? 0 : 1][diacSensitive ? 0 : 1];
}

}  // namespace

SInt16 RelString(ConstStr255Param a, ConstStr255Param b, Boolean caseSensitive,
                 Boolean diacSensitive) {
  const ByteMap& map = Folding(caseSensitive, diacSensitive);
  const int common = std::min(a[0], b[0]);
  for (int i = 1; i <= common; ++i) {
    if (map[a[i]] != map[b[i]]) return map[a[i]] < map[b[i]] ? -1 : 1;
  }
  return static_cast<SInt16>((a[0] > b[0]) - (a[0] < b[0]));
}

Boolean EqualString(ConstStr255Param a, ConstStr255Param b, Boolean caseSensitive,
                    Boolean diacSensitive) {
  return RelString(a, b, caseSensitive, diacSensitive) == 0;
}

void UpperString(StringPtr text, Boolean diacSensitive) {
  const ByteMap& map = Folding(false, diacSensitive);
  for (int i = 1; i <= text[0]; ++i) text[i] = map[text[i]];
}

void NumToString(SInt32 number, StringPtr text) {
  char* digits = reinterpret_cast<char*>(text + 1);
  const auto result = std::to_chars(digits, digits + 11, number);  // "-2147483648"
  text[0] = static_cast<unsigned char>(result.ptr - digits);
}

void StringToNum(ConstStr255Param text, SInt32* number) {
  int at = 1;
  const bool negative = text[0] > 0 && text[1] == '-';
  if (text[0] > 0 && (text[1] == '-' || text[1] == '+')) ++at;
  UInt32 value = 0;
  for (; at <= text[0] && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = value * 10 + (text[at] - '0');
  }
  *number = static_cast<SInt32>(negative ? 0 - value : value);
}

void c2pstrcpy(StringPtr destination, const char* source) {
  const size_t length = strnlen(source, 255);
  BlockMoveData(source, destination + 1, static_cast<Size>(length));
  destination[0] = static_cast<unsigned char>(length);
}

void CopyCStringToPascal(const char* source, StringPtr destination) {
  c2pstrcpy(destination, source);
}

void CopyPascalStringToC(ConstStr255Param source, char* destination) {
  const Size length = source[0];  // read first: the source may lie in the destination
  BlockMoveData(source + 1, destination, length);
  destination[length] = 0;
}
