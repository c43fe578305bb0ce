#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>

// Says what of a list the form `format` (kJsonFormat or one of the platform's) does not keep, as
// the end of a sentence: "XML has no fractions of seconds (2 dates)". Returns "" if it keeps all.
// One thread.
std::string PlistLoss(CFTypeRef list, CFPropertyListFormat format);
