#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

// Counted objects that live for one statement or block, so that a key or a value can be written as
// a C string, a four-character code, a number or bytes and is always released:
//
//   dictionary.setInteger("retries", 20);
//
// Each owns one reference, or holds null if its object could not be created. One thread. They are
// never copied; a function receives one only as the temporary that was just made.

// Does nothing. Called before every release that these classes and VLTDictionary make, as a place
// for a breakpoint. `where` names the destructor, `delta` is the change of the count.
void LogRefCount(const void* object, const char* where, int delta);

// Return an object that the caller releases, or null if it cannot be created. `bytes` are copied.
CFNumberRef NumToNumRef(CFNumberType type, const void* value);
CFDataRef DataToDataRef(const UInt8* bytes, CFIndex count);

class StackCFString {
 public:
  StackCFString() = default;
  StackCFString(CFStringRef string);  // retains it; must not be null
  StackCFString(const char* text);    // Mac Roman
  StackCFString(OSType code);         // the code in single quotes: six characters
  StackCFString(const StackCFString&) = delete;
  StackCFString& operator=(const StackCFString&) = delete;
  virtual ~StackCFString();

  // Both are borrowed. The second is for calls that take a key by reference.
  operator CFTypeRef() const { return string; }
  operator CFStringRef&() { return string; }
  // There was a text, but no memory for the string. Null then does not mean "none".
  bool IsLost() const { return isLost; }

 protected:
  CFStringRef string = nullptr;
  bool isLost = false;
};

class StackCFPascalString : public StackCFString {
 public:
  explicit StackCFPascalString(ConstStr255Param text);  // Mac Roman after a length byte
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
