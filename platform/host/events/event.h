#pragma once

#include <CoreServices/AEDataModel.h>

#include "platform/host/events/value.h"

// This room holds Apple Event descriptors, events, and how both become bytes and come back.
//
// Attributes of Apple Events, for sending and receiving, the codec and the printer. A function that
// has an event's descriptor finds the event once (HostFindEvent) and passes it on. One thread at a
// time for each event, as for all descriptors.

// The address attribute: its type, size in bytes, and its first 8 bytes (the rest zero).
// Returns 0, or errAEDescNotFound if the event has no address; the outputs are then untouched.
OSStatus HostGetEventAddress(const HostAEEvent& event, DescType* type, Size* size,
                             UInt8 (&first)[8]);

// The facts about a received event that are not in its frame.
struct HostArrival {
  bool replyRequested = false;
  SInt16 source = 0;     // a value of the event source attribute
  UInt32 replyPort = 0;  // also the event's address then; 0: none
};
void HostSetArrival(HostAEEvent* event, const HostArrival& arrival);

// Stores the interaction level of the send mode that an event is sent with (its interaction bits).
// 0 leaves the attribute as it is.
void HostSetInteraction(HostAEEvent* event, SInt32 level);

// Makes the reply to `request`: an event with the class and id of replies and the request's return
// and transaction id, addressed to `replyPort`, or without an address if that is 0. Returns the
// result of AECreateAppleEvent.
OSStatus HostMakeReply(const HostAEEvent& request, UInt32 replyPort, AppleEvent* reply);

// An attribute with a field of its own.
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

// Returns a row; the order is fixed and `index` counts from 0. Returns null after the last one.
const HostAttributeRow* HostAttributeAt(size_t index);
const HostAttributeRow* HostFindAttributeRow(AEKeyword key);

// Makes the attribute an item that borrows from the event. Returns false if the event has none.
bool HostViewAttribute(const HostAEEvent& event, const HostAttributeRow& row, HostAEItem* view);

// Makes each attribute with a field that travels as an item, and that the event has, an item that
// borrows from it. Returns their number.
inline constexpr uint32_t kHostTravellingMost = 2;
uint32_t HostViewTravelling(const HostAEEvent& event, HostAEItem (&views)[kHostTravellingMost]);

// Sets a field from bytes. Returns false if they have not exactly the row's type and width.
bool HostSetAttributeField(HostAEEvent* event, const HostAttributeRow& row, DescType type,
                           const void* data, size_t size);
