#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/ae_value.h"

// Attributes of Apple Events, for the transport, the codec and the printer. Threads as for all
// descriptors: one event, one thread at a time.

// What every event has; on the wire it is the fixed head.
struct HostEventHead {
  AEEventClass eventClass;
  AEEventID eventID;
  AEReturnID returnID;
  AETransactionID transactionID;
};

// Result  0; paramErr, errAENotAEDesc, errAENotAppleEvent; `*head` is then untouched.
OSStatus HostGetEventHead(const AppleEvent* event, HostEventHead* head);

// The address attribute: its type, size in bytes, and its first 8 bytes (the rest zero).
// Result  as above, errAEDescNotFound when the event has no address; the outputs are untouched.
OSStatus HostGetEventAddress(const AppleEvent* event, DescType* type, Size* size,
                             UInt8 (&first)[8]);

// Sets any attribute, those included that callers cannot put. One that has a type of its own
// coerces the data.
// Result  0; paramErr, errAENotAEDesc, errAENotAppleEvent, errAEWrongDataType (a container's
//         code), errAECoercionFail, memFullErr; the event is then unchanged.
OSStatus HostSetEventAttribute(AppleEvent* event, AEKeyword key, DescType type, const void* data,
                               Size size);

// One attribute that has a field of its own.
struct HostAttributeRow {
  AEKeyword key;
  DescType type;    // typeWildCard: an address of any type
  uint16_t offset;  // in HostAEEventFields
  uint8_t width;    // bytes; 0 for an address
  uint8_t flags;
};

inline constexpr uint8_t kHostAttributeAlways = 1;   // has a value without being set
inline constexpr uint8_t kHostAttributeSending = 2;  // callers cannot put it
inline constexpr uint8_t kHostAttributeTravels = 4;  // an item of the flattened event
inline constexpr uint8_t kHostAttributePrinted = 8;

// The rows in a fixed order; `index` counts from 0, null behind the last.
const HostAttributeRow* HostAttributeAt(size_t index);
const HostAttributeRow* HostFindAttributeRow(AEKeyword key);

// The attribute as an item that borrows from the event. False when the event has none.
bool HostViewAttribute(const HostAEEvent& event, const HostAttributeRow& row, HostAEItem* view);

// Sets a field from bytes that have exactly the row's type and width. False when they have not.
bool HostSetAttributeField(HostAEEvent* event, const HostAttributeRow& row, DescType type,
                           const void* data, size_t size);
