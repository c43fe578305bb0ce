#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Owning references to counted objects. Each wrapper holds one reference, or nothing; assigning
// retains the new object before it releases the old one. One thread at a time, as the objects; the
// counts themselves are atomic.

// The three steps that all retaining and releasing of a slot goes through. A null slot is ignored.
//
// Clears the slot, then releases what it held. Returns `slot`.
const void** VLTCFReleaseReference(const void** slot);
// Retains `object` (may be null), stores it, then releases what the slot held; nothing at all when
// the slot holds it already. Returns `slot`.
const void** VLTCFAssignReference(const void** slot, const void* object);
// Changes the count of what the slot holds. delta >= 0: retains so many times, returns the object.
// delta < 0: releases so many times, at most as often as there are references, in which case the
// object dies and the slot is cleared; returns null. Null also for an empty slot.
const void* VLTCFAdjustRetainCount(const void** slot, SInt32 delta);

// The reference of a wrapper. A base of its own, before VLTCFTypeRef, so that it is still there
// when VLTCFTypeRef's destructor releases through the slot.
struct VLTCFReferenceField {
  const void* reference = nullptr;
};

// What the wrappers share: the slot, which is the subclass's own reference field, and an option
// word that is kept for clients and means nothing here. An object of any class may be put in; what
// a subclass does with one of a wrong class has a neutral result.
class VLTCFTypeRef {
 public:
  VLTCFTypeRef(const void*& field, UInt32 optionWord) : slot(&field), options(optionWord) {}
  VLTCFTypeRef(const VLTCFTypeRef&) = delete;
  VLTCFTypeRef& operator=(const VLTCFTypeRef&) = delete;

  // The type id of the class that this wrapper is for.
  virtual CFTypeID _GetRefCFTypeID() const = 0;
  virtual ~VLTCFTypeRef() { VLTCFReleaseReference(slot); }

  // Holds `object` from now on and returns it. Assign adds a reference of its own, Assume takes the
  // caller's over.
  const void* Assign(const void* object, UInt32 optionWord);
  const void* Assume(const void* object, UInt32 optionWord);

  CFTypeRef GetCFTypeRef() const { return *slot; }  // borrowed

  bool Equals(const void* other) const;                        // nothing equals nothing
  CFHashCode GetCFHashCode() const { return CFHash(*slot); }   // 0 when empty
  CFTypeID GetCFTypeID() const { return CFGetTypeID(*slot); }  // 0 when empty
  CFStringRef CopyCFTypeDescription() const;  // of the type id; the caller releases it
  CFStringRef CopyCFDescription() const;      // null when empty; the caller releases it
  CFAllocatorRef GetCFAllocator() const;      // the default one when empty

 protected:
  const void** const slot;
  UInt32 options;
};

// Empty at first: Assign or Assume.
class VLTCFString : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  VLTCFString() : VLTCFTypeRef(reference, 0) {}

  CFTypeID _GetRefCFTypeID() const override { return CFStringGetTypeID(); }

  // Null when empty, or when the range does not lie inside; the caller releases it.
  CFStringRef CopySubstring(CFIndex start, CFIndex length, CFAllocatorRef allocator) const;

  // Into `bufferSize` bytes, the length byte or the terminator included. paramErr when empty, or
  // when the text does not fit or cannot be represented: then a prefix is stored.
  OSStatus GetPascalString(unsigned char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) const;
  OSStatus GetCString(char* buffer, CFIndex bufferSize, CFStringEncoding encoding) const;

 private:
  CFStringRef String() const { return static_cast<CFStringRef>(reference); }
};

class VLTCFDictionary : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  // Takes the caller's reference over.
  VLTCFDictionary(CFMutableDictionaryRef taken, UInt32 optionWord);

  CFTypeID _GetRefCFTypeID() const override { return CFDictionaryGetTypeID(); }

  // The dictionary that a change is made in, borrowed; null when empty.
  CFMutableDictionaryRef PreflightModify();

  // Both do nothing when empty. AddValue also when the key is there already; SetValue replaces.
  void AddValue(const void* key, const void* value);
  void SetValue(const void* key, const void* value);
};

