#pragma once

#include <CoreServices/AEDataModel.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/host/events/value.h"

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

// The item behind a number, or null when the number names nothing.
inline HostAEItem* HostFindItem(AEDataStorage storage) {
  HostDescSlot* slot = HostFindSlot(storage);
  return slot == nullptr ? nullptr : &slot->item;
}

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
inline OSStatus HostFindItems(const AEDesc* desc, unsigned forms, HostAEItems** items) {
  if (desc == nullptr) return paramErr;
  HostAEItem* item = desc->descriptorType == typeNull ? nullptr : HostFindItem(desc->dataHandle);
  if (item == nullptr) return errAENotAEDesc;
  if ((forms & (1u << static_cast<unsigned>(item->form))) == 0) return errAEWrongDataType;
  *items = item->form == HostAEForm::kEvent ? &item->event->parameters : &item->items;
  return 0;
}

// Result  as above, errAENotAppleEvent for any other form.
inline OSStatus HostFindEvent(const AppleEvent* desc, HostAEEvent** event) {
  if (desc == nullptr) return paramErr;
  HostAEItem* item = desc->descriptorType == typeNull ? nullptr : HostFindItem(desc->dataHandle);
  if (item == nullptr) return errAENotAEDesc;
  if (item->form != HostAEForm::kEvent) return errAENotAppleEvent;
  *event = item->event;
  return 0;
}

// Events come from a small store of the thread and go back to that of the thread that disposes of
// them. A new event is empty: fields 0, no address. Null when there is no memory.
HostAEEvent* HostAcquireEvent();
void HostReleaseEvent(HostAEEvent* event);

// Descriptors in existence: a walk over the whole table, for tests.
size_t HostCountDescs();
