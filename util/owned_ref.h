#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <utility>

// OwnedRef owns the reference that a Create or Copy call returned, or null. One scope or one object
// owns it; one thread at a time. Clients use the reference wrappers of plist/type_ref.h instead.
template <class Ref>
class OwnedRef {
 public:
  OwnedRef(Ref taken = nullptr) : ref(taken) {}  // takes over the caller's reference
  OwnedRef(OwnedRef&& other) noexcept : ref(std::exchange(other.ref, nullptr)) {}
  OwnedRef& operator=(OwnedRef&& other) noexcept {
    std::swap(ref, other.ref);
    return *this;
  }
  ~OwnedRef() { CFRelease(ref); }

  operator Ref() const { return ref; }  // borrowed

 private:
  Ref ref;
};
