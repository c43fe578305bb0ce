#include "platform/host/events/storage.h"

#include <atomic>
#include <cassert>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

#include "platform/host/base/mutex.h"
#include "platform/host/base/thread_end.h"
#include "platform/host/events/return_id.h"
#include "platform/host/events/types.h"

// The storage of descriptors.
//
// Slots. A descriptor's number is a slot's index and a generation. The slot's word holds the
// current generation and, in bit 0, whether the slot is in use; both change in one step, so of
// several threads that dispose of one number one succeeds, and a number that was disposed of finds
// nothing. Slots are made in chunks that are never moved or freed, so a number is looked up without
// a lock.
//
//   free --HostMakeDesc--> in use --HostDisposeItem--> free, with the next generation
//
// Free slots wait in queues, first in first out, so that the generations of a slot are far apart in
// time. Each thread has a short queue, which needs no lock, and there is one for all threads. A
// thread takes from the common queue and gives back to it by kBatch slots at once; its end gives
// all back. Generations have 31 bits where a pointer has 64, else 12: there at least kThreadMinimum
// slots stay queued before one is used again.
//
// Events. Each thread also keeps a few disposed events for reuse, with the room of their arrays.
//
// Limits. 2^24 slots (2^20 with 32-bit pointers), then memFullErr. Locks. The table's mutex guards
// the common queue and the making of slots; nothing else is locked under it.

constinit std::atomic<HostDescSlot*> gHostDescChunks[kHostChunks] = {};

namespace {

using Slot = HostDescSlot;

constexpr uint32_t kGenerationMask = kHostWideNumbers ? 0x7fffffffu : 0xfffu;

// Slots that stay queued before one is used again. Short generations need the distance.
constexpr uint32_t kThreadMinimum = kHostWideNumbers ? 0 : 512;
constexpr uint32_t kThreadMaximum = kThreadMinimum + 128;
constexpr uint32_t kBatch = 32;
constexpr uint32_t kSpareEvents = 8;

struct Queue {
  uint32_t head;
  uint32_t tail;
  uint32_t count;
};

struct Table {
  HostMutex lock;
  Queue free;
  uint32_t used;  // slots that were ever handed out; slot 0 never is, so no number is null
};

struct ThreadStore {
  Queue free;
  HostAEEvent* events;
  uint32_t eventCount;
  bool ended;  // the thread has given everything back
};

constinit Table sTable = {{}, {}, 1};
constinit thread_local ThreadStore sStore = {};

Slot& SlotAt(uint32_t index) {
  Slot* chunk = gHostDescChunks[index / kHostChunkSlots].load(std::memory_order_acquire);
  return chunk[index % kHostChunkSlots];
}

void Push(Queue& queue, uint32_t index) {
  SlotAt(index).next = 0;
  if (queue.count++ == 0) {
    queue.head = index;
  } else {
    SlotAt(queue.tail).next = index;
  }
  queue.tail = index;
}

uint32_t Pop(Queue& queue) {
  assert(queue.count > 0);
  const uint32_t index = queue.head;
  queue.head = SlotAt(index).next;
  --queue.count;
  return index;
}

void FreeEvent(HostAEEvent* event) {
  event->attributes.Destroy();
  event->parameters.Destroy();
  delete event;
}

void GiveAllBack() {
  ThreadStore& store = sStore;
  store.ended = true;
  const std::lock_guard<HostMutex> guard(sTable.lock);
  while (store.free.count > 0) Push(sTable.free, Pop(store.free));
  while (store.events != nullptr) FreeEvent(std::exchange(store.events, store.events->next));
}
constinit thread_local HostThreadEnd sStoreEnd{GiveAllBack};

void Arm(ThreadStore& store) {
  if (!sStoreEnd.isWaiting && !store.ended) HostAtThreadEnd(sStoreEnd);
}

// Makes another slot. Returns 0 if the table is full or there is no memory. The lock is held.
uint32_t NewSlot() {
  sTable.lock.AssertHeld();
  if (sTable.used >> kHostSlotIndexBits != 0) return 0;
  std::atomic<Slot*>& chunk = gHostDescChunks[sTable.used / kHostChunkSlots];
  if (chunk.load(std::memory_order_relaxed) == nullptr) {
    auto* slots = static_cast<Slot*>(calloc(kHostChunkSlots, sizeof(Slot)));
    if (slots == nullptr) return 0;
    chunk.store(slots, std::memory_order_release);
  }
  return sTable.used++;
}

// Takes a slot from the common store. Returns 0 if there is none. The lock is held.
uint32_t TakeCommon() {
  sTable.lock.AssertHeld();
  if (sTable.free.count > kThreadMinimum) return Pop(sTable.free);
  const uint32_t fresh = NewSlot();
  return fresh == 0 && sTable.free.count > 0 ? Pop(sTable.free) : fresh;
}

uint32_t TakeSlot() {
  ThreadStore& store = sStore;
  if (store.free.count > kThreadMinimum) return Pop(store.free);

  Arm(store);
  const std::lock_guard<HostMutex> guard(sTable.lock);
  if (store.ended) return TakeCommon();
  // The queue keeps the minimum after each slot that is taken.
  while (store.free.count < kThreadMinimum + kBatch) {
    const uint32_t index = TakeCommon();
    if (index == 0) break;
    Push(store.free, index);
  }
  return store.free.count > 0 ? Pop(store.free) : 0;
}

void GiveSlot(uint32_t index) {
  ThreadStore& store = sStore;
  Arm(store);
  if (!store.ended) {
    Push(store.free, index);
    if (store.free.count <= kThreadMaximum) return;
  }
  const std::lock_guard<HostMutex> guard(sTable.lock);
  if (store.ended) return Push(sTable.free, index);
  while (store.free.count > kThreadMinimum + kBatch) Push(sTable.free, Pop(store.free));
}

AEDataStorage MakeNumber(uint32_t index, uint32_t generation) {
  return reinterpret_cast<AEDataStorage>((uintptr_t{generation} << kHostGenerationShift) | index);
}

}  // namespace

