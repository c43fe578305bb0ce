#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/value.h"

// Coercion of items, without descriptors. Pure functions, any thread.

// Returns whether a request for `desired` takes a value of this type without coercion.
inline bool HostTakesAsIs(DescType type, DescType desired) {
  return type == desired || desired == typeWildCard || desired == typeBest;
}

// Stores `from` coerced to `toType` in `*out`: a new item with the key typeWildCard, which borrows
// nothing. For the same type or a wildcard it is a copy.
//
// Returns 0, errAECoercionFail if there is no such coercion, errAEBadListItem if a list around the
// item would nest too deep, or memFullErr. Except for 0, `*out` is a null value.
OSStatus HostCoerce(const HostAEItem& from, DescType toType, HostAEItem* out);
