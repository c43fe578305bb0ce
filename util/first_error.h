#pragma once

#include <CoreServices/CoreServices.h>

// Returns the first of two statuses that is not 0, for a step that must run even after a failure:
// FirstError(err, Stop()) calls Stop and keeps `err` unless that was 0. Any thread.
constexpr OSStatus FirstError(OSStatus first, OSStatus second) {
  return first != 0 ? first : second;
}
