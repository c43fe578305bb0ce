#pragma once

#include <CoreFoundation/CFBase.h>

#include <sys/single_threaded.h>

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/host/base/object_pool.h"

// This room holds the counted objects: strings, numbers, data, dates, containers, URLs and streams.
//
// HostCFObject is the base of every counted object: an atomic reference count, the number of its
// class, and the virtual functions that CFEqual, CFHash, CFCopyDescription and the last CFRelease
// call.
//
// A class is written as the documented opaque struct, with a Host name beside it:
//
//   struct __CFThing final : HostCFObject {
//     static constexpr HostTypeID kClass = kHostTypeThing;
//     __CFThing() : HostCFObject(kClass) {}
//     void LastRelease() override { delete this; }
//     ...
//   };
//   using HostCFThing = __CFThing;
//
// so a pointer to the object *is* a CFThingRef, without a cast. HostCFObject must be the first
// base, because the address that is passed as CFTypeRef is the object's own. Objects are created
// with new and owned by their references. Counting is safe on any thread; the header of each class
// says which threads may call the rest.
//
// The base has no virtual destructor, so that a class without owning members is trivially
// destructible: its constant objects can then be constinit globals that are never destroyed.

// The class numbers. They are fixed, so that constant expressions can compare them. A table in
// cf_object.cpp has the names that CFCopyTypeIDDescription returns, in this order.
enum HostTypeID : CFTypeID {
  kHostTypeNone = 0,  // CFGetTypeID returns it for null
  kHostTypeAllocator,
  kHostTypeString,
  kHostTypeNumber,
  kHostTypeBoolean,
  kHostTypeData,
  kHostTypeDate,
  kHostTypeArray,
  kHostTypeDictionary,
  kHostTypeURL,
  kHostTypeUUID,
  kHostTypeReadStream,
  kHostTypeWriteStream,
  kHostTypeRunLoop,
  kHostTypeRunLoopMode,
  kHostTypeRunLoopSource,
  kHostTypeRunLoopTimer,
  kHostTypeMachPort,
  kHostTypeCount,
};

class HostCFObject {
 public:
  HostCFObject(const HostCFObject&) = delete;
  HostCFObject& operator=(const HostCFObject&) = delete;

  CFTypeID TypeID() const { return typeID; }

  void Retain() const {
    const UInt32 count = references.load(std::memory_order_relaxed);
    if (IsConstant(count)) return;
    if (__libc_single_threaded != 0) return references.store(count + 1, std::memory_order_relaxed);
    references.fetch_add(1, std::memory_order_relaxed);
  }

  // The last release destroys the object.
  void Release() const {
    UInt32 count = references.load(std::memory_order_relaxed);
    if (IsConstant(count)) return;
    if (__libc_single_threaded != 0) {  // one thread needs no locked instruction
      references.store(count - 1, std::memory_order_relaxed);
    } else {
      count = references.fetch_sub(1, std::memory_order_acq_rel);
    }
    if (count != 1) return;
    // Most objects need no indirect call.
    if (((kLeafTypes >> typeID) & 1) != 0) return const_cast<HostCFObject*>(this)->FreeBlock();
    const_cast<HostCFObject*>(this)->LastRelease();
  }

  // Retains unless the last reference has been released. For tables that do not own their objects:
  // call it under the lock that LastRelease takes to remove the object from the table.
  bool RetainUnlessDying() const;

  // 1 after creation, INT32_MAX for a constant object.
  CFIndex RetainCount() const;

  // `other` is another object of the same class. Compares addresses unless overridden.
  virtual bool Equal(const HostCFObject& other) const { return this == &other; }

  // Returns equal values for equal objects. Uses the address unless overridden.
  virtual CFHashCode Hash() const;

  // Returns a text for people, which the caller releases: class name and address unless overridden.
  virtual CFStringRef CopyDescription() const;

 protected:
  enum class Constant : bool { kNo, kYes };  // kYes: retaining and releasing have no effect

  constexpr explicit HostCFObject(HostTypeID type, Constant constant = Constant::kNo)
      : references(constant == Constant::kYes ? kConstantCount : 1),
        typeID(static_cast<UInt8>(type)) {}
  ~HostCFObject() = default;

  // Destroys the object; called when the count reaches 0. Classes that hold objects which may hold
  // others derive from HostContainer (cf_container.h), which destroys them without recursion.
  virtual void LastRelease() = 0;

  // Frees the object's block; the last step of LastRelease in a class that needs no destructor. The
  // block comes from the heap unless RememberBlock was called after creation.
  void FreeBlock() { HostObjectPool::GiveBack(this, blockOffset); }
  void RememberBlock(const HostObjectBlock& block) { blockOffset = block.offset; }

 private:
  // A count with the top bit set never changes. Constants have such a count, and an object that is
  // retained 2^31 times reaches it instead of overflowing.
  static constexpr UInt32 kConstantCount = 0xC0000000;

  static bool IsConstant(UInt32 count) { return (count >> 31) != 0; }

  // The classes whose LastRelease only frees the block.
  static constexpr UInt32 kLeafTypes =
      1u << kHostTypeString | 1u << kHostTypeNumber | 1u << kHostTypeDate;

  mutable std::atomic<UInt32> references;
  UInt16 blockOffset = 0;  // a HostObjectBlock's
  const UInt8 typeID;      // small, so that a class's own small fields share its word
};

// Returns the object if `ref` is one of class T, else null. Every documented function checks each
// of its arguments with it.
template <class T>
T* HostCast(CFTypeRef ref) {
  static_assert(std::is_base_of_v<HostCFObject, T>);
  const auto* object = static_cast<const HostCFObject*>(ref);
  if (object == nullptr || object->TypeID() != T::kClass) return nullptr;
  return const_cast<T*>(static_cast<const T*>(object));
}

// HostRetained owns one reference to an object of class T, or nothing. One thread at a time.
template <class T>
class HostRetained {
 public:
  HostRetained() = default;
  explicit HostRetained(T* taken) : object(taken) {}  // takes over the caller's reference
  HostRetained(const HostRetained& other) : HostRetained(Retaining(other.object)) {}
  HostRetained(HostRetained&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
  HostRetained& operator=(HostRetained other) noexcept {
    std::swap(object, other.object);
    return *this;
  }
  ~HostRetained() {
    if (object != nullptr) object->Release();
  }

  // Retains `borrowed`, which may be null.
  static HostRetained Retaining(T* borrowed) {
    if (borrowed != nullptr) borrowed->Retain();
    return HostRetained(borrowed);
  }

  T* Get() const { return object; }  // borrowed
  T* operator->() const { return object; }
  explicit operator bool() const { return object != nullptr; }

  // Hands the reference to the caller, who must release it.
  [[nodiscard]] T* Give() { return std::exchange(object, nullptr); }

 private:
  T* object = nullptr;
};
