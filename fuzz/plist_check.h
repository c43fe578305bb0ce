#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/host/plist/binary_read.h"
#include "platform/host/plist/binary_write.h"
#include "platform/host/plist/xml_read.h"
#include "platform/host/plist/xml_write.h"

// The check that the fuzz targets of the property-list readers share: a list that was accepted once
// must survive both written forms and stay the same from then on.

inline void RequireThat(bool condition) {
  if (!condition) abort();
}

class FuzzSink final : public HostPlistSink {
 public:
  bool Take(const UInt8* bytes, size_t count) override {
    text.append(reinterpret_cast<const char*>(bytes), count);
    return true;
  }
  const UInt8* Bytes() const { return reinterpret_cast<const UInt8*>(text.data()); }

  std::string text;
};

using FuzzReader = CFPropertyListRef (*)(const UInt8*, size_t, const HostPlistRequest&,
                                         HostPropertyListError*);

// Compares the lists in one written form, because XML has no fractions of seconds.
inline void CheckAgain(const FuzzSink& written, FuzzReader read,
                       bool (*write)(CFPropertyListRef, HostPlistSink&, HostPropertyListError*)) {
  HostPropertyListError error;
  CFPropertyListRef again = read(written.Bytes(), written.text.size(), {}, &error);
  FuzzSink sink;
  RequireThat(again != nullptr && write(again, sink, &error) && sink.text == written.text);
  CFRelease(again);
}

// Reads with `read`, writes, and reads again. Returns true if the bytes were accepted. A refusal
// has to give a reason and an offset within the bytes.
inline bool CheckList(const uint8_t* data, size_t size, FuzzReader read) {
  HostPropertyListError error;
  CFPropertyListRef list =
      read(data, size, {.mutability = kCFPropertyListMutableContainers}, &error);
  if (list == nullptr) {
    RequireThat(!error.text.empty() && error.offset <= size + size / 2);
    return false;
  }
  // The other forms can contain text that XML cannot.
  FuzzSink xml;
  const bool asXML = HostWritePlistXML(list, xml, &error);
  RequireThat(asXML || read != HostReadPlistXML);
  if (asXML) {
    CheckAgain(xml, HostReadPlistXML, HostWritePlistXML);
    RequireThat(HostRecognisePlist(xml.Bytes(), xml.text.size()) == kCFPropertyListXMLFormat_v1_0);
  }
  FuzzSink binary;
  RequireThat(HostWritePlistBinary(list, binary, &error));
  CheckAgain(binary, HostReadPlistBinary, HostWritePlistBinary);
  CFPropertyListRef copy = CFPropertyListCreateDeepCopy(nullptr, list, kCFPropertyListImmutable);
  RequireThat(copy != nullptr && CFEqual(list, copy) && CFHash(list) == CFHash(copy));
  CFRelease(copy);
  CFRelease(list);
  return true;
}
