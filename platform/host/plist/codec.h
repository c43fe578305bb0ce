#pragma once

#include <CoreFoundation/CFPropertyList.h>

#include <cstddef>

#include "platform/host/plist/error.h"

// This room reads and writes property lists as bytes; the CFPropertyList functions call it. Readers
// and writers go through their input once, without recursion, and keep no state. Any thread.
//
// The readers and writers of one form each are in xml_read.h, binary_read.h, text_read.h,
// xml_write.h and binary_write.h; what they have in common is here.
//
// Limits: containers nest at most kHostPlistDepth deep. A reader uses at most 8 times the size of
// its input (binary: 16 times) and 4 MiB for all that it makes, and refuses what needs more.
//
// A reader returns a tree: every container is in one place only, even if a binary file refers to it
// several times. All that a reader accepts can be written in both forms, except text that XML
// cannot carry: a NUL, or half of a surrogate pair.

inline constexpr size_t kHostPlistDepth = 512;

// Returns the form, which the first characters determine: "bplist" for binary, a < that does not
// begin hexadecimal digits for XML. All else is old-style text.
CFPropertyListFormat HostRecognisePlist(const UInt8* bytes, size_t count);

// Describes the list that a reader makes.
struct HostPlistRequest {
  CFOptionFlags mutability = kCFPropertyListImmutable;
  // The objects of a large file share blocks of memory, so a value that is kept keeps others'
  // memory too. False costs time, for lists whose values are lent one by one.
  bool mayShareBlocks = true;
};

// Recognises the form and returns the list, which the caller releases, or null with `*error`.
// Stores the form in `*format` also on failure.
CFPropertyListRef HostReadPlist(const UInt8* bytes, size_t count, const HostPlistRequest& request,
                                CFPropertyListFormat* format, HostPropertyListError* error);

// Receives a writer's bytes, piece by piece. One writer, one thread.
class HostPlistSink {
 public:
  // Returns false if it cannot take the bytes; the writer then gives up.
  virtual bool Take(const UInt8* bytes, size_t count) = 0;

 protected:
  ~HostPlistSink() = default;
};
