#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Make string objects, which the caller releases, from texts in Mac Roman. Any thread.

CFStringRef CStringToCFString(const char* text);       // null gives null
CFStringRef PStringToCFString(ConstStr255Param text);  // null and "" give null
