#pragma once

#include <CoreServices/CoreServices.h>

// Length-prefixed strings ("P": a length byte and up to 255 characters) and zero-terminated ones
// ("C"), copied, joined and compared within a destination of `size` bytes. Nothing is allocated.
// Pure functions, any thread. The exact cuts below are relied on by callers, the odd ones too.
// Source and destination may overlap. Every function returns its destination.

// P to P. The length byte is copied as it was, also when fewer characters fit. Null source: empty.
unsigned char* pstrcpy(unsigned char* dst, const unsigned char* src, int size);
// P to C; at most size - 1 characters and a zero. Null source: "".
char* pcstrcpy(char* dst, const unsigned char* src, int size);
// C to P; at most size - 1 characters, 255 at the most. Null source: empty.
unsigned char* cpstrcpy(unsigned char* dst, const char* src, int size);
// C to C. A text that does not fit fills all `size` bytes and is NOT terminated: never hand such a
// result to a function that expects a terminator. Null source: "".
char* cstrcpy(char* dst, const char* src, int size);

// Appending: as much as fits. A destination that is longer than `size` already is cut to size - 1
// characters; a `size` below 1 changes nothing. Neither string may be null.
unsigned char* pstrcat(unsigned char* dst, const unsigned char* src, int size);
unsigned char* cpstrcat(unsigned char* dst, const char* src, int size);
char* pcstrcat(char* dst, const unsigned char* src, int size);
// cstrcpy onto the end, with its unterminated cut. Null destination: nothing.
char* cstrcat(char* dst, const char* src, int size);

// -1, 0 or 1 by RelString, of the first 254 characters of a C string.
SInt16 stricmp(const char* a, const char* b, bool caseSensitive, bool diacriticalSensitive);
SInt16 pcstricmp(const unsigned char* a, const char* b, bool caseSensitive,
                 bool diacriticalSensitive);

// Finishes a buffer of `size` bytes whose `length` characters stand from its second byte: it
// becomes a P string and, from the second byte, a C string, cut to size - 2. The P length is at
// most 254, so the C text may be longer. Nothing happens when the cut leaves a negative length.
unsigned char* MakePCString(unsigned char* buffer, int length, int size);

char* NumToCString(SInt32 number, char* out, int size);  // decimal

// The first min(srcLength, size) - 1 bytes and a zero: `srcLength` counts a terminator, so the last
// byte of `src` is always left out. A negative srcLength: nothing.
char* BufToCString(char* dst, const void* src, int srcLength, int size);

// Bits of the two dumps below. They differ, and are meant to.
enum : UInt32 { kASCIICharDumpTerminate = 1, kHexDumpTerminate = 2 };

// `digits` upper-case hexadecimal digits of the bytes in memory order, high nibble first. Reads
// only the bytes whose digits it writes. With kHexDumpTerminate a zero follows.
char* HexDump(const void* data, char* out, int digits, UInt32 flags);
// `count` characters, "." for those outside printable ASCII. With kASCIICharDumpTerminate a zero
// follows.
char* ASCIICharDump(const void* data, char* out, int count, UInt32 flags);

// Puts a zero over the first `stop` within the first `size` bytes, zeros on the way or not.
char* TruncToCStr(char* buffer, char stop, UInt32 size);
