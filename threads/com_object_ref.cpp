#include "threads/com_object_ref.h"

#include <thread>

namespace {

constexpr UInt32 kAccessBit = 1;   // of the stored word
constexpr UInt32 kHandedOver = 1;  // of a setter's flags
constexpr UInt32 kBorrowed = 2;

// Tries before the processor is given to the thread that holds the lock.
constexpr int kSpins = 64;

}  // namespace

VLTCOMObjectRef::~VLTCOMObjectRef() { Release(); }

// Access.

UInt32 VLTCOMObjectRef::BeginAccessGetFlags(SInt32) {
  for (int tries = 0;; tries++) {
    const UInt32 before = flags.fetch_or(kAccessBit, std::memory_order_acquire);
    if (GotAccess(before)) return before;
    if (tries % kSpins == kSpins - 1) std::this_thread::yield();
  }
}

void VLTCOMObjectRef::EndAccessSetFlags(UInt32 newFlags) {
  flags.store(newFlags & ~kAccessBit, std::memory_order_release);
}

// Setting.

VLTCOMObjectRef::Object VLTCOMObjectRef::SetObjectPtr(Object newObject, UInt32 newFlags) {
  // Meant: a borrowed reference (bit 1) is added too, and never given back, unless bit 0 is set.
  if ((newFlags & kHandedOver) == 0) _AddRef(newObject);
  const UInt32 before = BeginAccessGetFlags(kDurationForever);
  if (!GotAccess(before)) return newObject;
  const Object old = object.exchange(newObject);
  EndAccessSetFlags(newFlags);
  if ((before & kBorrowed) == 0) _Release(old);
  return newObject;
}

VLTCOMObjectRef::Object VLTCOMObjectRef::SwapObjectPtr(Object newObject, UInt32 newFlags,
                                                       UInt32* previousFlags) {
  if ((newFlags & kHandedOver) == 0) _AddRef(newObject);
  const UInt32 before = BeginAccessGetFlags(kDurationForever);
  Object old = newObject;
  if (GotAccess(before)) {
    old = object.exchange(newObject);
    EndAccessSetFlags(newFlags);
  }
  if (previousFlags != nullptr) *previousFlags = before;
  return old;
}

SInt32 VLTCOMObjectRef::SetToQueryInterfaceResult(SInt32 result, void* interface, CFUUIDBytes,
                                                  UInt32 newFlags) {
  if (SUCCEEDED(result) && interface == nullptr) result = E_NOINTERFACE;
  SetObjectPtr(SUCCEEDED(result) ? static_cast<Object>(interface) : nullptr, newFlags);
  return result;
}

void VLTCOMObjectRef::CopyFrom(const VLTCOMObjectRef& other) {
  if (&other == this) return;
  UInt32 theirFlags = 0;
  for (;;) {
    // No thread waits for the second lock while it holds the first.
    const UInt32 ownFlags = BeginAccessGetFlags(kDurationForever);
    theirFlags = other.flags.fetch_or(kAccessBit, std::memory_order_acquire);
    if (GotAccess(theirFlags)) break;
    EndAccessSetFlags(ownFlags);
    std::this_thread::yield();
  }
  _AddRef(other.object.load());
  other.flags.store(theirFlags & ~kAccessBit, std::memory_order_release);
  // Meant: the old pointer stays, although it is released, and the other's flags decide on that.
  const Object old = object.load();
  EndAccessSetFlags(theirFlags & ~kBorrowed);
  if ((theirFlags & kBorrowed) == 0) _Release(old);
}

// Queries and counts.

void* VLTCOMObjectRef::QueryInterface(CFUUIDBytes iid, SInt32* result) {
  return _QueryInterface(object.load(), iid, result);
}

VLTCOMObjectRef::Object VLTCOMObjectRef::NewRef() const { return _AddRef(object.load()); }

UInt32 VLTCOMObjectRef::AdjustRefCount(int delta) {
  const Object held = object.load();
  UInt32 count = 0;
  if (held == nullptr) return count;
  for (; delta > 0; delta--) count = (*held)->AddRef(held);
  for (; delta < 0; delta++) count = (*held)->Release(held);
  return count;
}

// On an object.

void* VLTCOMObjectRef::_QueryInterface(Object object, CFUUIDBytes iid, SInt32* result) {
  SInt32 err = E_INVALIDARG;
  void* interface = nullptr;
  if (object != nullptr) {
    err = (*object)->QueryInterface(object, iid, &interface);
    interface = QueryInterfaceResult(object, err, interface);
  }
  if (result != nullptr) *result = err;
  return interface;
}

void* VLTCOMObjectRef::QueryInterfaceResult(Object, SInt32 result, void* interface) {
  return FAILED(result) ? nullptr : interface;
}

VLTCOMObjectRef::Object VLTCOMObjectRef::_AddRef(Object object) {
  return object == nullptr ? nullptr : NewRefResult(object, (*object)->AddRef(object));
}

VLTCOMObjectRef::Object VLTCOMObjectRef::NewRefResult(Object object, UInt32) { return object; }

VLTCOMObjectRef::Object VLTCOMObjectRef::_Release(Object object) {
  return object == nullptr ? nullptr : ReleaseResult(object, (*object)->Release(object));
}

VLTCOMObjectRef::Object VLTCOMObjectRef::ReleaseResult(Object, UInt32) { return nullptr; }

// On a slot.

VLTCOMObjectRef::Object VLTCOMObjectRef::_SwapObjectPtr(Object* slot, Object object) {
  if (slot == nullptr) return object;
  // As wide as a pointer, which the platform's own compare-and-swap is not on every host.
  std::atomic_ref<Object> place(*slot);
  Object old = place.load();
  while (!place.compare_exchange_weak(old, object)) {
  }
  return old;
}

VLTCOMObjectRef::Object VLTCOMObjectRef::_SwapObjectPtrNewRef(Object* slot, Object object) {
  if (slot == nullptr) return object;
  return _SwapObjectPtr(slot, _AddRef(object));
}

VLTCOMObjectRef::Object VLTCOMObjectRef::_SetObjectPtr(Object* slot, Object object) {
  if (slot == nullptr) return object;
  _Release(_SwapObjectPtr(slot, object));
  return object;
}

VLTCOMObjectRef::Object VLTCOMObjectRef::_SetObjectPtrNewRef(Object* slot, Object object) {
  if (slot == nullptr) return object;
  return _SetObjectPtr(slot, _AddRef(object));
}
