#pragma once

#include <CoreFoundation/CFBase.h>

#include <sys/single_threaded.h>

#include <atomic>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/host/base/object_pool.h"

// HostCFObject is what every counted object begins with: an atomic reference count, the number of
// its class, and the few slots behind CFEqual, CFHash, CFCopyDescription and the last CFRelease.
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
// so a pointer to the object *is* a CFThingRef, without a cast. HostCFObject is the first base: the
// pointer that travels as CFTypeRef is the object's own address. Objects are made with new and
// owned by their references; counting is safe on any thread, all else is the class's own matter.
//
// The base has no virtual destructor on purpose: a class without owning members is then trivially
// destructible, so its constant objects can be constinit globals that nothing ever destroys.

// The class numbers. Fixed, so that they can be compared in constant expressions; the names that
// CFCopyTypeIDDescription gives stand in one table in cf_object.cpp, in this order.
enum HostTypeID : CFTypeID {
  kHostTypeNone = 0,  // what CFGetTypeID gives for null
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

  // The last release calls LastRelease; the object is gone then.
  void Release() const {
    UInt32 count = references.load(std::memory_order_relaxed);
    if (IsConstant(count)) return;
    if (__libc_single_threaded != 0) {  // as the C library tells: spares the locked instruction
      references.store(count - 1, std::memory_order_relaxed);
    } else {
      count = references.fetch_sub(1, std::memory_order_acq_rel);
    }
    if (count != 1) return;
    // Spares most objects the indirect call.
    if (((kLeafTypes >> typeID) & 1) != 0) return const_cast<HostCFObject*>(this)->FreeBlock();
    const_cast<HostCFObject*>(this)->LastRelease();
  }

  // Retains unless the last reference has been dropped already. For tables that know an object
  // without owning it: call under the lock that LastRelease takes to leave the table.
  bool RetainUnlessDying() const;

  // 1 after creation, INT32_MAX for a constant object.
  CFIndex RetainCount() const;

  // `other` is another object of the same class. Identity unless overridden.
  virtual bool Equal(const HostCFObject& other) const { return this == &other; }

  // Equal objects give equal values. The address unless overridden.
  virtual CFHashCode Hash() const;

  // A text for people; the caller releases it. Class name and address unless overridden.
  virtual CFStringRef CopyDescription() const;

 protected:
  enum class Constant : bool { kNo, kYes };  // kYes: retaining and releasing have no effect

  constexpr explicit HostCFObject(HostTypeID type, Constant constant = Constant::kNo)
      : references(constant == Constant::kYes ? kConstantCount : 1),
        typeID(static_cast<UInt8>(type)) {}
  ~HostCFObject() = default;

  // The count has reached 0: destroys the object. What holds objects that may hold others, to any
  // depth, derives from HostContainer (cf_container.h), which does it without recursion.
  virtual void LastRelease() = 0;

  // What LastRelease ends with in a class that needs no destructor: the block goes back to where it
  // came from, the heap unless RememberBlock was told something else when the object was made.
  void FreeBlock() { HostObjectPool::GiveBack(this, blockPlace); }
  void RememberBlock(const HostObjectBlock& block) { blockPlace = block.place; }

 private:
  // A count with the top bit set never changes. Constants begin there, and an object that was
  // retained two thousand million times ends there instead of wrapping round to 0.
  static constexpr UInt32 kConstantCount = 0xC0000000;

  static bool IsConstant(UInt32 count) { return (count >> 31) != 0; }

  // Whose LastRelease does nothing but free the block.
  static constexpr UInt32 kLeafTypes =
      1u << kHostTypeString | 1u << kHostTypeNumber | 1u << kHostTypeDate;

  mutable std::atomic<UInt32> references;
  UInt16 blockPlace = 0;  // a HostObjectBlock's
  const UInt8 typeID;     // small, so that a class's own small fields share its word
};

// The object that `ref` denotes if it is one of class T, else null: for null and for every other
// class. What a documented function does first with each of its arguments.
template <class T>
T* HostCast(CFTypeRef ref) {
  static_assert(std::is_base_of_v<HostCFObject, T>);
  const auto* object = static_cast<const HostCFObject*>(ref);
  if (object == nullptr || object->TypeID() != T::kClass) return nullptr;
  return const_cast<T*>(static_cast<const T*>(object));
}

// HostRetained owns one reference to an object of class T, or nothing. One scope or one object
// owns it; not for sharing between threads.
template <class T>
class HostRetained {
 public:
  HostRetained() = default;
  explicit HostRetained(T* taken) : object(taken) {}  // takes the caller's reference over
  HostRetained(const HostRetained& other) : HostRetained(Retaining(other.object)) {}
  HostRetained(HostRetained&& other) noexcept : object(std::exchange(other.object, nullptr)) {}
  HostRetained& operator=(HostRetained other) noexcept {
    std::swap(object, other.object);
    return *this;
  }
  ~HostRetained() {
    if (object != nullptr) object->Release();
  }

  // Adds a reference of its own; null stays null.
  static HostRetained Retaining(T* borrowed) {
    if (borrowed != nullptr) borrowed->Retain();
    return HostRetained(borrowed);
  }

  T* Get() const { return object; }  // borrowed
  T* operator->() const { return object; }
  explicit operator bool() const { return object != nullptr; }

  // Gives the reference up; the caller must now release it.
  [[nodiscard]] T* Give() { return std::exchange(object, nullptr); }

 private:
  T* object = nullptr;
};
