#pragma once

#include "platform/host/plist/codec.h"

// Writes the whole list in the binary form. Returns false with `*error` if the object is not a
// property list, nests too deeply or contains itself, has a date that the form cannot carry, if
// there is no memory, or if the sink refuses. The sink may have received some bytes then. Any
// thread.
bool HostWritePlistBinary(CFPropertyListRef list, HostPlistSink& sink,
                          HostPropertyListError* error);
