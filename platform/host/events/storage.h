#pragma once

#include <CoreServices/AEDataModel.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/host/events/value.h"

// The table that gives descriptors' storage its numbers. A number identifies a slot and one use of
// it. So a number that was disposed of finds nothing, however often it was copied, and never finds
// another descriptor's data (with 32-bit pointers: not within two million uses).
//
// Any thread may create, find and dispose of storage, also of storage that another thread made. If
// several threads dispose of one number, one of them does it. The item of a number has no lock: one
// thread at a time uses a descriptor.

// Puts `item` into a slot and makes `*dst` its descriptor. Takes the item over; after a failure
// (memFullErr) the item is released and `*dst` is null. A null item gives the null descriptor.
OSStatus HostMakeDesc(HostAEItem* item, AEDesc* dst);

// A number is a slot's index below and a generation above. The slot's word holds the generation
// and, in bit 0, whether it is in use; disposing moves the word to the next generation in one step,
// which settles every race.
struct HostDescSlot {
  std::atomic<uint32_t> word;  // generation * 2 + in use
  uint32_t next;               // in a queue of free slots; 0 ends it
  HostAEItem item;
};
inline constexpr bool kHostWideNumbers = sizeof(uintptr_t) >= 8;
inline constexpr unsigned kHostSlotIndexBits = kHostWideNumbers ? 24 : 20;
inline constexpr unsigned kHostGenerationShift = kHostWideNumbers ? 32 : 20;
inline constexpr uint32_t kHostChunkSlots = 256;
inline constexpr uint32_t kHostChunks = (1u << kHostSlotIndexBits) / kHostChunkSlots;
extern std::atomic<HostDescSlot*> gHostDescChunks[kHostChunks];

// The slot that a number names while it is in use for that number, else null. Slot 0 never is.
inline HostDescSlot* HostFindSlot(AEDataStorage storage) {
  const auto number = reinterpret_cast<uintptr_t>(storage);
  const auto index = static_cast<uint32_t>(number & ((uintptr_t{1} << kHostGenerationShift) - 1));
  if (index >> kHostSlotIndexBits != 0) return nullptr;
  HostDescSlot* chunk = gHostDescChunks[index / kHostChunkSlots].load(std::memory_order_acquire);
  if (chunk == nullptr) return nullptr;
  HostDescSlot& slot = chunk[index % kHostChunkSlots];
  const auto generation = static_cast<uint32_t>(number >> kHostGenerationShift);
  return slot.word.load(std::memory_order_acquire) == (generation << 1 | 1) ? &slot : nullptr;
}

// Returns the item of a number, or null if the number is not in use.
inline HostAEItem* HostFindItem(AEDataStorage storage) {
  HostDescSlot* slot = HostFindSlot(storage);
  return slot == nullptr ? nullptr : &slot->item;
}

void HostDisposeItem(AEDataStorage storage);

// Stores the descriptor's value in `*view`, an item that borrows from the descriptor: it is valid
// as long as the descriptor is, and never released. The type code in the descriptor of a record
// counts, not the stored one. The null descriptor gives a null value; a value type without storage
// gives an empty value. Returns errAENotAEDesc if the number is not in use or its item cannot have
// the type code.
OSStatus HostViewDesc(const AEDesc* desc, HostAEItem* view);

// The items that numbered access or keywords refer to: a list's or record's, an event's
// parameters. Each of the masks is one bit of HostAEForm.
inline constexpr unsigned kHostListBit = 1u << static_cast<unsigned>(HostAEForm::kList);
inline constexpr unsigned kHostRecordBit = 1u << static_cast<unsigned>(HostAEForm::kRecord);
inline constexpr unsigned kHostEventBit = 1u << static_cast<unsigned>(HostAEForm::kEvent);

// Returns 0, paramErr for a null pointer, errAENotAEDesc for a null or stale descriptor, or
// errAEWrongDataType for a form that is not in `forms`.
inline OSStatus HostFindItems(const AEDesc* desc, unsigned forms, HostAEItems** items) {
  if (desc == nullptr) return paramErr;
  HostAEItem* item = desc->descriptorType == typeNull ? nullptr : HostFindItem(desc->dataHandle);
  if (item == nullptr) return errAENotAEDesc;
  if ((forms & (1u << static_cast<unsigned>(item->form))) == 0) return errAEWrongDataType;
  *items = item->form == HostAEForm::kEvent ? &item->event->parameters : &item->items;
  return 0;
}

// Returns the same results, but errAENotAppleEvent for any form except an event.
inline OSStatus HostFindEvent(const AppleEvent* desc, HostAEEvent** event) {
  if (desc == nullptr) return paramErr;
  HostAEItem* item = desc->descriptorType == typeNull ? nullptr : HostFindItem(desc->dataHandle);
  if (item == nullptr) return errAENotAEDesc;
  if (item->form != HostAEForm::kEvent) return errAENotAppleEvent;
  *event = item->event;
  return 0;
}

// Returns a new event: all fields 0, no address. Null without memory. Each thread keeps a few
// disposed events for this, with the room of their arrays.
HostAEEvent* HostAcquireEvent();
void HostReleaseEvent(HostAEEvent* event);

// Returns the number of descriptors in existence. Walks over the whole table; for tests.
size_t HostCountDescs();
