#include "platform/host/mp_queue.h"

#include <algorithm>
#include <memory>

#include "platform/host/mp_objects.h"

namespace {

constexpr uint32_t kMaxMessages = 1u << 20;
constexpr uint32_t kFirstCapacity = 16;
// An emptied queue keeps no more memory than for so many messages.
constexpr uint32_t kKeptCapacity = 1024;

struct Message {
  void* parameters[3];
};

// A ring of messages. Its capacity never falls below what is in it and what was promised.
struct Queue : HostMPObject {
  std::unique_ptr<Message[]> ring;
  uint32_t capacity = 0;
  uint32_t first = 0;
  uint32_t count = 0;
  uint32_t promised = 0;
  uint32_t reserve = 0;  // 0: grows
  HostMPCondition changed;

  bool Resize(uint32_t places);
  bool EnsureRoom();
  bool HasRoom();
  void Append(void* p1, void* p2, void* p3);
  Message TakeFirst();
  void Clear();
};

bool Queue::Resize(uint32_t places) {
  std::unique_ptr<Message[]> bigger(new (std::nothrow) Message[places]);
  if (bigger == nullptr) return false;
  for (uint32_t i = 0; i < count; i++) bigger[i] = ring[(first + i) & (capacity - 1)];
  ring = std::move(bigger);
  capacity = places;
  first = 0;
  return true;
}

// Room for one more besides the promised ones. Capacities are powers of two.
bool Queue::EnsureRoom() {
  const uint32_t needed = count + promised + 1;
  if (needed <= capacity) return true;
  uint32_t places = std::max(capacity, kFirstCapacity);
  while (places < needed) places *= 2;
  return Resize(places);
}

bool Queue::HasRoom() { return count < (reserve > 0 ? reserve : kMaxMessages) && EnsureRoom(); }

void Queue::Append(void* p1, void* p2, void* p3) {
  ring[(first + count) & (capacity - 1)] = {{p1, p2, p3}};
  count++;
}

Message Queue::TakeFirst() {
  const Message message = ring[first];
  first = (first + 1) & (capacity - 1);
  count--;
  if (count == 0 && capacity > kKeptCapacity && reserve == 0 && promised < kFirstCapacity) {
    Resize(kFirstCapacity);
  }
  return message;
}

void Queue::Clear() {
  ring.reset();
  capacity = first = count = promised = reserve = 0;
}

constinit HostMPTable<Queue, HostMPKind::kQueue> sQueues;

}  // namespace

OSStatus MPCreateQueue(MPQueueID* queue) {
  if (queue == nullptr) return paramErr;
  uintptr_t id = 0;
  if (!sQueues.Create(&id)) return kMPInsufficientResourcesErr;
  *queue = reinterpret_cast<MPQueueID>(id);
  return noErr;
}

OSStatus MPDeleteQueue(MPQueueID id) {
  auto queue = sQueues.Find(id);
  if (!queue) return kMPInvalidIDErr;
  queue->Clear();
  sQueues.Delete(queue);
  return noErr;
}

OSStatus MPNotifyQueue(MPQueueID id, void* p1, void* p2, void* p3) {
  auto queue = sQueues.Find(id);
  if (!queue) return kMPInvalidIDErr;
  if (!queue->HasRoom()) return kMPInsufficientResourcesErr;
  queue->Append(p1, p2, p3);
  sQueues.WakeOne(queue);
  return noErr;
}

OSStatus MPWaitOnQueue(MPQueueID id, void** p1, void** p2, void** p3, Duration timeout) {
  auto queue = sQueues.Find(id);
  if (!queue) return kMPInvalidIDErr;
  const OSStatus err = sQueues.Wait(queue, timeout, [&queue] { return queue->count > 0; });
  if (err != noErr) return err;
  const Message message = queue->TakeFirst();
  queue = {};
  if (p1 != nullptr) *p1 = message.parameters[0];
  if (p2 != nullptr) *p2 = message.parameters[1];
  if (p3 != nullptr) *p3 = message.parameters[2];
  return noErr;
}

OSStatus MPSetQueueReserve(MPQueueID id, ItemCount count) {
  auto queue = sQueues.Find(id);
  if (!queue) return kMPInvalidIDErr;
  if (count > kMaxMessages) return kMPInsufficientResourcesErr;
  uint32_t places = kFirstCapacity;
  while (places < std::max(count, queue->count) + queue->promised) places *= 2;
  if (count > 0 && places != queue->capacity && !queue->Resize(places)) {
    return kMPInsufficientResourcesErr;
  }
  queue->reserve = count;
  return noErr;
}

OSStatus HostPromiseMessage(MPQueueID id) {
  auto queue = sQueues.Find(id);
  if (!queue) return kMPInvalidIDErr;
  if (queue->promised >= kMaxMessages || !queue->EnsureRoom()) return kMPInsufficientResourcesErr;
  queue->promised++;
  return noErr;
}

void HostWithdrawPromise(MPQueueID id) {
  auto queue = sQueues.Find(id);
  if (queue) queue->promised--;
}

void HostPostPromised(MPQueueID id, void* p1, void* p2, void* p3) {
  auto queue = sQueues.Find(id);
  if (!queue) return;
  queue->promised--;
  queue->Append(p1, p2, p3);
  sQueues.WakeOne(queue);
}
