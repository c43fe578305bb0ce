#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <string_view>

// Dates as text with fractions of seconds, which the XML form does not have: 2005-03-01T12:34:56Z
// or 2005-03-01T12:34:56.125Z. The digits read back as the same time. Pure functions, any thread.

bool HasFraction(CFDateRef date);

// Returns "" for a date outside the years 1 to 9999.
std::string DateText(CFDateRef date);

// Makes a date from such a text; the caller releases it. Returns null with a message if it is not
// one.
CFDateRef CreateDate(std::string_view text, std::string& problem);
