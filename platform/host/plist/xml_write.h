#pragma once

#include "platform/host/plist/codec.h"

// Writes the whole list in the XML form. Returns false with `*error` if the object is not a
// property list, nests too deeply or contains itself, has text or a date that XML cannot carry, if
// there is no memory, or if the sink refuses. The sink may have received some bytes then. Any
// thread.
bool HostWritePlistXML(CFPropertyListRef list, HostPlistSink& sink, HostPropertyListError* error);
