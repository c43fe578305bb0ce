#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/value.h"

// Coercion of what descriptors hold, without descriptors. Pure functions, any thread.

// True when a request for `desired` takes a value of this type as it is.
inline bool HostTakesAsIs(DescType type, DescType desired) {
  return type == desired || desired == typeWildCard || desired == typeBest;
}

// Makes in `*out` what `from` is as a `toType`: a new item (key typeWildCard) that borrows nothing.
// Asking for the same type or a wildcard gives a copy.
//
// Result  0; errAECoercionFail (no such form), errAEBadListItem (a list around it would nest too
//         deep), memFullErr; `*out` is then a null value.
OSStatus HostCoerce(const HostAEItem& from, DescType toType, HostAEItem* out);
