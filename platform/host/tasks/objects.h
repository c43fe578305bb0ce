#pragma once

#include <CoreServices/MacErrors.h>
#include <CoreServices/Multiprocessing.h>
#include <pthread.h>

#include <atomic>
#include <bit>
#include <cassert>
#include <cstdint>
#include <ctime>
#include <limits>
#include <mutex>
#include <new>
#include <utility>

#include "platform/host/base/clock.h"

// The room of Multiprocessing Services: tasks, queues and all other objects with an id.
//
// Each kind of id has a table of objects, which are constructed once and never destroyed, only used
// again. An id that was deleted can therefore be looked up, and the object's mutex locked, without
// counting references. The object's own `id` shows whether the id is still valid.
//
// An id's bits, from the lowest: index plus 1 (31; 18 on a 32-bit architecture), kind (3),
// generation (the rest of a pointer). A table hands freed objects out in the order in which they
// were freed. There are ids for whatever memory can hold, except on a 32-bit architecture: a
// program may lose ids for as long as it runs.
//
// Lock order: an object's mutex, then its table's. Any thread.

enum class HostMPKind : uintptr_t { kTask = 1, kQueue, kEvent, kSemaphore, kRegion };

// A POSIX mutex and condition. An object of a table is never destroyed, so neither has a
// destructor. Any thread.
class HostMPMutex {
 public:
  void lock() { pthread_mutex_lock(&native); }
  void unlock() { pthread_mutex_unlock(&native); }

 private:
  friend class HostMPCondition;
  pthread_mutex_t native = PTHREAD_MUTEX_INITIALIZER;
};

// Its waits use the monotonic clock. Any thread.
class HostMPCondition {
 public:
  HostMPCondition() {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&native, &attributes);
    pthread_condattr_destroy(&attributes);
  }
  HostMPCondition(const HostMPCondition&) = delete;
  HostMPCondition& operator=(const HostMPCondition&) = delete;

  void WakeOne() { pthread_cond_signal(&native); }
  void WakeAll() { pthread_cond_broadcast(&native); }
  // Returns false once `deadline` (monotonic nanoseconds) has passed.
  bool Wait(HostMPMutex& mutex, int64_t deadline) {
    if (deadline == kHostNever) return pthread_cond_wait(&native, &mutex.native) == 0;
    timespec end = {};
    end.tv_sec = static_cast<time_t>(deadline / kHostSecond);
    end.tv_nsec = static_cast<int32_t>(deadline % kHostSecond);
    return pthread_cond_timedwait(&native, &mutex.native, &end) == 0;
  }

 private:
  pthread_cond_t native;
};

// The common beginning of objects of every kind. A kind adds its own fields and then a
// HostMPCondition named `changed`, so that the fields that every call touches are next to each
// other.
class HostMPObject {
 public:
  HostMPMutex mutex;
  uintptr_t id = 0;      // 0: free, or deleted and still waited on
  uint32_t waiters = 0;  // threads inside Wait

 private:
  template <class Object, HostMPKind kKind>
  friend class HostMPTable;
  uint32_t index = 0;
  uintptr_t generation = 0;
  HostMPObject* nextFree = nullptr;
};

// Returns when a wait of `timeout` ends, in nanoseconds of the monotonic clock.
inline int64_t HostMPDeadline(Duration timeout) {
  if (timeout == kDurationForever) return kHostNever;
  const int64_t wide = timeout;
  return HostNow() + (wide < 0 ? -wide * 1000 : wide * kHostMillisecond);
}

template <class Object, HostMPKind kKind>
class HostMPTable {
 public:
  // An object whose mutex is held, or null.
  class Held {
   public:
    Held() = default;
    Held(Object* object, uintptr_t id) : lock(object->mutex) {
      if (object->id == id) held = object;
    }
    explicit operator bool() const { return held != nullptr; }
    Object* operator->() const { return held; }
    Object& operator*() const { return *held; }

   private:
    friend class HostMPTable;
    std::unique_lock<HostMPMutex> lock;
    Object* held = nullptr;
  };

  // Returns a new object, held so that the caller can prepare it, and its id. Returns null if the
  // table is full or memory is short.
  Held Create(uintptr_t* id) {
    Object* object = TakeFree();
    if (object == nullptr) return Held();
    std::unique_lock<HostMPMutex> lock(object->mutex);
    object->generation = (object->generation + 1) & kGenerationMask;
    object->id = object->generation << kGenerationShift |
                 static_cast<uintptr_t>(kKind) << kIndexBits | (object->index + 1);
    *id = object->id;
    return HoldAgain(object, std::move(lock));
  }

