#pragma once

#include "platform/host/plist/codec.h"

// Reads a property list of the XML form from a whole file of `count` bytes. Returns
// the list, which the caller releases, or null with `*error`. Any thread.
CFPropertyListRef HostReadPlistXML(const UInt8* bytes, size_t count,
                                   const HostPlistRequest& request, HostPropertyListError* error);
