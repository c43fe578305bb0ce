#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>

#include "platform/host/ae_value.h"

// The table that gives descriptors' storage its numbers. A number says which slot and which use of
// it, so a number that was disposed of names nothing, however often it was copied, and never
// another descriptor's data (on hosts with 32-bit pointers: not within two million uses).
//
// Threads: any may create, find and dispose, and a descriptor may be disposed of elsewhere than it
// was made. Of several that dispose of one number, one does it. The item that a number names is
// not protected: it belongs to whoever uses the descriptor.

// Puts `item` into a slot and makes `*dst` its descriptor; the item is taken over, and released on
// failure (memFullErr, *dst null). A null item makes the null descriptor.
OSStatus HostMakeDesc(HostAEItem* item, AEDesc* dst);

// The item behind a number, or null when the number names nothing.
HostAEItem* HostFindItem(AEDataStorage storage);

void HostDisposeItem(AEDataStorage storage);

// What a descriptor means, as an item that borrows from it: valid while the descriptor is, never
// released. A record's own type code wins over the stored one. The null descriptor gives a null
// value, and so does a value type without storage give an empty value.
// errAENotAEDesc: the number names nothing, or something that the type code cannot be.
OSStatus HostViewDesc(const AEDesc* desc, HostAEItem* view);

// The items that numbered access or keywords refer to: a list's or record's, an event's
// parameters. Each of the masks is one bit of HostAEForm.
inline constexpr unsigned kHostListBit = 1u << static_cast<unsigned>(HostAEForm::kList);
inline constexpr unsigned kHostRecordBit = 1u << static_cast<unsigned>(HostAEForm::kRecord);
inline constexpr unsigned kHostEventBit = 1u << static_cast<unsigned>(HostAEForm::kEvent);

// Result  0; paramErr (no descriptor), errAENotAEDesc (null or stale), errAEWrongDataType (a form
//         that is not in `forms`).
OSStatus HostFindItems(const AEDesc* desc, unsigned forms, HostAEItems** items);

// Result  as above, errAENotAppleEvent for any other form.
OSStatus HostFindEvent(const AppleEvent* desc, HostAEEvent** event);

// Descriptors in existence: a walk over the whole table, for tests.
size_t HostCountDescs();
