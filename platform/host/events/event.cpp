#include "platform/host/events/event.h"

#include <CoreServices/AppleEvents.h>

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstddef>

#include "platform/host/events/coerce.h"
#include "platform/host/events/put.h"
#include "platform/host/events/return_id.h"
#include "platform/host/events/storage.h"

namespace {

using Fields = HostAEEventFields;

constexpr uint8_t kAlways = kHostAttributeAlways;
constexpr uint8_t kSending = kHostAttributeSending;
constexpr uint8_t kTravels = kHostAttributeTravels;
constexpr uint8_t kPrinted = kHostAttributePrinted;

// The attributes that receivers read first come first. Class, ids and transaction are in the fixed
// head of a frame; the sending and receiving code sets what depends on sender and receiver.
constexpr HostAttributeRow kRows[] = {
    {keyReplyRequestedAttr, typeBoolean, offsetof(Fields, replyRequested), 1, kAlways | kSending},
    {keyEventClassAttr, typeType, offsetof(Fields, eventClass), 4, kAlways},
    {keyEventIDAttr, typeType, offsetof(Fields, eventID), 4, kAlways},
    {keyReplyPortAttr, typeMachPort, offsetof(Fields, replyPort), 4, kPrinted},
    {keyAddressAttr, typeWildCard, offsetof(Fields, address), 0, kPrinted},
    {keyReturnIDAttr, typeSInt16, offsetof(Fields, returnID), 2, kAlways | kPrinted},
    {keyTransactionIDAttr, typeSInt32, offsetof(Fields, transactionID), 4, kAlways | kPrinted},
    {keyTimeoutAttr, typeSInt32, offsetof(Fields, timeoutTicks), 4, kTravels | kPrinted},
    {keyInteractLevelAttr, typeSInt32, offsetof(Fields, interaction), 4, kTravels | kPrinted},
    {keyEventSourceAttr, typeSInt16, offsetof(Fields, source), 2, kAlways | kSending},
    {keyOriginalAddressAttr, typeWildCard, offsetof(Fields, originalAddress), 0, kPrinted},
};

// The bits of the rows with kTravels. An event has such an attribute only if it was set.
constexpr uint16_t TravellingBits() {
  uint16_t bits = 0;
  for (size_t index = 0; index < std::size(kRows); ++index) {
    if ((kRows[index].flags & kTravels) != 0) bits |= static_cast<uint16_t>(1u << index);
  }
  return bits;
}
static_assert(std::popcount(TravellingBits()) == kHostTravellingMost);

uint16_t BitOf(const HostAttributeRow& row) { return static_cast<uint16_t>(1u << (&row - kRows)); }

uint8_t* FieldOf(HostAEEvent* event, const HostAttributeRow& row) {
  return reinterpret_cast<uint8_t*>(&event->fields) + row.offset;
}

const uint8_t* FieldOf(const HostAEEvent& event, const HostAttributeRow& row) {
  return reinterpret_cast<const uint8_t*>(&event.fields) + row.offset;
}

void SetReturnID(HostAEEvent* event, AEReturnID id) {
  if (event->fields.ownsReturnID) HostReturnIDDone(event->fields.returnID);
  event->fields.ownsReturnID = false;
  event->fields.returnID =
      id == kAutoGenerateReturnID ? HostMakeReturnID(&event->fields.ownsReturnID) : id;
}

constexpr uint16_t BitOfKey(AEKeyword key) {
  uint16_t bit = 1;
  for (const HostAttributeRow& row : kRows) {
    if (row.key == key) return bit;
    bit = static_cast<uint16_t>(bit << 1);
  }
  return 0;
}

// Makes a port the event's address.
void SetPortAddress(HostAEEvent* event, UInt32 port) {
  event->fields.address.Release();
  event->fields.address.SetBytes(typeMachPort, &port, sizeof port);
}

// Takes the item over, even if it fails.
OSStatus SetField(HostAEEvent* event, const HostAttributeRow& row, HostAEItem* item) {
  OSStatus err = 0;
  if (row.width == 0) {
    auto* address = reinterpret_cast<HostAEItem*>(FieldOf(event, row));
    address->Release();
    memcpy(address, item, sizeof *address);
    return 0;
  }
  StHostAEItem coerced;
  err = HostCoerce(*item, row.type, &coerced.Get());
  item->Release();
  if (err == 0 && !HostSetAttributeField(event, row, row.type, coerced->Bytes(), coerced->size)) {
    err = errAECoercionFail;
  }
  return err;
}

// Puts an attribute in the common case: it has a field, and its type and size are those of the
// field. Returns false, and changes nothing, in any other case.
bool PutFieldBytes(AppleEvent* desc, AEKeyword key, DescType type, const void* data, Size size) {
  const HostAttributeRow* row = HostFindAttributeRow(key);
  if (row == nullptr || (row->flags & kSending) != 0 || data == nullptr || size <= 0) return false;
  HostAEEvent* event = nullptr;
  return HostFindEvent(desc, &event) == 0 &&
         HostSetAttributeField(event, *row, type, data, static_cast<size_t>(size));
}

// Reads an attribute in the common case: it has a field, which is read whole and without
// conversion. Returns false, and stores nothing, in any other case.
bool ReadField(const AppleEvent* desc, AEKeyword key, DescType desired, DescType* type,
               void* buffer, Size maxSize, Size* actualSize) {
  const HostAttributeRow* row = HostFindAttributeRow(key);
  if (row == nullptr || row->width == 0 || !HostTakesAsIs(row->type, desired)) return false;
  HostAEEvent* event = nullptr;
  if (buffer == nullptr || maxSize < row->width || HostFindEvent(desc, &event) != 0) return false;
  if ((row->flags & kAlways) == 0 && (event->fields.present & BitOf(*row)) == 0) return false;
  HostCopyShort(buffer, FieldOf(*event, *row), row->width);
  if (type != nullptr) *type = row->type;
  if (actualSize != nullptr) *actualSize = row->width;
  return true;
}

// Takes the item over, even if it fails.
OSStatus SetAttribute(AppleEvent* desc, AEKeyword key, HostAEItem* item) {
  HostAEEvent* event = nullptr;
  OSStatus err = HostFindEvent(desc, &event);
  const HostAttributeRow* row = HostFindAttributeRow(key);
  if (err == 0 && row != nullptr && (row->flags & kSending) != 0) {
    err = errAEWrongDataType;
  }
  // An address is one value, so a container is refused.
  if (err == 0 && row != nullptr && row->width == 0 && item->IsContainer()) {
    err = errAEWrongDataType;
  }
  if (err != 0) {
    item->Release();
    return err;
  }
  if (row == nullptr) return HostPutKeyed(&event->attributes, key, item);
  return SetField(event, *row, item);
}

// Returns 0, and stores a view that borrows from the event; otherwise returns paramErr,
// errAENotAEDesc, errAENotAppleEvent or errAEDescNotFound.
OSStatus FindAttribute(const AppleEvent* desc, AEKeyword key, HostAEItem* view) {
  HostAEEvent* event = nullptr;
  const OSStatus err = HostFindEvent(desc, &event);
  if (err != 0) return err;
  if (const HostAttributeRow* row = HostFindAttributeRow(key)) {
    return HostViewAttribute(*event, *row, view) ? 0 : errAEDescNotFound;
  }
  const HostAEItem* item = event->attributes.Find(key);
  if (item == nullptr) return errAEDescNotFound;
  memcpy(view, item, sizeof *view);
  return 0;
}

}  // namespace

