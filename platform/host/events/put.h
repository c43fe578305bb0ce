#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/codec.h"
#include "platform/host/events/storage.h"

// The common steps of the calls for descriptors, lists, parameters and attributes. One thread at a
// time for each tree, as for all descriptors.

// Returns whether the item has the greatest number of levels, so that no other can contain it.
inline bool HostNestsTooDeep(const HostAEItem& item) { return item.Height() >= kHostNestingLimit; }

// Makes a value item (key typeWildCard) of copied bytes.
// Returns 0; paramErr (negative size, no data), errAEWrongDataType (a container's code),
//         memFullErr; `*out` is then a null value.
OSStatus HostItemFromBytes(DescType type, const void* data, Size size, HostAEItem* out);

// Copies a descriptor's value to a new item. Returns 0, paramErr, errAENotAEDesc or memFullErr;
// except for 0, `*out` is a null value.
OSStatus HostItemFromDesc(const AEDesc* desc, HostAEItem* out);

// Does the work of the calls that read into a buffer: coerces if necessary, copies at most maxSize
// bytes and stores the full size. Each output may be null; after a failure all are unchanged.
// Returns 0, paramErr for a negative maxSize, errAECoercionFail or memFullErr.
OSStatus HostReadItem(const HostAEItem& item, DescType desired, DescType* type, void* buffer,
                      Size maxSize, Size* actualSize);

// Does the work of the calls that read into a descriptor: makes a new one of the item, coerced if
// necessary.
OSStatus HostDescFromItem(const HostAEItem& item, DescType desired, AEDesc* dst);

// Puts `item` under `key` and replaces the item that is there. Takes it over even if it fails.
// Returns 0, errAEBadListItem (nested too deep) or memFullErr.
OSStatus HostPutKeyed(HostAEItems* items, AEKeyword key, HostAEItem* item);
