#pragma once

#include <CoreServices/MacTypes.h>

// Length-prefixed strings in Mac Roman. Pure functions, any thread; nothing is allocated. Null
// arguments are not allowed.

#pragma GCC visibility push(default)
extern "C" {

// Returns -1, 0 or 1 by the bytes; a prefix comes before the longer string. Without
// `caseSensitive`, compares letters as upper case; without `diacSensitive`, leaves out their marks.
SInt16 RelString(ConstStr255Param a, ConstStr255Param b, Boolean caseSensitive,
                 Boolean diacSensitive);
Boolean EqualString(ConstStr255Param a, ConstStr255Param b, Boolean caseSensitive,
                    Boolean diacSensitive);
void UpperString(StringPtr text, Boolean diacSensitive);  // in place

void NumToString(SInt32 number, StringPtr text);  // decimal, at most 11 characters
// An optional sign and digits up to the first other character; the low 32 bits of what they say.
void StringToNum(ConstStr255Param text, SInt32* number);

// At most 255 characters are taken; the source may lie in the destination.
void c2pstrcpy(StringPtr destination, const char* source);
void CopyCStringToPascal(const char* source, StringPtr destination);
// Puts the characters and a NUL: up to 256 bytes.
void CopyPascalStringToC(ConstStr255Param source, char* destination);

}  // extern "C"
#pragma GCC visibility pop
