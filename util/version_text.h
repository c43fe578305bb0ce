#pragma once

#include <CoreServices/CoreServices.h>

// Packed version numbers and their text. From the top: major (two decimal digits of 4 bits), minor
// (4), bug fix (4), stage (8), non-release number (8). 0x01236004 is "1.2.3b4". Pure functions, any
// thread.

enum : UInt8 {
  kDevelopmentStage = 0x20,
  kAlphaStage = 0x40,
  kBetaStage = 0x60,
  kFinalStage = 0x80,
};

// Points at the stage's letter inside a constant text, so more letters may follow it; at the
// terminating zero for an unknown stage.
const char* StageChar(UInt8 stage);
UInt8 StageVal(char letter);  // kFinalStage for an unknown letter

// Writes a P string that is zero-terminated too, into at least 16 bytes, and returns the address of
// its second byte: the C string. An unknown stage stands in the text as a zero byte.
char* VersToString(UInt32 version, unsigned char* out, bool withStage);

// "2", "1.2", "1.2.3", each with a stage letter and number behind it or not; text after that is
// ignored. Numbers may have blanks and a sign in front. paramErr, with `version` unchanged, when a
// number is missing.
OSErr StringToVers(const char* text, UInt32& version);
