#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Owning references to counted objects. Each wrapper holds one reference or none. Assigning retains
// the new object before it releases the old one. One thread at a time for each wrapper; the counts
// of the objects are atomic.

// The three functions that do all retaining and releasing for a slot. They ignore a null `slot`.
//
// Clears the slot, then releases the object that it held. Returns `slot`.
const void** VLTCFReleaseReference(const void** slot);
// Retains `object` (which may be null), stores it, then releases the object that the slot held.
// Does nothing if the slot holds `object` already. Returns `slot`.
const void** VLTCFAssignReference(const void** slot, const void* object);
// Changes the retain count of the object in the slot. For delta >= 0, retains `delta` times and
// returns the object. For delta < 0, releases -delta times and returns null. If that is at least
// the retain count, releases all references, which destroys the object, and clears the slot. An
// empty slot gives null.
const void* VLTCFAdjustRetainCount(const void** slot, SInt32 delta);

// The reference of a wrapper. It is a base class before VLTCFTypeRef, so that it still exists when
// VLTCFTypeRef's destructor releases through the slot.
struct VLTCFReferenceField {
  const void* reference = nullptr;
};

// The base of all wrappers: the slot, which is the subclass's own reference field, and an option
// word that is stored for clients and not used here. An object of any class may be assigned; a
// subclass gives neutral results for one of a wrong class. One thread at a time.
class VLTCFTypeRef {
 public:
  VLTCFTypeRef(const void*& field, UInt32 optionWord) : slot(&field), options(optionWord) {}
  VLTCFTypeRef(const VLTCFTypeRef&) = delete;
  VLTCFTypeRef& operator=(const VLTCFTypeRef&) = delete;

  // Returns the type id of the class that this wrapper is made for.
  virtual CFTypeID _GetRefCFTypeID() const = 0;
  virtual ~VLTCFTypeRef() { VLTCFReleaseReference(slot); }

  // Hold `object` from now on and return it. Assign retains it, Assume takes over the caller's
  // reference.
  const void* Assign(const void* object, UInt32 optionWord);
  const void* Assume(const void* object, UInt32 optionWord);

  CFTypeRef GetCFTypeRef() const { return *slot; }  // borrowed

  bool Equals(const void* other) const;                        // empty equals null
  CFHashCode GetCFHashCode() const { return CFHash(*slot); }   // 0 when empty
  CFTypeID GetCFTypeID() const { return CFGetTypeID(*slot); }  // 0 when empty
  CFStringRef CopyCFTypeDescription() const;  // of the type id; the caller releases it
  CFStringRef CopyCFDescription() const;      // null when empty; the caller releases it
  CFAllocatorRef GetCFAllocator() const;      // the default one when empty

 protected:
  const void** const slot;
  UInt32 options;
};

// A string; empty until Assign or Assume. One thread at a time, as all wrappers here.
class VLTCFString : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  VLTCFString() : VLTCFTypeRef(reference, 0) {}

  CFTypeID _GetRefCFTypeID() const override { return CFStringGetTypeID(); }

  // Returns null if the wrapper is empty or the range does not lie inside the string. The caller
  // releases the result.
  CFStringRef CopySubstring(CFIndex start, CFIndex length, CFAllocatorRef allocator) const;

  // Store the text in `bufferSize` bytes, which include the length byte or the NUL. Return paramErr
  // if the wrapper is empty, or if the text does not fit or has no form in the encoding: then a
  // prefix is stored.
  OSStatus GetPascalString(unsigned char* buffer, CFIndex bufferSize,
                           CFStringEncoding encoding) const;
  OSStatus GetCString(char* buffer, CFIndex bufferSize, CFStringEncoding encoding) const;

 private:
  CFStringRef String() const { return static_cast<CFStringRef>(reference); }
};

// A mutable dictionary.
class VLTCFDictionary : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  // Takes over the caller's reference.
  VLTCFDictionary(CFMutableDictionaryRef taken, UInt32 optionWord);

  CFTypeID _GetRefCFTypeID() const override { return CFDictionaryGetTypeID(); }

  // Returns the dictionary to change, borrowed, or null if the wrapper is empty.
  CFMutableDictionaryRef PreflightModify();

  // Both do nothing if the wrapper is empty. AddValue does nothing if the key is present; SetValue
  // replaces its value.
  void AddValue(const void* key, const void* value);
  void SetValue(const void* key, const void* value);
};

// A new, empty mutable dictionary of counted objects.
class VLTCFTypeDictionary : public VLTCFDictionary {
 public:
  VLTCFTypeDictionary();
};

// The byte sizes of the number types, kCFNumberSInt8Type first.
extern const UInt32 gCFNumberSizes[kCFNumberMaxType];
// Their names, in the same order.
extern const char* const gCFNumberTypeNames[kCFNumberMaxType];

// A number.
class VLTCFNumber : private VLTCFReferenceField, public VLTCFTypeRef {
 public:
  // The wrapper is empty if the number cannot be created.
  VLTCFNumber(const void* value, CFNumberType type, UInt32 optionWord, CFAllocatorRef allocator);

  CFTypeID _GetRefCFTypeID() const override { return CFNumberGetTypeID(); }
  operator CFNumberRef() const { return static_cast<CFNumberRef>(reference); }  // borrowed

  // Returns `object` if it is a number or null. Any other object is RELEASED and null returned, so
  // the caller must own a reference to it.
  static CFNumberRef DynamicCast(const void* object);

  // Stores the value of `number` as `type` and returns 0 if the type carries it exactly. Returns
  // `nullResult` for a null number and paramErr for a type outside 1 to 13, and leaves `out`
  // unchanged. Meant: kCFNumberCFIndexType (14) is refused, because callers rely on it.
  //
  // If the type cannot carry the value, returns `lossyResult` and stores the default value, as many
  // bytes as the type has. Without a default value it stores a quiet NaN for kCFNumberFloatType and
  // kCFNumberDoubleType, and for all other types the value with only the top bit set: the smallest
  // integer of that width, or -0.0.
  static SInt32 CFNumberGetValue(CFNumberRef number, CFNumberType type, void* out,
                                 const void* defaultValue, SInt32 nullResult, SInt32 lossyResult);

  // As above without a default value; return errAECoercionFail if the value does not fit.
  SInt32 AsSInt8(SInt8& out, SInt32 nullResult) const;
  SInt32 AsSInt16(SInt16& out, SInt32 nullResult) const;
  SInt32 AsSInt32(SInt32& out, SInt32 nullResult) const;
  SInt32 AsSInt64(SInt64& out, SInt32 nullResult) const;

  // Return the value, what the rule above stores if it does not fit, or 0 for an empty wrapper.
  // Meant: AsSInt64 reads 8 bits into the most significant byte of its result, and AsCFIndex always
  // returns 0, because callers rely on both. Use the forms above instead.
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

// Numbers of one fixed type, made from a plain value.
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

// Looks up a number's type and size and prints nothing; a place for a breakpoint. Accepts any
// object.
void dprintCFNumberRef(const void* number);
