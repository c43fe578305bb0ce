#pragma once

#include <atomic>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// VLTCOMObjectRef holds one reference to a plug-in interface object, or none, and lets several
// threads replace, copy and query it. Any thread may use one; its destructor belongs to the last.
// The object is a pointer to the pointer to its table. Counts are changed with no lock held, except
// where CopyFrom says otherwise. Reading the object (NewRef, QueryInterface, AdjustRefCount) does
// not take the lock: a caller that races them against the last release keeps a reference of its
// own meanwhile.
//
// Flags: bit 0, in what a setter is given: the caller hands its own reference over, none is added;
// in the stored word: the access lock. Bit 1: the reference held is borrowed and never released.
// The others are the caller's, stored and returned as they are.
class VLTCOMObjectRef {
 public:
  using Object = IUnknownVTbl**;

  VLTCOMObjectRef() = default;
  VLTCOMObjectRef(const VLTCOMObjectRef&) = delete;
  VLTCOMObjectRef& operator=(const VLTCOMObjectRef&) = delete;
  virtual ~VLTCOMObjectRef();

  // Takes the access lock, spinning as long as it must (`timeout` is not used; not recursive), and
  // returns the flags from before.
  virtual UInt32 BeginAccessGetFlags(SInt32 timeout);
  static bool GotAccess(UInt32 flags) { return (flags & 1) == 0; }
  // Stores `flags` without bit 0, which gives the lock back.
  virtual void EndAccessSetFlags(UInt32 flags);

  // The interface `iid` of what is held, as _QueryInterface.
  virtual void* QueryInterface(CFUUIDBytes iid, SInt32* result);
  // What is held, with a reference for the caller to release. Null when empty.
  virtual Object NewRef() const;

  // Holds `object` from now on and releases what was held. Adds a reference unless bit 0 of `flags`
  // is set; with bit 1 alone that one is never given back. Returns `object`.
  Object SetObjectPtr(Object object, UInt32 flags);
  // The same, but the old object, with its reference, is the caller's. `previousFlags` may be null.
  Object SwapObjectPtr(Object object, UInt32 flags, UInt32* previousFlags);
  Object Release() { return SetObjectPtr(nullptr, 0); }

  // Holds what a query gave: `interface` if `result` is not negative, else nothing. Returns
  // `result`, or E_NOINTERFACE for success without an interface. An interface that comes with a
  // negative result is not released.
  SInt32 SetToQueryInterfaceResult(SInt32 result, void* interface, CFUUIDBytes iid, UInt32 flags);

  // Adds a reference to the other's object and takes its flags without bit 1, but keeps the old
  // pointer, which it releases when the other's flags lack bit 1. Beware: meant so, although this
  // object may be left pointing to something that is gone, and the other's object with a reference
  // too many. Prefer SetObjectPtr(other.NewRef(), 1).
  void CopyFrom(const VLTCOMObjectRef& other);

  // Adds (or, negative, takes away) so many references of what is held. The last count reported; 0
  // when there was nothing to do.
  UInt32 AdjustRefCount(int delta);

  // On an object; null is no object. `result` may be null.

  // The interface, with a reference for the caller, or null; `*result` the object's answer, or
  // E_INVALIDARG without an object.
  static void* _QueryInterface(Object object, CFUUIDBytes iid, SInt32* result);
  static Object _AddRef(Object object);   // `object`
  static Object _Release(Object object);  // null

  // On a pointer slot that several threads may change. Without a slot they do nothing and return
  // `object`.
  static Object _SwapObjectPtr(Object* slot, Object object);        // the old one, the caller's now
  static Object _SwapObjectPtrNewRef(Object* slot, Object object);  // and adds a reference
  static Object _SetObjectPtr(Object* slot, Object object);        // `object`; releases the old one
  static Object _SetObjectPtrNewRef(Object* slot, Object object);  // and adds a reference

 protected:
  static void* QueryInterfaceResult(Object object, SInt32 result, void* interface);
  static Object NewRefResult(Object object, UInt32 count);
  static Object ReleaseResult(Object object, UInt32 count);

  std::atomic<Object> object{nullptr};
  mutable std::atomic<UInt32> flags{0};
};
