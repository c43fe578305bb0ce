#include "platform/host/ports/port_table.h"

#include <CoreServices/MacErrors.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/mutex.h"
#include "platform/host/ports/port_object.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

// The table of this process's port rights.
//
// Entries. A right is an entry: kFree -> kReceive, kSend or kReply -> kFree. An entry is never
// moved. Its number is the entry's index (20 bits) below a generation (12 bits) that grows each
// time the entry is used, so a freed number names nothing until the generations have come round.
// Free entries wait in a queue, first in first out, after at least kFreeBeforeReuse others: a
// number returns after half a million later ones at the earliest.
//
// One number for each port. byPortID leads from a port id to the right that this process has to the
// port, be it a receive right or a send right, so that looking a port up again gives the same
// number. A reply right is not in it: it stands for one request.
//
// Life. A receive right ends with mach_port_destroy, a reply right when it is used, dropped or its
// client has gone. A send right stays after its last reference: it goes when its port is found
// dead, by a send to it, or by a look through all send rights each time their number has doubled
// (1024 at the least).
//
// Limits. About a million rights; then no more are given out. Rights cost memory only.
//
// Locks. One mutex guards everything here. No callout, no receiver's function and no release of a
// reply's target runs under it, because a receiver that ends takes its own mutex and then this one.

namespace {

// A right number: 12 bits of generation above 20 bits of index.
constexpr uint32_t kIndexBits = 20;
constexpr uint32_t kIndexMask = (1u << kIndexBits) - 1;
constexpr uint32_t kMaxEntries = 1u << kIndexBits;
constexpr uint32_t kFirstIndex = 0x1000;  // above the fixed numbers
constexpr uint32_t kFreeBeforeReuse = 128;
constexpr uint32_t kGenerations = 1u << (32 - kIndexBits);
constexpr uint32_t kChunk = 128;  // entries that are made together

// Send rights are checked for dead ports when there are so many.
constexpr size_t kSweepAt = 1024;

enum class Kind : uint8_t { kFree, kReceive, kSend, kReply };

struct Entry {
  Kind kind = Kind::kFree;
  uint32_t generation = 0;
  uint32_t sendReferences = 0;
  uint32_t nextFree = 0;                     // in the queue of free entries
  uint64_t portID = 0;                       // kSend
  std::shared_ptr<HostPortObject> receiver;  // kReceive: null until its first use
  HostReplyTarget reply;                     // kReply
};

struct Table {
  Entry& At(uint32_t index) { return chunks[index / kChunk][index % kChunk]; }

  std::vector<std::unique_ptr<Entry[]>> chunks;  // entries do not move
  uint32_t size = 0;                             // entries that were ever used
  uint32_t firstFree = 0;                        // a queue, first in first out
  uint32_t lastFree = 0;
  uint32_t freeCount = 0;
  size_t used = 0;
  size_t remote = 0;
  size_t sweepAt = kSweepAt;
  HostPortObjectMaker maker = nullptr;
  std::unordered_map<uint64_t, mach_port_t> byPortID;  // of send rights and of receivers
  const Table* inherited = nullptr;  // the parent's, in a forked child: unused, but not freed
};

constinit HostMutex sMutexStorage;
constinit HostMutex* sMutex = &sMutexStorage;
constinit Table* sTable = nullptr;
constinit const Table* sInherited = nullptr;
constinit std::atomic<void (*)(mach_port_t)> sDeathObserver{nullptr};

alignas(HostMutex) constinit char sChildMutex[sizeof(HostMutex)] = {};

// The parent's table is given up as it is: its memory may be half changed by a thread that does
// not exist here.
void ForgetAllInChild() {
  sMutex = new (sChildMutex) HostMutex;
  if (sTable != nullptr) sInherited = sTable;
  sTable = nullptr;
}

// The table, made on first use. Functions that only give something back must not need memory, so
// they use sTable instead. The caller holds the mutex.
Table& LockedTable() {
  sMutex->AssertHeld();
  if (sTable == nullptr) {
    sTable = new Table;
    sTable->inherited = sInherited;
  }
  return *sTable;
}

Entry* Find(Table& table, mach_port_t name) {
  const uint32_t index = (name & kIndexMask) - kFirstIndex;
  if ((name & kIndexMask) < kFirstIndex || index >= table.size) return nullptr;
  Entry& entry = table.At(index);
  if (entry.kind == Kind::kFree || entry.generation != name >> kIndexBits) return nullptr;
  return &entry;
}

mach_port_t Insert(Table& table, Kind kind) {
  uint32_t index;
  const bool isFull = table.size == kMaxEntries - kFirstIndex;
  if (table.freeCount > kFreeBeforeReuse || (isFull && table.freeCount > 0)) {
    index = table.firstFree;
    table.firstFree = table.At(index).nextFree;
    table.freeCount--;
  } else if (!isFull) {
    index = table.size;
    if (index % kChunk == 0) table.chunks.push_back(std::make_unique<Entry[]>(kChunk));
    table.size++;
  } else {
    return MACH_PORT_NULL;
  }
  Entry& entry = table.At(index);
  entry.kind = kind;
  // Never the generation of all ones: MACH_PORT_DEAD is not a right.
  entry.generation = (entry.generation + 1) % (kGenerations - 1);
  table.used++;
  return entry.generation << kIndexBits | (index + kFirstIndex);
}

// Frees an entry. The target of a reply right has been taken out of it before: it must not be
// released under the mutex.
void Remove(Table& table, mach_port_t name, Entry& entry) {
  assert(&entry == Find(table, name));
  assert(entry.reply.receiver == nullptr && entry.reply.waiter == nullptr);
  if (entry.kind == Kind::kSend) {
    table.byPortID.erase(entry.portID);
    table.remote--;
  }
  if (entry.receiver != nullptr) {
    table.byPortID.erase(entry.receiver->PortID());
    entry.receiver = nullptr;
  }
  entry.kind = Kind::kFree;
  entry.sendReferences = 0;
  entry.portID = 0;
  table.used--;
  const uint32_t index = (name & kIndexMask) - kFirstIndex;
  (table.freeCount++ == 0 ? table.firstFree : table.At(table.lastFree).nextFree) = index;
  table.lastFree = index;
}

bool SocketExists(uint64_t portID) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  char file[17];
  HostPortFileName(portID, file);
  return session != nullptr && faccessat(session->ports, file, F_OK, 0) == 0;
}

