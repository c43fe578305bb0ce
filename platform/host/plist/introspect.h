#pragma once

#include <CoreFoundation/CFPropertyList.h>
#include <CoreServices/MacTypes.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/host/plist/error.h"

// Reading a property list with the position of a fault, and its leaves as text, for tools,
// benchmarks and tests only. Any thread.

// A file or stream that is longer, or never ends, is not a property list.
inline constexpr size_t kHostMaxPlistBytes = size_t{256} << 20;

// Reads a property list in any form, as CFPropertyListCreateFromStream does; the caller releases
// it. Returns null with the fault and its position in `*error`; `*format` is then the form that the
// bytes were taken for.
CFPropertyListRef HostReadPropertyList(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                       CFPropertyListFormat* format, HostPropertyListError* error);

// Returns an integer, a date or data as the XML form writes it between its tags, without white
// space. Returns "" for every other object and for a date outside the years 1 to 9999.
std::string HostPlistLeafText(CFTypeRef leaf);

enum class HostPlistLeaf { kInteger, kReal, kDate, kData };

// Makes a leaf from the text that the XML form has between its tags; the caller releases it.
// Returns null if the text is not one, with a word on what would be right in `error->hint` where
// there is one, or if memory runs out (`error->text` is kHostPlistNoMemory).
CFTypeRef HostCreatePlistLeaf(HostPlistLeaf kind, std::string_view text,
                              HostPropertyListError* error);
