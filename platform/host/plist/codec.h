#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <cstddef>

#include "platform/host/plist/error.h"

// Property lists in bytes: what stands behind the CFPropertyList functions. Readers and writers
// go through their input once and do not recurse; they keep no state, so any thread may use them.
//
// Limits. kHostPlistDepth containers within each other. A reader takes at most 8 times (binary: 16
// times) the size of its input, and 4 MiB, for all that it makes; what would need more is refused.
//
// What a reader returns is a tree: every container is in one place only, also when a binary file
// refers to it from several. Whatever a reader accepts can be written again, in both forms, but for
// text that XML cannot carry: a NUL, or half of a surrogate pair.

inline constexpr size_t kHostPlistDepth = 512;

// The form, from the first characters: binary by its magic, XML by a < that does not begin
// hexadecimal digits; all else is the text form.
CFPropertyListFormat HostRecognisePlist(const UInt8* bytes, size_t count);

// What a reader is to make.
struct HostPlistRequest {
  CFOptionFlags mutability = kCFPropertyListImmutable;
  // The objects of a large file share blocks of memory, so a value that is kept keeps others'
  // memory too. False costs time, for lists whose values are lent one by one.
  bool mayShareBlocks = true;
};

// Recognises the form. The list, which the caller releases, or null with `*error`. `*format` tells
// the form as far as it was recognised, also on failure.
CFPropertyListRef HostReadPlist(const UInt8* bytes, size_t count, const HostPlistRequest& request,
                                CFPropertyListFormat* format, HostPropertyListError* error);

// One form each; `count` bytes are the whole file.
CFPropertyListRef HostReadPlistXML(const UInt8* bytes, size_t count,
                                   const HostPlistRequest& request, HostPropertyListError* error);
CFPropertyListRef HostReadPlistBinary(const UInt8* bytes, size_t count,
                                      const HostPlistRequest& request,
                                      HostPropertyListError* error);
CFPropertyListRef HostReadPlistText(const UInt8* bytes, size_t count,
                                    const HostPlistRequest& request, HostPropertyListError* error);

// Where a writer's bytes go, piece by piece.
class HostPlistSink {
 public:
  // False when the bytes could not be taken: the writer gives up then.
  virtual bool Take(const UInt8* bytes, size_t count) = 0;

 protected:
  ~HostPlistSink() = default;
};

// Writes the whole list. False with `*error`: the object is not a property list, it nests too
// deeply (or contains itself), it has text or a date that the form cannot carry, there is no
// memory, or the sink refused. Some bytes may have been written then.
bool HostWritePlistXML(CFPropertyListRef list, HostPlistSink& sink, HostPropertyListError* error);
bool HostWritePlistBinary(CFPropertyListRef list, HostPlistSink& sink,
                          HostPropertyListError* error);