// Finds the send rights to dead ports to which nothing has been sent since. Without this, a process
// that looks up names for years would keep them all.
void SweepDeadPorts(Table& table) {
  std::vector<mach_port_t> dead;
  for (const auto& [portID, name] : table.byPortID) {
    const Entry* entry = Find(table, name);
    assert(entry != nullptr);
    if (entry->kind == Kind::kSend && !SocketExists(portID)) {
      dead.push_back(name);
    }
  }
  for (const mach_port_t name : dead) Remove(table, name, *Find(table, name));
  table.sweepAt = std::max(kSweepAt, 2 * table.remote);
}

std::shared_ptr<HostPortObject> ReceiverOf(Table& table, mach_port_t name, Entry& entry) {
  assert(entry.kind == Kind::kReceive);
  if (entry.receiver == nullptr) {
    auto receiver = table.maker(name);
    table.byPortID.emplace(receiver->PortID(), name);
    entry.receiver = std::move(receiver);
    static const bool sExitHandler = atexit(HostDestroyAllReceivers) == 0;
    (void)sExitHandler;
  }
  return entry.receiver;
}

std::vector<std::shared_ptr<HostPortObject>> AllReceivers(Table& table) {
  std::vector<std::shared_ptr<HostPortObject>> receivers;
  for (uint32_t index = 0; index < table.size; index++) {
    if (table.At(index).receiver != nullptr) receivers.push_back(table.At(index).receiver);
  }
  return receivers;
}

void InstallForkReset() {
  static const bool sInstalled = (HostAtForkInChild(ForgetAllInChild), true);
  (void)sInstalled;
}

}  // namespace

HostDestination HostResolvePort(mach_port_t name) {
  HostDestination destination;
  if (name == kHostDiscardPort) {
    destination.kind = HostDestination::Kind::kReply;
    return destination;
  }
  const std::lock_guard<HostMutex> lock(*sMutex);
  Table& table = LockedTable();
  Entry* entry = Find(table, name);
  if (entry == nullptr) return destination;
  switch (entry->kind) {
    case Kind::kReceive:
      destination.kind = HostDestination::Kind::kOwn;
      destination.receiver = ReceiverOf(table, name, *entry);
      break;
    case Kind::kSend:
      destination.kind = HostDestination::Kind::kRemote;
      destination.portID = entry->portID;
      break;
    case Kind::kReply:
      destination.kind = HostDestination::Kind::kReply;
      break;
    case Kind::kFree:
      break;
  }
  return destination;
}

mach_port_t HostAllocateReceiveRight(HostPortObjectMaker maker) {
  InstallForkReset();
  const std::lock_guard<HostMutex> lock(*sMutex);
  Table& table = LockedTable();
  assert(table.maker == nullptr || table.maker == maker);
  table.maker = maker;
  return Insert(table, Kind::kReceive);
}

std::shared_ptr<HostPortObject> HostPortObjectOf(mach_port_t name) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  Table& table = LockedTable();
  Entry* entry = Find(table, name);
  if (entry == nullptr || entry->kind != Kind::kReceive) return nullptr;
  return ReceiverOf(table, name, *entry);
}

mach_port_t HostInsertSendRight(uint64_t portID) {
  InstallForkReset();
  const std::lock_guard<HostMutex> lock(*sMutex);
  Table& table = LockedTable();
  const auto known = table.byPortID.find(portID);
  if (known != table.byPortID.end()) {
    Entry* entry = Find(table, known->second);
    assert(entry != nullptr && entry->kind != Kind::kReply);
    if (entry->sendReferences < UINT32_MAX) entry->sendReferences++;
    return known->second;
  }
  if (table.remote >= table.sweepAt) SweepDeadPorts(table);
  // Entered first: if there is no memory for the right itself, it is taken out again, which needs
  // none.
  const auto place = table.byPortID.emplace(portID, MACH_PORT_NULL).first;
  mach_port_t name = MACH_PORT_NULL;
  if (!HostGuard([&] { name = Insert(table, Kind::kSend); }) || name == MACH_PORT_NULL) {
    table.byPortID.erase(place);
    return MACH_PORT_NULL;
  }
  Entry* entry = Find(table, name);
  assert(entry != nullptr && entry->sendReferences == 0);
  entry->portID = portID;
  entry->sendReferences = 1;
  table.remote++;
  place->second = name;
  return name;
}

