#pragma once

#include <CoreServices/CoreServices.h>

// Four-character codes as text. Pure functions, any thread; texts are cut to size - 1 characters.

// "'abcd'" when all four characters are printable ASCII; else decimal up to 0x7FFF, else
// hexadecimal with eight digits. Returns `out`.
char* OSTypeToCString(OSType code, char* out, int size);
char* OSTypestrcpy(char* out, OSType code, int size);  // the same
char* OSTypestrcat(char* out, OSType code, int size);  // onto the end of the C string `out`

// The code that a text means, by the first of these that fits: four characters in single quotes;
// "0x" and a DECIMAL number of up to eight digits; a signed decimal number, whatever follows it;
// four characters. So "1234" is a number. paramErr, with `code` unchanged, for everything else.
OSErr CStringToOSType(const char* text, OSType& code);