  Held Find(const void* opaque) {
    const auto id = reinterpret_cast<uintptr_t>(opaque);
    if ((id & kIndexMask) == 0) return Held();
    const Slot slot = SlotOf(static_cast<uint32_t>((id & kIndexMask) - 1));
    Object* chunk = chunks[slot.chunk].load(std::memory_order_acquire);
    return chunk == nullptr ? Held() : Held(&chunk[slot.index], id);
  }

  // Makes the id invalid. Wakes the waiters; the last of them frees the object.
  void Delete(Held& held) {
    assert(held && held->id != 0);
    held->id = 0;
    if (held->waiters == 0) {
      Free(held);
    } else {
      held->changed.WakeAll();
    }
  }

  // Unlocks the object and wakes one of its waiters, if any. In this order, so that the waiter
  // finds the mutex free. The condition stays usable even if the id is deleted meanwhile.
  static void WakeOne(Held& held) {
    Object* object = held.held;
    const bool isAwaited = object->waiters > 0;
    held = Held();
    if (isAwaited) object->changed.WakeOne();
  }

  // Waits, with the mutex released, until `ready()`. Returns 0 with the object still held;
  // kMPTimeoutErr with the object still held; kMPDeletedErr, after which the caller must not touch
  // the object.
  template <class Ready>
  OSStatus Wait(Held& held, Duration timeout, Ready ready) {
    if (ready()) return noErr;
    if (timeout == kDurationImmediate) return kMPTimeoutErr;
    const uintptr_t id = held->id;
    const int64_t deadline = HostMPDeadline(timeout);
    OSStatus err = noErr;
    held->waiters++;
    while (held->id == id && err == noErr && !ready()) {
      if (!held->changed.Wait(held->mutex, deadline)) err = kMPTimeoutErr;
    }
    held->waiters--;
    if (held->id != id) {
      if (held->waiters == 0) Free(held);
      return kMPDeletedErr;
    }
    return err != noErr && ready() ? OSStatus{noErr} : err;
  }

 private:
  static constexpr unsigned kIndexBits = sizeof(uintptr_t) >= 8 ? 31 : 18;
  static constexpr unsigned kKindBits = 3;
  static constexpr unsigned kGenerationShift = kIndexBits + kKindBits;
  static constexpr uintptr_t kIndexMask = (uintptr_t{1} << kIndexBits) - 1;
  static constexpr uintptr_t kGenerationMask =
      std::numeric_limits<uintptr_t>::max() >> kGenerationShift;
  static constexpr uint32_t kMaxObjects = kIndexMask - 1;
  // Chunk n holds kFirstChunk << n objects, so that few chunks hold as many as there can be ids.
  static constexpr uint32_t kFirstChunk = 128;
  static constexpr unsigned kChunks = std::bit_width(kMaxObjects / kFirstChunk + 1);
  // So many freed objects rest before the first of them is used again.
  static constexpr uint32_t kResting = 128;

  struct Slot {
    unsigned chunk;
    uint32_t index;  // in the chunk
  };
  static constexpr Slot SlotOf(uint32_t index) {
    const unsigned chunk = std::bit_width(index / kFirstChunk + 1) - 1;
    return {chunk, index - kFirstChunk * ((1u << chunk) - 1)};
  }

  static Held HoldAgain(Object* object, std::unique_lock<HostMPMutex> lock) {
    Held held;
    held.lock = std::move(lock);
    held.held = object;
    return held;
  }

  Object* TakeFree() {
    const std::lock_guard<std::mutex> lock(mutex);
    if (freeCount <= kResting && made < kMaxObjects) {
      if (Object* object = MakeOne()) return object;
    }
    if (firstFree == nullptr) return nullptr;
    HostMPObject* object = firstFree;
    firstFree = object->nextFree;
    if (firstFree == nullptr) lastFree = nullptr;
    freeCount--;
    return static_cast<Object*>(object);
  }

  Object* MakeOne() {
    const Slot slot = SlotOf(made);
    std::atomic<Object*>& chunk = chunks[slot.chunk];
    if (chunk.load(std::memory_order_relaxed) == nullptr) {
      auto* objects = new (std::nothrow) Object[size_t{kFirstChunk} << slot.chunk];
      if (objects == nullptr) return nullptr;
      chunk.store(objects, std::memory_order_release);
    }
    Object* object = &chunk.load(std::memory_order_relaxed)[slot.index];
    object->index = made++;
    return object;
  }

  void Free(Held& held) {
    const std::lock_guard<std::mutex> lock(mutex);
    HostMPObject* object = held.held;
    assert(object->id == 0 && object->waiters == 0);
    object->nextFree = nullptr;
    (lastFree != nullptr ? lastFree->nextFree : firstFree) = object;
    lastFree = object;
    freeCount++;
  }

  std::mutex mutex;
  std::atomic<Object*> chunks[kChunks] = {};
  uint32_t made = 0;
  uint32_t freeCount = 0;
  HostMPObject* firstFree = nullptr;
  HostMPObject* lastFree = nullptr;
};
