#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/codec.h"
#include "platform/host/events/storage.h"

// The steps that the calls for descriptors, lists, parameters and attributes have in common.
// Threads as for all descriptors: one tree, one thread at a time.

// Whether the item has as many levels as are allowed, so that it fits into no other.
inline bool HostNestsTooDeep(const HostAEItem& item) { return item.Height() >= kHostNestingLimit; }

// A value item (key typeWildCard) of copied bytes.
// Result  0; paramErr (negative size, no data), errAEWrongDataType (a container's code),
//         memFullErr; `*out` is then a null value.
OSStatus HostItemFromBytes(DescType type, const void* data, Size size, HostAEItem* out);

// An item that is a copy of what a descriptor holds.
// Result  0; paramErr, errAENotAEDesc, memFullErr; `*out` is then a null value.
OSStatus HostItemFromDesc(const AEDesc* desc, HostAEItem* out);

// The reading calls by pointer: coerces when asked to, copies at most maxSize bytes and reports
// the whole size. Each output may be null; all are untouched on failure.
// Result  0; paramErr (negative maxSize), errAECoercionFail, memFullErr.
OSStatus HostReadItem(const HostAEItem& item, DescType desired, DescType* type, void* buffer,
                      Size maxSize, Size* actualSize);

// The reading calls by descriptor: a new descriptor of the item, coerced when asked to.
OSStatus HostDescFromItem(const HostAEItem& item, DescType desired, AEDesc* dst);

// Puts `item` under `key`, in place of what is there. Takes the item over also when it fails.
// Result  0; errAEBadListItem (nested too deep), memFullErr.
OSStatus HostPutKeyed(HostAEItems* items, AEKeyword key, HostAEItem* item);
