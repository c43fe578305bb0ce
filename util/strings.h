#pragma once

#include <CoreServices/CoreServices.h>

// Copy, append and compare length-prefixed strings ("P": a length byte and up to 255 characters)
// and NUL-terminated ones ("C") in a destination of `size` bytes. Nothing is allocated. Pure
// functions, any thread. Source and destination may overlap. Every function returns its
// destination. Meant: all cuts described below, because callers rely on each of them.

// P to P. Copies the length byte unchanged, even if fewer characters fit. Null gives an empty
// string.
unsigned char* pstrcpy(unsigned char* dst, const unsigned char* src, int size);
// P to C. Copies at most size - 1 characters and adds a NUL. Null gives "".
char* pcstrcpy(char* dst, const unsigned char* src, int size);
// C to P. Copies at most size - 1 characters, and never more than 255. Null gives an empty string.
unsigned char* cpstrcpy(unsigned char* dst, const char* src, int size);
// C to C. A text that does not fit fills all `size` bytes and gets no NUL: never pass such a result
// to a function that expects one. Null gives "".
char* cstrcpy(char* dst, const char* src, int size);

// Append as much as fits. A destination that is already longer than `size` is cut to size - 1
// characters. A `size` below 1 changes nothing. Neither string may be null.
unsigned char* pstrcat(unsigned char* dst, const unsigned char* src, int size);
unsigned char* cpstrcat(unsigned char* dst, const char* src, int size);
char* pcstrcat(char* dst, const unsigned char* src, int size);
// Appends as cstrcpy copies, without a NUL after a cut. A null destination changes nothing.
char* cstrcat(char* dst, const char* src, int size);

// Return -1, 0 or 1 as RelString does, for the first 254 characters of a C string.
SInt16 stricmp(const char* a, const char* b, bool caseSensitive, bool diacriticalSensitive);
SInt16 pcstricmp(const unsigned char* a, const char* b, bool caseSensitive,
                 bool diacriticalSensitive);

// `buffer` has `size` bytes, with `length` characters from its second byte on. Cuts them to size -
// 2 characters and adds a length byte before and a NUL after them, so that the buffer is a P string
// and, from its second byte on, a C string. The length byte is at most 254, so the C string may be
// longer. A negative length and a size below 2 change nothing.
unsigned char* MakePCString(unsigned char* buffer, int length, int size);

char* NumToCString(SInt32 number, char* out, int size);  // writes a decimal number

// Copies the first min(srcLength, size) - 1 bytes and adds a NUL. `srcLength` includes a NUL, so
// the last byte of `src` is never copied. A negative srcLength changes nothing.
char* BufToCString(char* dst, const void* src, int srcLength, int size);

// Flags of the two dumps below. Meant: their values differ, because callers rely on them.
enum : UInt32 { kASCIICharDumpTerminate = 1, kHexDumpTerminate = 2 };

// Writes `digits` upper-case hexadecimal digits of the bytes in memory order, high nibble first.
// Reads only the bytes whose digits it writes. Adds a NUL with kHexDumpTerminate.
char* HexDump(const void* data, char* out, int digits, UInt32 flags);
// Writes `count` characters, with "." for each one outside printable ASCII. Adds a NUL with
// kASCIICharDumpTerminate.
char* ASCIICharDump(const void* data, char* out, int count, UInt32 flags);

// Overwrites the first `stop` within the first `size` bytes with a NUL, even after another NUL.
char* TruncToCStr(char* buffer, char stop, UInt32 size);