const HostAttributeRow* HostAttributeAt(size_t index) {
  return index < std::size(kRows) ? &kRows[index] : nullptr;
}

const HostAttributeRow* HostFindAttributeRow(AEKeyword key) {
  for (const HostAttributeRow& row : kRows) {
    if (row.key == key) return &row;
  }
  return nullptr;
}

bool HostViewAttribute(const HostAEEvent& event, const HostAttributeRow& row, HostAEItem* view) {
  if (row.width == 0) {
    memcpy(view, FieldOf(event, row), sizeof *view);
    return view->type != typeNull;
  }
  view->SetBorrowed(row.type, FieldOf(event, row), row.width);
  return (row.flags & kAlways) != 0 || (event.fields.present & BitOf(row)) != 0;
}

uint32_t HostViewTravelling(const HostAEEvent& event, HostAEItem (&views)[kHostTravellingMost]) {
  uint32_t count = 0;
  if ((event.fields.present & TravellingBits()) == 0) return 0;
  for (const HostAttributeRow& row : kRows) {
    if ((row.flags & kTravels) == 0) continue;
    views[count].key = row.key;
    if (HostViewAttribute(event, row, &views[count])) ++count;
  }
  return count;
}

bool HostSetAttributeField(HostAEEvent* event, const HostAttributeRow& row, DescType type,
                           const void* data, size_t size) {
  if (row.width == 0 || type != row.type || size != row.width) return false;
  if (row.key == keyReturnIDAttr) {
    AEReturnID id;
    memcpy(&id, data, sizeof id);
    SetReturnID(event, id);
    return true;
  }
  memcpy(FieldOf(event, row), data, size);
  event->fields.present |= BitOf(row);
  return true;
}

OSStatus HostGetEventAddress(const HostAEEvent& event, DescType* type, Size* size,
                             UInt8 (&first)[8]) {
  const HostAEItem& address = event.fields.address;
  if (address.type == typeNull) return errAEDescNotFound;
  *type = address.type;
  *size = static_cast<Size>(address.size);
  memset(first, 0, sizeof first);
  memcpy(first, address.Bytes(), std::min<size_t>(sizeof first, address.size));
  return 0;
}