// A new, empty mutable dictionary of counted objects.
class VLTCFTypeDictionary : public VLTCFDictionary {
 public:
  VLTCFTypeDictionary();
};

// Bytes of the number types, kCFNumberSInt8Type first.
extern const UInt32 gCFNumberSizes[kCFNumberMaxType];
// Their names, in the same order.
extern const char* const gCFNumberTypeNames[kCFNumberMaxType];

class VLTCFNumber : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  // Empty when the number cannot be made.
  VLTCFNumber(const void* value, CFNumberType type, UInt32 optionWord, CFAllocatorRef allocator);

  CFTypeID _GetRefCFTypeID() const override { return CFNumberGetTypeID(); }
  operator CFNumberRef() const { return static_cast<CFNumberRef>(reference); }  // borrowed

  // `object` if it is a number, else null: then the caller's reference to it is RELEASED, so hand
  // over only what is owned.
  static CFNumberRef DynamicCast(const void* object);

  // Stores the value of `number` as `type`.
  //
  // Result  0 when it is carried exactly; `nullResult` for a null number, and paramErr for a type
  //         outside 1 to 13, kCFNumberCFIndexType too: both with `out` untouched. Else
  //         `lossyResult`, and `out` is the default value (as many bytes as the type has), or
  //         without one the value that stands for "none": the quiet NaN for float and double (not
  //         for their two fixed-width kin), else the value with only the top bit set, i.e. the
  //         smallest integer of that width or -0.0.
  static SInt32 CFNumberGetValue(CFNumberRef number, CFNumberType type, void* out,
                                 const void* defaultValue, SInt32 nullResult, SInt32 lossyResult);

  // As above without a default; errAECoercionFail when the value does not fit.
  SInt32 AsSInt8(SInt8& out, SInt32 nullResult) const;
  SInt32 AsSInt16(SInt16& out, SInt32 nullResult) const;
  SInt32 AsSInt32(SInt32& out, SInt32 nullResult) const;
  SInt32 AsSInt64(SInt64& out, SInt32 nullResult) const;

  // The value, the one for "none" when it does not fit, and 0 when empty. Two of them are of no use
  // but are relied on as they are: AsSInt64 reads 8 bits into the most significant byte of its
  // result, AsCFIndex is always 0. Use the forms above instead.
  SInt8 AsSInt8() const;
  SInt16 AsSInt16() const;
  SInt32 AsSInt32() const;
  SInt64 AsSInt64() const;
  float AsFloat32() const;
  double AsFloat64() const;
  CFIndex AsCFIndex() const;

 private:
  template <class T>
  T ValueAs(CFNumberType type) const;
  template <class T>
  SInt32 ResultAs(CFNumberType type, T& out, SInt32 nullResult) const;
};

// Numbers of one fixed type, made of a plain value.
template <class T, CFNumberType type>
class VLTCFFixedNumber : public VLTCFNumber {
 public:
  explicit VLTCFFixedNumber(const T& value) : VLTCFNumber(&value, type, 0, kCFAllocatorDefault) {}
};
using VLTCFSInt8 = VLTCFFixedNumber<SInt8, kCFNumberSInt8Type>;
using VLTCFSInt16 = VLTCFFixedNumber<SInt16, kCFNumberSInt16Type>;
using VLTCFSInt32 = VLTCFFixedNumber<SInt32, kCFNumberSInt32Type>;
using VLTCFSInt64 = VLTCFFixedNumber<SInt64, kCFNumberSInt64Type>;
using VLTCFFloat32 = VLTCFFixedNumber<float, kCFNumberFloat32Type>;
using VLTCFFloat64 = VLTCFFixedNumber<double, kCFNumberFloat64Type>;

// For a debugger: looks the number's type and size up and prints nothing. Safe with any object.
void dprintCFNumberRef(const void* number);
