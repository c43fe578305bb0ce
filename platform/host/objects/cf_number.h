#pragma once

#include <CoreFoundation/CFNumber.h>

#include "platform/host/objects/cf_object.h"

// The number object. Immutable; any thread.
struct __CFNumber final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeNumber;

  // How the value is stored: the canonical types, and one that only property lists need.
  enum class Form : UInt8 {
    kSInt8 = kCFNumberSInt8Type,
    kSInt16 = kCFNumberSInt16Type,
    kSInt32 = kCFNumberSInt32Type,
    kSInt64 = kCFNumberSInt64Type,
    kFloat32 = kCFNumberFloat32Type,
    kFloat64 = kCFNumberFloat64Type,
    // 2^63 to 2^64 - 1. Its documented type is SInt64, to which it never converts exactly.
    kUInt64,
  };

  // Return a new object, or null without memory. The block is from `pool` unless that is null.
  static __CFNumber* CreateSInt64(SInt64 value, HostObjectPool* pool = nullptr) {
    return Make(Form::kSInt64, {.integer = value}, pool);
  }
  // Stores an SInt64 if the value fits.
  static __CFNumber* CreateUInt64(UInt64 value, HostObjectPool* pool = nullptr);
  static __CFNumber* CreateFloat32(float value) { return Make(Form::kFloat32, {.real32 = value}); }
  static __CFNumber* CreateFloat64(double value, HostObjectPool* pool = nullptr) {
    return Make(Form::kFloat64, {.real64 = value}, pool);
  }
  // Accepts every documented type and returns null for any other. `value` need not be aligned.
  static __CFNumber* Create(CFNumberType type, const void* value);

  Form StoredForm() const { return form; }
  bool IsFloat() const { return form == Form::kFloat32 || form == Form::kFloat64; }
  bool IsUnsigned() const { return form == Form::kUInt64; }
  SInt64 Integer() const { return value.integer; }      // of the signed forms
  UInt64 Unsigned() const { return value.unsigned64; }  // of kUInt64
  double Real() const {                                 // of the float forms
    return form == Form::kFloat32 ? static_cast<double>(value.real32) : value.real64;
  }

  bool Equal(const HostCFObject& other) const override;
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override;

 private:
  union Value {
    SInt64 integer;
    UInt64 unsigned64;
    float real32;
    double real64;
  };

  __CFNumber(Form form, Value value) : HostCFObject(kClass), form(form), value(value) {}
  static __CFNumber* Make(Form form, Value value, HostObjectPool* pool = nullptr);
  void LastRelease() override { FreeBlock(); }

  const Form form;
  const Value value;
};
using HostCFNumber = __CFNumber;

// The Boolean values are two constant objects. Any thread.
struct __CFBoolean final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeBoolean;

  constexpr explicit __CFBoolean(bool is) : HostCFObject(kClass, Constant::kYes), is(is) {}

  CFHashCode Hash() const override { return is ? 1 : 0; }
  CFStringRef CopyDescription() const override;
  void LastRelease() override {}  // never called, because constants are not counted

  const bool is;
};
using HostCFBoolean = __CFBoolean;
