#pragma once

#include <CoreFoundation/CFBase.h>
#include <stdarg.h>

// Immutable strings of UTF-16 code units; any thread. Lengths, locations and ranges count code
// units, sizes count bytes. A creating function returns null if the bytes are not valid in the
// encoding, if the encoding is unknown, and without memory.

using CFStringEncoding = UInt32;
enum : CFStringEncoding {
  kCFStringEncodingMacRoman = 0,
  kCFStringEncodingUnicode = 0x0100,  // UTF-16 in native order, or as a byte-order mark says
  kCFStringEncodingUTF16 = 0x0100,
  kCFStringEncodingISOLatin1 = 0x0201,
  kCFStringEncodingWindowsLatin1 = 0x0500,
  kCFStringEncodingASCII = 0x0600,
  kCFStringEncodingNextStepLatin = 0x0B01,  // declared, not supplied
  kCFStringEncodingNonLossyASCII = 0x0BFF,  // declared, not supplied
  kCFStringEncodingUTF8 = 0x08000100,
  kCFStringEncodingUTF16BE = 0x10000100,
  kCFStringEncodingUTF16LE = 0x14000100,
  kCFStringEncodingInvalidId = 0xFFFFFFFF,
};

using CFDictionaryRef = const struct __CFDictionary*;

#pragma GCC visibility push(default)
extern "C" {

CFTypeID CFStringGetTypeID(void);

// In Mac Roman every byte sequence is valid. Null text gives null.
CFStringRef CFStringCreateWithCString(CFAllocatorRef allocator, const char* text,
                                      CFStringEncoding encoding);
CFStringRef CFStringCreateWithPascalString(CFAllocatorRef allocator, ConstStr255Param text,
                                           CFStringEncoding encoding);
// With isExternalRepresentation, a byte-order mark at the beginning gives the byte order of UTF-16
// and is left out.
CFStringRef CFStringCreateWithBytes(CFAllocatorRef allocator, const UInt8* bytes, CFIndex count,
                                    CFStringEncoding encoding, Boolean isExternalRepresentation);
CFStringRef CFStringCreateWithCharacters(CFAllocatorRef allocator, const UniChar* characters,
                                         CFIndex count);
// Returns null if the range is not in the string.
CFStringRef CFStringCreateWithSubstring(CFAllocatorRef allocator, CFStringRef string,
                                        CFRange range);
CFStringRef CFStringCreateCopy(CFAllocatorRef allocator, CFStringRef string);

// The C conversions, and %@ for an object (a string's own text, else its description; null prints
// "(null)"), %C and %S for UTF-16 code units. %s reads Mac Roman. With `l`, an integer is the
// platform's long, 32 bits wide: %ld takes an SInt32, %lu and %lx a UInt32, and of a wider argument
// the low 32 bits are printed; 64-bit values need `ll` or `q`. Numbered arguments ("%2$d") and %n
// are not supplied: null. `options` is not used.
CFStringRef CFStringCreateWithFormat(CFAllocatorRef allocator, CFDictionaryRef options,
                                     CFStringRef format, ...);
CFStringRef CFStringCreateWithFormatAndArguments(CFAllocatorRef allocator, CFDictionaryRef options,
                                                 CFStringRef format, va_list arguments);

CFIndex CFStringGetLength(CFStringRef string);
UniChar CFStringGetCharacterAtIndex(CFStringRef string, CFIndex index);  // 0 outside
// Stores nothing unless the whole range is in the string.
void CFStringGetCharacters(CFStringRef string, CFRange range, UniChar* buffer);

// The text and a NUL in `size` bytes. False when it does not fit or cannot be represented: then the
// buffer holds a terminated prefix (when size > 0).
Boolean CFStringGetCString(CFStringRef string, char* buffer, CFIndex size,
                           CFStringEncoding encoding);
// `size` includes the length byte; at most 255 bytes of text. On false the buffer holds a prefix
// with its length.
Boolean CFStringGetPascalString(CFStringRef string, StringPtr buffer, CFIndex size,
                                CFStringEncoding encoding);
// The string's own bytes, borrowed, when they happen to be stored that way; else null.
const char* CFStringGetCStringPtr(CFStringRef string, CFStringEncoding encoding);

// Converts as much of `range` as fits into `max` bytes, without a NUL. With a null buffer, only
// counts, without a limit. A character that the encoding lacks becomes lossByte; if that is 0,
// conversion stops before it. With isExternalRepresentation, kCFStringEncodingUnicode begins with a
// byte-order mark. Returns the number of code units that were converted, and stores the number of
// bytes in `*used`, which may be null.
CFIndex CFStringGetBytes(CFStringRef string, CFRange range, CFStringEncoding encoding,
                         UInt8 lossByte, Boolean isExternalRepresentation, UInt8* buffer,
                         CFIndex max, CFIndex* used);
// Bytes that `count` code units may need at worst, terminator not counted; -1 for an unknown
// encoding or a size beyond 32 bits.
CFIndex CFStringGetMaximumSizeForEncoding(CFIndex count, CFStringEncoding encoding);

// Compares by code unit; no option has an effect. Null comes before every string.
CFComparisonResult CFStringCompare(CFStringRef a, CFStringRef b, CFOptionFlags options);

// The constant string with this text: one object per text, never destroyed. For CFSTR.
CFStringRef __CFStringMakeConstantString(const char* text);

}  // extern "C"
#pragma GCC visibility pop

// A constant string of a literal; bytes over 127 are read as Mac Roman. It has no owner; retaining
// and releasing have no effect.
#define CFSTR(literal)                                                            \
  ([]() {                                                                         \
    static const CFStringRef constant = __CFStringMakeConstantString("" literal); \
    return constant;                                                              \
  }())
