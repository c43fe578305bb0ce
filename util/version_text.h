#pragma once

#include <CoreServices/CoreServices.h>

// Packed version numbers and their text. From the highest bit: major number (two decimal digits of
// 4 bits), minor number (4), bug-fix number (4), stage (8), non-release number (8). 0x01236004 is
// "1.2.3b4". Pure functions, any thread.

enum : UInt8 {
  kDevelopmentStage = 0x20,
  kAlphaStage = 0x40,
  kBetaStage = 0x60,
  kFinalStage = 0x80,
};

// Returns the address of the stage's letter inside a constant text, so other letters may follow it;
// for an unknown stage, the address of the NUL.
const char* StageChar(UInt8 stage);
UInt8 StageVal(char letter);  // an unknown letter gives kFinalStage

// Writes a P string with a NUL at its end to `out`, which needs 16 bytes, and returns the address
// of its second byte, which begins a C string. Meant: an unknown stage puts a NUL into the text,
// because callers rely on it.
char* VersToString(UInt32 version, unsigned char* out, bool withStage);

// Reads "2", "1.2" or "1.2.3", each optionally followed by a stage letter and a number, and ignores
// the text after that. Spaces and a sign may precede each number. If a number is missing, returns
// paramErr and leaves `version` unchanged.
OSErr StringToVers(const char* text, UInt32& version);
