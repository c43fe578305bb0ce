#pragma once

#include <CoreServices/CoreServices.h>

// The first of two statuses that is a failure, for a late step that must run even after one:
// FirstError(err, Stop()) runs Stop and keeps `err` unless that was 0.
constexpr OSStatus FirstError(OSStatus first, OSStatus second) {
  return first != 0 ? first : second;
}
