#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Counted objects for the length of a statement or a block, so that a key or a value can be written
// as a C string, a code, a number or bytes and is released again in any case:
//
//   dictionary.setInteger("retries", 20);
//
// Each owns one reference, or holds null when its object could not be made (the dictionaries pass
// null on, and their storage refuses it). One thread; never copied, passed on only as the temporary
// that was just made.

// Called before every release that these classes and VLTDictionary make: for a debugger to stop at,
// or a build that counts. `where` names the destructor, `delta` is the change of the count.
void LogRefCount(const void* object, const char* where, int delta);

// Objects that the caller releases; null when they cannot be made. `bytes` are copied.
CFNumberRef NumToNumRef(CFNumberType type, const void* value);
CFDataRef DataToDataRef(const UInt8* bytes, CFIndex count);

class StackCFString {
 public:
  StackCFString() = default;
  StackCFString(CFStringRef string);  // adds a reference of its own
  StackCFString(const char* text);    // Mac Roman
  StackCFString(OSType code);  // its text: 'SmoN' in single quotes is a key of six characters
  StackCFString(const StackCFString&) = delete;
  StackCFString& operator=(const StackCFString&) = delete;
  virtual ~StackCFString();

  // Borrowed. The second is the place of the reference, for calls that take a key by reference.
  operator CFTypeRef() const { return string; }
  operator CFStringRef&() { return string; }

 protected:
  CFStringRef string = nullptr;
};

class StackCFPascalString : public StackCFString {
 public:
  explicit StackCFPascalString(ConstStr255Param text);  // Mac Roman, length byte first
};

class StackCFNumber {
 public:
  StackCFNumber(CFNumberType type, const void* value);
  StackCFNumber(const StackCFNumber&) = delete;
  StackCFNumber& operator=(const StackCFNumber&) = delete;
  virtual ~StackCFNumber();

  operator CFTypeRef() const { return number; }  // borrowed

 private:
  CFNumberRef number;
};

class StackCFData {
 public:
  StackCFData(const UInt8* bytes, CFIndex count);  // copies
  StackCFData(const StackCFData&) = delete;
  StackCFData& operator=(const StackCFData&) = delete;
  virtual ~StackCFData();

  operator CFTypeRef() const { return data; }  // borrowed

 private:
  CFDataRef data;
};
