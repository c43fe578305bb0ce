#pragma once

#include <CoreFoundation/CFString.h>

#include <atomic>
#include <cstddef>
#include <cstring>

#include "platform/host/base/text_codec.h"
#include "platform/host/objects/cf_object.h"

// The string object. Its code units are stored in one byte each if all are below U+0100, else in
// two bytes each, so equal strings have the same form. The units of a created string stand at the
// end of the object in the same block, with a NUL after them. The hash is computed when it is first
// needed, and kept. Immutable; any thread.
//
// A constant string is a global made from an ASCII literal at compile time:
//
//   constinit HostCFString gDefaultMode{"kCFRunLoopDefaultMode"};
//   constinit const CFStringRef kCFRunLoopDefaultMode = &gDefaultMode;
struct __CFString final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeString;

  template <size_t N>
  constexpr explicit __CFString(const char (&literal)[N])
      : HostCFObject(kClass, Constant::kYes),
        isASCII(true),
        isWide(false),
        isLiteral(true),
        length(N - 1),
        literalText(literal) {
    for (char c : literal) {
      if (static_cast<signed char>(c) < 0) throw "a constant string must be ASCII";
    }
  }

  // Returns a new object with a copy of the units, or null without memory or for more than
  // INT32_MAX units.
  static __CFString* Create(HostTextView text);
  // Returns null also if the bytes are not well formed.
  static __CFString* Create(CFStringEncoding encoding, const UInt8* bytes, size_t count,
                            bool external);
  // For bytes that are known to be ASCII. The block is from `pool` unless it is null. `hash` is the
  // result of HostHashBytes for the bytes, or 0.
  static __CFString* CreateASCII(const UInt8* bytes, size_t count, HostObjectPool* pool = nullptr,
                                 UInt32 hash = 0);
  // For bytes that may be ASCII, after which eight more bytes must be readable. Clears `*isASCII`
  // and returns null if they are not ASCII.
  static __CFString* CreateIfASCII(const UInt8* bytes, size_t count, HostObjectPool* pool,
                                   bool* isASCII);
  // From Mac Roman text. The object is never destroyed.
  static __CFString* CreateConstant(const char* text);

  size_t Length() const { return length; }
  HostTextView Text() const;
  // Returns the bytes, NUL-terminated, if all are ASCII; else null.
  const char* ASCII() const { return isASCII ? reinterpret_cast<const char*>(Narrow()) : nullptr; }
  // Returns the bytes, NUL-terminated, if all units are below U+0100 (ISO Latin-1); else null.
  const UInt8* Latin1() const { return isWide ? nullptr : Narrow(); }

  bool Equal(const HostCFObject& other) const override {
    return HasTextOf(static_cast<const __CFString&>(other));
  }
  bool HasTextOf(const __CFString& other) const {
    return length == other.length && isWide == other.isWide &&
           std::memcmp(Units(), other.Units(), isWide ? length * sizeof(UniChar) : length) == 0;
  }
  CFHashCode Hash() const override { return TextHash(); }
  UInt32 TextHash() const {
    const UInt32 known = hash.load(std::memory_order_relaxed);
    return known != 0 ? known : WorkOutHash();
  }
  CFStringRef CopyDescription() const override;

 private:
  __CFString(bool ascii, bool wide, size_t units, Constant constant)
      : HostCFObject(kClass, constant),
        isASCII(ascii),
        isWide(wide),
        isLiteral(false),
        length(static_cast<UInt32>(units)),
        firstUnits{} {}

  static __CFString* Allocate(bool ascii, bool wide, size_t units, Constant constant,
                              HostObjectPool* pool = nullptr);
  static __CFString* Make(HostTextView text, Constant constant);
  void LastRelease() override;
  const void* Units() const {
    return isLiteral ? static_cast<const void*>(literalText) : static_cast<const void*>(firstUnits);
  }
  const UInt8* Narrow() const { return static_cast<const UInt8*>(Units()); }
  UInt32 WorkOutHash() const;

  const bool isASCII : 1;
  const bool isWide : 1;
  const bool isLiteral : 1;
  const UInt32 length;
  mutable std::atomic<UInt32> hash{0};  // 0: not yet computed
  union {
    const char* literalText;
    UInt8 firstUnits[sizeof(const char*)];  // the others follow in the same block
  };
};
using HostCFString = __CFString;

// Returns the text of `format` with its arguments, as CFStringCreateWithFormat documents it; the
// caller releases it. Defined in cf_string_format.cpp.
CFStringRef HostFormatString(const HostCFString& format, va_list arguments);
