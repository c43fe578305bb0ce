#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Texts in Mac Roman to string objects, which the caller releases. Any thread.

CFStringRef CStringToCFString(const char* text);       // null for null
CFStringRef PStringToCFString(ConstStr255Param text);  // null for null and for an empty text
