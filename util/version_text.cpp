#include "util/version_text.h"

#include <cstring>

#include "util/text_scan.h"

namespace {

struct Stage {
  UInt8 value;
  char letter;
};
constexpr Stage kStages[] = {
    {kDevelopmentStage, 'd'}, {kAlphaStage, 'a'}, {kBetaStage, 'b'}, {kFinalStage, 'f'}};
constexpr char kStageLetters[] = "dabf";  // in the same order

// Meant: values over 9 give the characters after "9", because the packed form allows them.
unsigned char Digit(UInt32 value) { return static_cast<unsigned char>('0' + (value & 15)); }

}  // namespace

const char* StageChar(UInt8 stage) {
  const char* letter = kStageLetters;
  for (const Stage& row : kStages) {
    if (row.value == stage) break;
    ++letter;
  }
  return letter;
}

UInt8 StageVal(char letter) {
  for (const Stage& row : kStages) {
    if (row.letter == letter) return row.value;
  }
  return kFinalStage;
}

char* VersToString(UInt32 version, unsigned char* out, bool withStage) {
  unsigned char* at = out + 1;
  if (version >> 28 != 0) *at++ = Digit(version >> 28);
  *at++ = Digit(version >> 24);
  *at++ = '.';
  *at++ = Digit(version >> 20);
  if ((version >> 16 & 15) != 0) {
    *at++ = '.';
    *at++ = Digit(version >> 16);
  }
  if (withStage) {
    // Meant: an unknown stage puts its NUL into the text, because callers rely on it.
    *at++ = static_cast<unsigned char>(*StageChar(static_cast<UInt8>(version >> 8)));
    Str255 number;
    NumToString(static_cast<SInt32>(version & 0xFF), number);
    std::memcpy(at, number + 1, number[0]);
    at += number[0];
  }
  *at = 0;
  out[0] = static_cast<unsigned char>(at - (out + 1));
  return reinterpret_cast<char*>(out + 1);
}

OSErr StringToVers(const char* text, UInt32& version) {
  SInt32 major = 1, minor = 0, bugFix = 0, nonRelease = 0;
  char letter = 'f';

  if (text == nullptr || !ScanSInt32(text, major)) return paramErr;
  if (*text == '.' && !ScanSInt32(++text, minor)) return paramErr;
  if (*text == '.' && !ScanSInt32(++text, bugFix)) return paramErr;
  if (*text != 0 && std::strchr(kStageLetters, *text) != nullptr) {
    letter = *text;
    if (!ScanSInt32(++text, nonRelease)) return paramErr;
  }
  version = static_cast<UInt32>(major / 10) << 28 | (static_cast<UInt32>(major % 10) & 15) << 24 |
            (static_cast<UInt32>(minor) & 15) << 20 | (static_cast<UInt32>(bugFix) & 15) << 16 |
            static_cast<UInt32>(StageVal(letter)) << 8 | (static_cast<UInt32>(nonRelease) & 0xFF);
  return noErr;
}
