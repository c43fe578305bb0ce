#include <algorithm>
#include <cerrno>
#include <ctime>
#include <thread>

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

}  // namespace

OSStatus MPCreateEvent(MPEventID* out) {
  if (out == nullptr) return paramErr;
  uintptr_t id = 0;
  auto event = sEvents.Create(&id);
  if (!event) return kMPInsufficientResourcesErr;
  event->flags = 0;
  *out = reinterpret_cast<MPEventID>(id);
  return noErr;
}

OSStatus MPDeleteEvent(MPEventID id) {
  auto event = sEvents.Find(id);
  if (!event) return kMPInvalidIDErr;
  sEvents.Delete(event);
  return noErr;
}

OSStatus MPSetEvent(MPEventID id, MPEventFlags flags) {
  auto event = sEvents.Find(id);
  if (!event) return kMPInvalidIDErr;
  event->flags |= flags;
  if (event->flags != 0) sEvents.WakeOne(event);
  return noErr;
}

OSStatus MPWaitForEvent(MPEventID id, MPEventFlags* flags, Duration timeout) {
  auto event = sEvents.Find(id);
  if (!event) return kMPInvalidIDErr;
  const OSStatus err = sEvents.Wait(event, timeout, [&event] { return event->flags != 0; });
  if (err != noErr) return err;
  if (flags != nullptr) *flags = event->flags;
  event->flags = 0;
  return noErr;
}

OSStatus MPCreateSemaphore(MPSemaphoreCount maximum, MPSemaphoreCount initial, MPSemaphoreID* out) {
  if (out == nullptr || initial > maximum) return paramErr;
  uintptr_t id = 0;
  auto semaphore = sSemaphores.Create(&id);
  if (!semaphore) return kMPInsufficientResourcesErr;
  semaphore->maximum = maximum;
  semaphore->count = initial;
  *out = reinterpret_cast<MPSemaphoreID>(id);
  return noErr;
}

OSStatus MPDeleteSemaphore(MPSemaphoreID id) {
  auto semaphore = sSemaphores.Find(id);
  if (!semaphore) return kMPInvalidIDErr;
  sSemaphores.Delete(semaphore);
  return noErr;
}

OSStatus MPSignalSemaphore(MPSemaphoreID id) {
  auto semaphore = sSemaphores.Find(id);
  if (!semaphore) return kMPInvalidIDErr;
  if (semaphore->count >= semaphore->maximum) return kMPInsufficientResourcesErr;
  semaphore->count++;
  sSemaphores.WakeOne(semaphore);
  return noErr;
}

OSStatus MPWaitOnSemaphore(MPSemaphoreID id, Duration timeout) {
  auto semaphore = sSemaphores.Find(id);
  if (!semaphore) return kMPInvalidIDErr;
  const auto isFree = [&semaphore] { return semaphore->count > 0; };
  const OSStatus err = sSemaphores.Wait(semaphore, timeout, isFree);
  if (err == noErr) semaphore->count--;
  return err;
}

OSStatus MPCreateCriticalRegion(MPCriticalRegionID* out) {
  if (out == nullptr) return paramErr;
  uintptr_t id = 0;
  auto region = sRegions.Create(&id);
  if (!region) return kMPInsufficientResourcesErr;
  region->depth = 0;
  *out = reinterpret_cast<MPCriticalRegionID>(id);
  return noErr;
}

OSStatus MPDeleteCriticalRegion(MPCriticalRegionID id) {
  auto region = sRegions.Find(id);
  if (!region) return kMPInvalidIDErr;
  sRegions.Delete(region);
  return noErr;
}

OSStatus MPEnterCriticalRegion(MPCriticalRegionID id, Duration timeout) {
  auto region = sRegions.Find(id);
  if (!region) return kMPInvalidIDErr;
  const auto self = std::this_thread::get_id();
  const OSStatus err = sRegions.Wait(
      region, timeout, [&region, self] { return region->depth == 0 || region->owner == self; });
  if (err != noErr) return err;
  region->owner = self;
  region->depth++;
  return noErr;
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
