#pragma once

#include "platform/host/plist/codec.h"

// Reads a property list of the old text form from a whole file of `count` bytes. Returns
// the list, which the caller releases, or null with `*error`. Any thread.
CFPropertyListRef HostReadPlistText(const UInt8* bytes, size_t count,
                                    const HostPlistRequest& request, HostPropertyListError* error);
