#pragma once

#include <CoreServices/CoreServices.h>

// Four-character codes as text. Pure functions, any thread. Texts are cut to size - 1 characters.

// Writes 'abcd', with the quotation marks, if all four characters are printable ASCII; otherwise a
// decimal number up to 0x7FFF, and eight hexadecimal digits after "0x" above that. Returns `out`.
char* OSTypeToCString(OSType code, char* out, int size);
char* OSTypestrcpy(char* out, OSType code, int size);  // the same function
char* OSTypestrcat(char* out, OSType code, int size);  // appends to the C string `out`

// Reads a code from the first of these forms that fits: four characters in single quotes; "0x" and
// up to eight digits; a signed decimal number, with anything after it; four characters. So "1234"
// is a number. Meant: the digits after "0x" are read as decimal, because callers rely on it. Any
// other text gives paramErr and leaves `code` unchanged.
OSErr CStringToOSType(const char* text, OSType& code);
