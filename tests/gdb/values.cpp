#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "aeport/params.h"

// Values of every kind for the test of the gdb printers, which stops at Stop and prints them.

CFStringRef gText;
CFStringRef gWideText;
CFNumberRef gReal;
CFMutableDictionaryRef gDictionary;
CFTypeRef gUntyped;
AEDesc gRecord;
AEDesc gEvent;
AEDesc gStale;
AEDesc gNull = {typeNull, nullptr};

[[gnu::noinline]] void Stop() { asm volatile(""); }

int main() {
  const UniChar wide[] = {'Z', 0x03B1};
  const SInt64 integer = -5;
  const double real = 1.5;
  const UInt8 bytes[] = {0x00, 0xFF};
  gText = CFStringCreateWithCString(nullptr, "quote \" and\nline", kCFStringEncodingMacRoman);
  gWideText = CFStringCreateWithCharacters(nullptr, wide, 2);
  gReal = CFNumberCreate(nullptr, kCFNumberDoubleType, &real);
  const CFNumberRef number = CFNumberCreate(nullptr, kCFNumberSInt64Type, &integer);
  const CFDataRef data = CFDataCreate(nullptr, bytes, sizeof bytes);
  const void* values[] = {number, kCFBooleanTrue, data};
  const CFArrayRef array = CFArrayCreate(nullptr, values, 3, &kCFTypeArrayCallBacks);
  gDictionary = CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                          &kCFTypeDictionaryValueCallBacks);
  CFDictionarySetValue(gDictionary, CFSTR("gone"), gText);
  CFDictionarySetValue(gDictionary, CFSTR("list"), array);
  CFDictionarySetValue(gDictionary, CFSTR("gain"), gReal);
  CFDictionaryRemoveValue(gDictionary, CFSTR("gone"));
  gUntyped = array;

  const SInt32 value = -1708;
  AECreateList(nullptr, 0, true, &gRecord);
  PutAELong(&gRecord, FourCC('e', 'r', 'r', 'n'), &value);
  PutAECString(&gRecord, FourCC('n', 'a', 'm', 'e'), "a text that is longer than sixteen bytes");
  PutAEDouble(&gRecord, FourCC('g', 'a', 'i', 'n'), &real);
  AEDesc address;
  const ProcessSerialNumber self = {0, kCurrentProcess};
  AECreateDesc(typeProcessSerialNumber, &self, sizeof self, &address);
  AECreateAppleEvent(FourCC('d', 'e', 'm', 'o'), FourCC('p', 'i', 'n', 'g'), &address, 1, 0,
                     &gEvent);
  AEPutParamDesc(&gEvent, FourCC('d', 'a', 't', 'a'), &gRecord);
  AECreateDesc(typeSInt32, &value, sizeof value, &gStale);
  AEDesc copy = gStale;
  AEDisposeDesc(&copy);
  Stop();
}
