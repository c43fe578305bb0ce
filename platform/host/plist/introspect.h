#pragma once

#include <CoreFoundation/CFPropertyList.h>
#include <CoreServices/MacTypes.h>

#include <cstddef>

#include "platform/host/plist/error.h"

// Reading a property list with the place of the fault, for tools, benchmarks and tests only.
// Any thread.

// A file or stream that has more, or never ends, is no property list.
inline constexpr size_t kHostMaxPlistBytes = size_t{256} << 20;

// A property list in any form, as CFPropertyListCreateFromStream reads it; the caller releases it.
// Null with the place of the fault in `*error`; `*format` then says what the bytes were taken for.
CFPropertyListRef HostReadPropertyList(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                       CFPropertyListFormat* format, HostPropertyListError* error);
