#pragma once

#include <atomic>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// VLTCOMObjectRef holds at most one reference to a plug-in interface object and lets several
// threads replace, copy and query it. Any thread may use it; it must be destroyed when no other
// thread uses it any more. An object is a pointer to the pointer to its interface table.
//
// The functions of an object are called with no lock held, except in CopyFrom. NewRef,
// QueryInterface and AdjustRefCount read the object without the access lock. A caller that may race
// them against the last release must own a reference of its own meanwhile.
//
// Flags. Bit 0, when passed to a setter: the caller hands over its own reference, and none is
// added. Bit 0 of the stored word: the access lock. Bit 1: the held reference is borrowed and never
// released. The other bits belong to the caller; they are stored and returned unchanged.
class VLTCOMObjectRef {
 public:
  using Object = IUnknownVTbl**;

  VLTCOMObjectRef() = default;
  VLTCOMObjectRef(const VLTCOMObjectRef&) = delete;
  VLTCOMObjectRef& operator=(const VLTCOMObjectRef&) = delete;
  virtual ~VLTCOMObjectRef();

  // Takes the access lock and returns the flags from before. Spins for as long as another thread
  // has the lock; `timeout` is not used. Not recursive.
  virtual UInt32 BeginAccessGetFlags(SInt32 timeout);
  static bool GotAccess(UInt32 flags) { return (flags & 1) == 0; }
  // Stores `flags` without bit 0, which releases the access lock.
  virtual void EndAccessSetFlags(UInt32 flags);

  // Queries the held object for the interface `iid`, as _QueryInterface does.
  virtual void* QueryInterface(CFUUIDBytes iid, SInt32* result);
  // Returns the held object with a reference that the caller releases, or null if there is none.
  virtual Object NewRef() const;

  // Replaces the held object by `object` and releases the old one. Adds a reference unless bit 0 of
  // `flags` is set. Returns `object`. Meant: with bit 1 and without bit 0 the added reference is
  // never released, because callers that borrow an object this way rely on it living on.
  Object SetObjectPtr(Object object, UInt32 flags);
  // The same, but returns the old object, whose reference now belongs to the caller.
  // `previousFlags` may be null.
  Object SwapObjectPtr(Object object, UInt32 flags, UInt32* previousFlags);
  Object Release() { return SetObjectPtr(nullptr, 0); }

  // Stores the outcome of a query: `interface` if `result` is not negative, else null. Returns
  // `result`, or E_NOINTERFACE if `result` reports success and `interface` is null. An interface
  // that comes with a negative result is not released.
  SInt32 SetToQueryInterfaceResult(SInt32 result, void* interface, CFUUIDBytes iid, UInt32 flags);

  // Unsafe; prefer SetObjectPtr(other.NewRef(), 1). Adds a reference to the other's held object and
  // copies the other's flags without bit 1. Keeps this object's own pointer, and releases that one
  // unless the other's flags have bit 1. Afterwards this pointer may lead to a destroyed object,
  // and the other's object has a reference too many. Meant: it stays so, because callers rely on
  // the counts.
  void CopyFrom(const VLTCOMObjectRef& other);

  // Adds `delta` references to the held object or, if negative, releases as many. Returns the count
  // that the object reported last, or 0 if there was nothing to do.
  UInt32 AdjustRefCount(int delta);

  // For an object, which may be null; `result` may be null, too.

  // Returns the interface with a reference that the caller releases, or null. Stores the object's
  // result, or E_INVALIDARG if `object` is null.
  static void* _QueryInterface(Object object, CFUUIDBytes iid, SInt32* result);
  static Object _AddRef(Object object);   // returns `object`
  static Object _Release(Object object);  // returns null

  // For a pointer slot that several threads may change. If `slot` is null they do nothing and
  // return `object`. Swapping returns the old object, whose reference then belongs to the caller.
  // Setting releases the old object and returns `object`. The forms with NewRef add a reference to
  // `object`.
  static Object _SwapObjectPtr(Object* slot, Object object);
  static Object _SwapObjectPtrNewRef(Object* slot, Object object);
  static Object _SetObjectPtr(Object* slot, Object object);
  static Object _SetObjectPtrNewRef(Object* slot, Object object);

 protected:
  static void* QueryInterfaceResult(Object object, SInt32 result, void* interface);
  static Object NewRefResult(Object object, UInt32 count);
  static Object ReleaseResult(Object object, UInt32 count);

  std::atomic<Object> object{nullptr};
  mutable std::atomic<UInt32> flags{0};
};