mach_port_t HostInsertReplyRight(HostReplyTarget target) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  Table& table = LockedTable();
  const mach_port_t name = Insert(table, Kind::kReply);
  if (name != MACH_PORT_NULL) {
    Find(table, name)->reply = std::move(target);
  }
  return name;
}

bool HostTakeReplyRight(mach_port_t name, HostReplyTarget* target) {
  if (name == kHostDiscardPort) return true;
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sTable == nullptr) return false;
  Table& table = *sTable;
  Entry* entry = Find(table, name);
  if (entry == nullptr || entry->kind != Kind::kReply) return false;
  *target = std::move(entry->reply);
  Remove(table, name, *entry);
  return true;
}

void HostRemoveReplyRight(mach_port_t name) {
  HostReplyTarget dropped;  // its receiver is released after the table's lock
  HostTakeReplyRight(name, &dropped);
}

void HostForgetDeadPort(uint64_t portID) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sTable == nullptr) return;
  Table& table = *sTable;
  const auto known = table.byPortID.find(portID);
  if (known == table.byPortID.end()) return;
  const mach_port_t name = known->second;
  Entry* entry = Find(table, name);
  assert(entry != nullptr);
  if (entry->kind == Kind::kSend) Remove(table, name, *entry);
}

kern_return_t HostAddSendReference(mach_port_t name) {
  const std::lock_guard<HostMutex> lock(*sMutex);
  Entry* entry = sTable != nullptr ? Find(*sTable, name) : nullptr;
  if (entry == nullptr) return KERN_INVALID_NAME;
  if (entry->kind != Kind::kReceive) return KERN_INVALID_RIGHT;
  if (entry->sendReferences == UINT32_MAX) return KERN_UREFS_OVERFLOW;
  entry->sendReferences++;
  return KERN_SUCCESS;
}

kern_return_t HostDropReference(mach_port_t name) {
  HostReplyTarget dropped;  // released after the lock
  const std::lock_guard<HostMutex> lock(*sMutex);
  if (sTable == nullptr) return KERN_INVALID_NAME;
  Table& table = *sTable;
  Entry* entry = Find(table, name);
  if (entry == nullptr) return KERN_INVALID_NAME;
  if (entry->kind == Kind::kReply) {
    dropped = std::move(entry->reply);
    Remove(table, name, *entry);
    return KERN_SUCCESS;
  }
  if (entry->sendReferences == 0) return KERN_INVALID_RIGHT;
  entry->sendReferences--;
  return KERN_SUCCESS;
}

kern_return_t HostDestroyRight(mach_port_t name) {
  std::shared_ptr<HostPortObject> receiver;
  HostReplyTarget dropped;
  bool receive = false;
  {
    const std::lock_guard<HostMutex> lock(*sMutex);
    if (sTable == nullptr) return KERN_INVALID_NAME;
    Table& table = *sTable;
    Entry* entry = Find(table, name);
    if (entry == nullptr) return KERN_INVALID_NAME;
    receive = entry->kind == Kind::kReceive;
    if (entry->kind == Kind::kReply) dropped = std::move(entry->reply);
    receiver = entry->receiver;
    Remove(table, name, *entry);
  }
  if (receiver != nullptr) receiver->Destroy();
  if (receive) {
    if (auto* observer = sDeathObserver.load(std::memory_order_acquire)) observer(name);
  }
  return KERN_SUCCESS;
}

void HostDestroyAllReceivers() {
  // One after the other: at a process's end there may be no memory for a list of them.
  for (uint32_t index = 0;; index++) {
    std::shared_ptr<HostPortObject> receiver;
    {
      const std::lock_guard<HostMutex> lock(*sMutex);
      if (sTable == nullptr || index >= sTable->size) return;
      receiver = sTable->At(index).receiver;
    }
    if (receiver != nullptr) receiver->Destroy();
  }
}

HostTableCounts HostCountTable() {
  std::vector<std::shared_ptr<HostPortObject>> receivers;
  HostTableCounts counts;
  {
    const std::lock_guard<HostMutex> lock(*sMutex);
    Table& table = LockedTable();
    counts.names = table.used;
    receivers = AllReceivers(table);
  }
  for (const auto& receiver : receivers) {
    const HostPortObject::Counts each = receiver->Count();
    if (each.hasSocket) counts.receivers++;
    counts.connections += each.connections;
    counts.lanes += each.lanes;
  }
  return counts;
}

void HostSetDeathObserver(void (*observer)(mach_port_t name)) {
  sDeathObserver.store(observer, std::memory_order_release);
}