OSStatus HostMakeDesc(HostAEItem* item, AEDesc* dst) {
  AEInitializeDesc(dst);
  if (item->type == typeNull) return 0;
  const uint32_t index = TakeSlot();
  if (index == 0) {
    item->Release();
    return memFullErr;
  }
  Slot& slot = SlotAt(index);
  memcpy(&slot.item, item, sizeof slot.item);
  const uint32_t word = slot.word.load(std::memory_order_relaxed);
  assert((word & 1) == 0);  // a queued slot is free
  slot.word.store(word | 1, std::memory_order_release);
  *dst = {slot.item.type, MakeNumber(index, word >> 1)};
  return 0;
}

void HostDisposeItem(AEDataStorage storage) {
  Slot* slot = HostFindSlot(storage);
  if (slot == nullptr) return;
  const auto number = reinterpret_cast<uintptr_t>(storage);
  const auto index = static_cast<uint32_t>(number & ((uintptr_t{1} << kHostGenerationShift) - 1));
  const auto generation = static_cast<uint32_t>(number >> kHostGenerationShift);
  uint32_t word = generation << 1 | 1;
  const uint32_t next = ((generation + 1) & kGenerationMask) << 1;
  if (HostIsSingleThreaded()) {
    slot->word.store(next, std::memory_order_relaxed);
  } else if (!slot->word.compare_exchange_strong(word, next, std::memory_order_acq_rel)) {
    return;
  }
  slot->item.Release();
  GiveSlot(index);
}

OSStatus HostViewDesc(const AEDesc* desc, HostAEItem* view) {
  view->key = typeWildCard;
  view->SetNull();
  if (desc == nullptr) return paramErr;
  if (desc->descriptorType == typeNull) return 0;
  if (desc->dataHandle == nullptr) {
    if (!HostIsValueType(desc->descriptorType)) return errAENotAEDesc;
    view->SetEmpty(desc->descriptorType, HostAEForm::kValue);
    return 0;
  }
  const HostAEItem* item = HostFindItem(desc->dataHandle);
  if (item == nullptr) return errAENotAEDesc;
  if (item->type != desc->descriptorType && !HostFormFits(item->form, desc->descriptorType)) {
    return errAENotAEDesc;
  }
  memcpy(view, item, sizeof *view);
  view->type = desc->descriptorType;
  return 0;
}

size_t HostCountDescs() {
  const std::lock_guard<HostMutex> guard(sTable.lock);
  size_t count = 0;
  for (uint32_t index = 1; index < sTable.used; ++index) {
    count += SlotAt(index).word.load(std::memory_order_relaxed) & 1;
  }
  return count;
}

// Events.

HostAEEvent* HostAcquireEvent() {
  ThreadStore& store = sStore;
  HostAEEvent* event = store.events;
  if (event != nullptr) {
    store.events = event->next;
    --store.eventCount;
  } else {
    event = new (std::nothrow) HostAEEvent();
    if (event == nullptr) return nullptr;
  }
  event->fields = {};
  event->fields.address.SetNull();
  event->fields.originalAddress.SetNull();
  return event;
}

void HostReleaseEvent(HostAEEvent* event) {
  if (event->fields.ownsReturnID) HostReturnIDDone(event->fields.returnID);
  event->fields.address.Release();
  event->fields.originalAddress.Release();
  event->attributes.Clear();
  event->parameters.Clear();
  event->frame = HostFrameRef();

  ThreadStore& store = sStore;
  Arm(store);
  if (store.ended || store.eventCount == kSpareEvents) return FreeEvent(event);
  event->next = store.events;
  store.events = event;
  ++store.eventCount;
}
