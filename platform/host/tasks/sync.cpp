#include <algorithm>
#include <cerrno>
#include <ctime>
#include <thread>
#include <utility>

#include "platform/host/tasks/objects.h"

// Event groups, semaphores, critical regions and delays.

namespace {

struct Event : HostMPObject {
  MPEventFlags flags = 0;
  HostMPCondition changed;
};

struct Semaphore : HostMPObject {
  MPSemaphoreCount maximum = 0;
  MPSemaphoreCount count = 0;
  HostMPCondition changed;
};

struct Region : HostMPObject {
  std::thread::id owner;
  uint32_t depth = 0;
  HostMPCondition changed;
};

constinit HostMPTable<Event, HostMPKind::kEvent> sEvents;
constinit HostMPTable<Semaphore, HostMPKind::kSemaphore> sSemaphores;
constinit HostMPTable<Region, HostMPKind::kRegion> sRegions;

// The common part of the three kinds. `prepare`, `isReady` and `take` get the locked object.

template <class Table, class ID, class Prepare>
OSStatus Create(Table& table, ID* out, Prepare prepare) {
  uintptr_t id = 0;
  auto object = table.Create(&id);
  if (!object) return kMPInsufficientResourcesErr;
  prepare(*object);
  *out = reinterpret_cast<ID>(id);
  return noErr;
}

template <class Table>
OSStatus Delete(Table& table, const void* id) {
  auto object = table.Find(id);
  if (!object) return kMPInvalidIDErr;
  table.Delete(object);
  return noErr;
}

// Waits until `isReady`, then takes what was waited for, before another waiter can.
template <class Table, class IsReady, class Take>
OSStatus TakeWhenReady(Table& table, const void* id, Duration timeout, IsReady isReady, Take take) {
  auto object = table.Find(id);
  if (!object) return kMPInvalidIDErr;
  const OSStatus err = table.Wait(object, timeout, [&] { return isReady(*object); });
  if (err == noErr) take(*object);
  return err;
}

}  // namespace

OSStatus MPCreateEvent(MPEventID* out) {
  if (out == nullptr) return paramErr;
  return Create(sEvents, out, [](Event& event) { event.flags = 0; });
}

OSStatus MPDeleteEvent(MPEventID id) { return Delete(sEvents, id); }

OSStatus MPSetEvent(MPEventID id, MPEventFlags flags) {
  auto event = sEvents.Find(id);
  if (!event) return kMPInvalidIDErr;
  event->flags |= flags;
  if (event->flags != 0) sEvents.WakeOne(event);
  return noErr;
}

OSStatus MPWaitForEvent(MPEventID id, MPEventFlags* flags, Duration timeout) {
  return TakeWhenReady(
      sEvents, id, timeout, [](const Event& event) { return event.flags != 0; },
      [flags](Event& event) {
        const MPEventFlags taken = std::exchange(event.flags, 0);
        if (flags != nullptr) *flags = taken;
      });
}

OSStatus MPCreateSemaphore(MPSemaphoreCount maximum, MPSemaphoreCount initial, MPSemaphoreID* out) {
  if (out == nullptr || initial > maximum) return paramErr;
  return Create(sSemaphores, out, [maximum, initial](Semaphore& semaphore) {
    semaphore.maximum = maximum;
    semaphore.count = initial;
  });
}

OSStatus MPDeleteSemaphore(MPSemaphoreID id) { return Delete(sSemaphores, id); }

OSStatus MPSignalSemaphore(MPSemaphoreID id) {
  auto semaphore = sSemaphores.Find(id);
  if (!semaphore) return kMPInvalidIDErr;
  if (semaphore->count >= semaphore->maximum) return kMPInsufficientResourcesErr;
  semaphore->count++;
  sSemaphores.WakeOne(semaphore);
  return noErr;
}

OSStatus MPWaitOnSemaphore(MPSemaphoreID id, Duration timeout) {
  return TakeWhenReady(
      sSemaphores, id, timeout, [](const Semaphore& semaphore) { return semaphore.count > 0; },
      [](Semaphore& semaphore) { semaphore.count--; });
}

OSStatus MPCreateCriticalRegion(MPCriticalRegionID* out) {
  if (out == nullptr) return paramErr;
  return Create(sRegions, out, [](Region& region) { region.depth = 0; });
}

OSStatus MPDeleteCriticalRegion(MPCriticalRegionID id) { return Delete(sRegions, id); }

OSStatus MPEnterCriticalRegion(MPCriticalRegionID id, Duration timeout) {
  const auto self = std::this_thread::get_id();
  return TakeWhenReady(
      sRegions, id, timeout,
      [self](const Region& region) { return region.depth == 0 || region.owner == self; },
      [self](Region& region) {
        region.owner = self;
        region.depth++;
      });
}

OSStatus MPExitCriticalRegion(MPCriticalRegionID id) {
  auto region = sRegions.Find(id);
  if (!region) return kMPInvalidIDErr;
  if (region->depth == 0 || region->owner != std::this_thread::get_id()) {
    return kMPInsufficientResourcesErr;
  }
  region->depth--;
  if (region->depth == 0) sRegions.WakeOne(region);
  return noErr;
}

OSStatus MPDelayUntil(AbsoluteTime* time) {
  if (time == nullptr) return paramErr;
  const uint64_t end = uint64_t{time->hi} << 32 | time->lo;
  constexpr uint64_t kSecond = 1'000'000'000;
  timespec until = {};
  until.tv_sec = static_cast<time_t>(std::min<uint64_t>(end / kSecond, INT32_MAX));
  until.tv_nsec = static_cast<int32_t>(end % kSecond);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
  return noErr;
}
