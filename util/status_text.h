#pragma once

#include <CoreServices/CoreServices.h>

// The statuses of this library and of the platform interfaces, as text for people: in log lines and
// messages. Both functions return constant text that is never null. Pure functions, any thread.

// Returns the constant's name, such as "procNotFound", or "" for a number that has none here.
const char* VLTStatusName(OSStatus status);

// Returns in a few words what the status means, such as "not running", or "unknown status". A
// server may use a number in a sense of its own.
const char* VLTStatusText(OSStatus status);
