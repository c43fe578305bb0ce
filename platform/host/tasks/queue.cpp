#include "platform/host/tasks/queue.h"

#include <cassert>
#include <utility>

#include "platform/host/tasks/objects.h"

namespace {

constexpr uint32_t kMaxMessages = 1u << 20;
constexpr uint32_t kPerBlock = 64;

struct Message {
  void* parameters[3];
};

struct Block {
  Message messages[kPerBlock];
  Block* next = nullptr;
};

// A list of blocks. Messages are taken at `head` and added at `tail`; spare blocks follow after
// `tail`. Messages do not move, and a queue that has been long frees its blocks as it empties.
struct Queue : HostMPObject {
  Block* head = nullptr;
  Block* tail = nullptr;
  uint32_t headIndex = 0;  // of the oldest message in `head`
  uint32_t tailIndex = 0;  // of the next free slot in `tail`
  uint32_t spares = 0;     // blocks after `tail`
  uint32_t blocks = 0;
  uint32_t count = 0;
  uint32_t promised = 0;  // slots reserved for the last messages of tasks; always free
  uint32_t reserve = 0;   // 0: grows
  Block* last = nullptr;
  HostMPCondition changed;

  uint32_t FreeSlots() const {
    return tail == nullptr ? 0 : spares * kPerBlock + kPerBlock - tailIndex;
  }
  uint32_t BlocksOfReserve(uint32_t wanted) const;
  bool AddBlock();
  bool EnsureRoom();
  bool HasRoom();
  void Append(void* p1, void* p2, void* p3);
  Message TakeFirst();
  void Retire(Block* block);
  void PutLast(Block* block);
  void Clear();
};

// Returns how many blocks hold `wanted` messages wherever the oldest is in its block.
uint32_t Queue::BlocksOfReserve(uint32_t wanted) const {
  return (wanted + promised + kPerBlock - 1) / kPerBlock + 1;
}

bool Queue::AddBlock() {
  auto* block = new (std::nothrow) Block;
  if (block == nullptr) return false;
  blocks++;
  if (tail == nullptr) {
    head = tail = last = block;
  } else {
    PutLast(block);
  }
  return true;
}

void Queue::PutLast(Block* block) {
  block->next = nullptr;
  last->next = block;
  last = block;
  spares++;
}

// Makes room for one message in addition to the promised ones.
bool Queue::EnsureRoom() {
  while (FreeSlots() <= promised) {
    if (!AddBlock()) return false;
  }
  return true;
}

bool Queue::HasRoom() { return count < (reserve > 0 ? reserve : kMaxMessages) && EnsureRoom(); }

void Queue::Append(void* p1, void* p2, void* p3) {
  if (tailIndex == kPerBlock) {
    tail = tail->next;
    tailIndex = 0;
    spares--;
  }
  tail->messages[tailIndex++] = {{p1, p2, p3}};
  count++;
}

Message Queue::TakeFirst() {
  if (headIndex == kPerBlock) {
    Block* emptied = head;
    head = head->next;
    headIndex = 0;
    Retire(emptied);
  }
  const Message message = head->messages[headIndex++];
  count--;
  if (count == 0) {
    assert(head == tail);
    headIndex = tailIndex = 0;
  }
  return message;
}

// One spare block stays, so that a queue of steady length allocates nothing.
void Queue::Retire(Block* block) {
  if (spares == 0 || (reserve > 0 && blocks <= BlocksOfReserve(reserve))) {
    PutLast(block);
    return;
  }
  blocks--;
  delete block;
}

void Queue::Clear() {
  while (head != nullptr) delete std::exchange(head, head->next);
  tail = last = nullptr;
  headIndex = tailIndex = spares = blocks = count = promised = reserve = 0;
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
  while (count > 0 && queue->blocks < queue->BlocksOfReserve(count)) {
    if (!queue->AddBlock()) return kMPInsufficientResourcesErr;
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
  assert(queue->promised > 0 && queue->FreeSlots() > 0);
  queue->promised--;
  queue->Append(p1, p2, p3);
  sQueues.WakeOne(queue);
}
