#include "platform/host/plist/introspect.h"

#include "platform/host/plist/codec.h"

CFPropertyListRef HostReadPropertyList(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                       CFPropertyListFormat* format, HostPropertyListError* error) {
  return HostReadPlist(bytes, count, {mutability}, format, error);
}