void HostSetArrival(HostAEEvent* event, const HostArrival& arrival) {
  event->fields.replyRequested = arrival.replyRequested ? 1 : 0;
  event->fields.source = arrival.source;
  event->fields.present |= BitOfKey(keyReplyRequestedAttr) | BitOfKey(keyEventSourceAttr);
  if (arrival.replyPort == 0) return;
  event->fields.replyPort = arrival.replyPort;
  event->fields.present |= BitOfKey(keyReplyPortAttr);
  SetPortAddress(event, arrival.replyPort);
}

void HostSetInteraction(HostAEEvent* event, SInt32 level) {
  if (level == 0) return;
  event->fields.interaction = level;
  event->fields.present |= BitOfKey(keyInteractLevelAttr);
}

OSStatus HostMakeReply(const HostAEEvent& request, UInt32 replyPort, AppleEvent* reply) {
  const OSStatus err =
      AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, request.fields.returnID,
                         request.fields.transactionID, reply);
  if (err != 0) return err;
  HostAEEvent* made = nullptr;
  const OSStatus found = HostFindEvent(reply, &made);
  assert(found == 0);  // made a moment ago
  (void)found;
  if (replyPort != 0) SetPortAddress(made, replyPort);
  if (made->parameters.ReserveForErrorNumber()) return 0;
  AEDisposeDesc(reply);
  return memFullErr;
}

extern "C" {

OSErr AECreateAppleEvent(AEEventClass eventClass, AEEventID eventID, const AEAddressDesc* target,
                         AEReturnID returnID, AETransactionID transactionID, AppleEvent* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem address;
  address.key = typeWildCard;
  address.SetNull();
  OSStatus err = target == nullptr ? 0 : HostViewDesc(target, &address);
  AEInitializeDesc(dst);
  if (err == 0 && address.IsContainer()) err = errAEWrongDataType;
  if (err != 0) return static_cast<OSErr>(err);

  HostAEEvent* event = HostAcquireEvent();
  if (event == nullptr) return memFullErr;
  event->fields.eventClass = eventClass;
  event->fields.eventID = eventID;
  event->fields.transactionID = transactionID;
  SetReturnID(event, returnID);
  err = event->fields.address.CopyFrom(address);
  HostAEItem item;
  item.key = typeWildCard;
  item.SetEvent(event);
  if (err == 0) {
    err = HostMakeDesc(&item, dst);
  } else {
    item.Release();
  }
  return static_cast<OSErr>(err);
}

OSErr AEPutAttributePtr(AppleEvent* event, AEKeyword key, DescType type, const void* data,
                        Size size) {
  if (PutFieldBytes(event, key, type, data, size)) return 0;
  HostAEItem item;
  OSStatus err = HostItemFromBytes(type, data, size, &item);
  if (err == 0) err = SetAttribute(event, key, &item);
  return static_cast<OSErr>(err);
}

OSErr AEPutAttributeDesc(AppleEvent* event, AEKeyword key, const AEDesc* desc) {
  HostAEItem item;
  OSStatus err = HostItemFromDesc(desc, &item);
  if (err == 0) err = SetAttribute(event, key, &item);
  return static_cast<OSErr>(err);
}

OSErr AEGetAttributePtr(const AppleEvent* event, AEKeyword key, DescType desiredType,
                        DescType* actualType, void* buffer, Size maxSize, Size* actualSize) {
  if (ReadField(event, key, desiredType, actualType, buffer, maxSize, actualSize)) return 0;
  HostAEItem view;
  OSStatus err = FindAttribute(event, key, &view);
  if (err == 0) err = HostReadItem(view, desiredType, actualType, buffer, maxSize, actualSize);
  return static_cast<OSErr>(err);
}

OSErr AEGetAttributeDesc(const AppleEvent* event, AEKeyword key, DescType desiredType,
                         AEDesc* dst) {
  if (dst == nullptr) return paramErr;
  HostAEItem view;
  OSStatus err = FindAttribute(event, key, &view);
  AEInitializeDesc(dst);
  if (err == 0) err = HostDescFromItem(view, desiredType, dst);
  return static_cast<OSErr>(err);
}

OSErr AESizeOfAttribute(const AppleEvent* event, AEKeyword key, DescType* type, Size* size) {
  HostAEItem view;
  const OSStatus err = FindAttribute(event, key, &view);
  if (err == 0 && type != nullptr) *type = view.type;
  if (err == 0 && size != nullptr) *size = static_cast<Size>(view.size);
  return static_cast<OSErr>(err);
}

}  // extern "C"
