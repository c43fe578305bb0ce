#pragma once

#include <CoreFoundation/CFData.h>
#include <CoreFoundation/CFStream.h>
#include <CoreFoundation/CFString.h>

// Property lists: strings, data, dates, numbers, booleans, arrays, and dictionaries whose keys are
// strings, to and from bytes. Three forms are read, recognised from the content: XML, binary, and
// the old text form; XML and binary are written. Integers come back 64 bits wide, reals as Float64,
// bit for bit. Lists nest 512 containers deep at most, both ways. Any thread, as long as the list
// is not changed meanwhile.
//
// Any permitted type may be the root: a list that was read is not always a dictionary.

using CFPropertyListRef = CFTypeRef;

using CFPropertyListMutabilityOptions = CFOptionFlags;
enum : CFPropertyListMutabilityOptions {
  kCFPropertyListImmutable = 0,
  kCFPropertyListMutableContainers = 1,
  kCFPropertyListMutableContainersAndLeaves = 2,  // no class has mutable leaves: as 1
};

using CFPropertyListFormat = SInt32;
enum : CFPropertyListFormat {
  kCFPropertyListOpenStepFormat = 1,  // only read
  kCFPropertyListXMLFormat_v1_0 = 100,
  kCFPropertyListBinaryFormat_v1_0 = 200,
};

#pragma GCC visibility push(default)
extern "C" {

// The list that `bytes` holds; the caller releases it. Null on failure: then `*error` (may be null)
// is a text with the place of the fault, which the caller releases; on success it becomes null.
CFPropertyListRef CFPropertyListCreateFromXMLData(CFAllocatorRef allocator, CFDataRef bytes,
                                                  CFOptionFlags mutability, CFStringRef* error);

// Does the same for `length` bytes of an open stream, which must all be there; 0 means all bytes to
// its end. Stores the form in `*format`, which may be null; a failure leaves it unchanged.
CFPropertyListRef CFPropertyListCreateFromStream(CFAllocatorRef allocator, CFReadStreamRef stream,
                                                 CFIndex length, CFOptionFlags mutability,
                                                 CFPropertyListFormat* format, CFStringRef* error);

// The list as XML; the caller releases it. Null when the object is not a property list. Equal lists
// give equal bytes, on every machine.
CFDataRef CFPropertyListCreateXMLData(CFAllocatorRef allocator, CFPropertyListRef list);

// Writes to an open stream. Returns the number of bytes, 0 on failure with a text in `*error` (may
// be null), which the caller releases: the object is not a property list, the form cannot be
// written, or the stream refused, in which case a part may have been written.
CFIndex CFPropertyListWriteToStream(CFPropertyListRef list, CFWriteStreamRef stream,
                                    CFPropertyListFormat format, CFStringRef* error);

// Returns whether the object can be written in that form. For the old text form, which is never
// written: whether it has only strings, data, arrays and dictionaries.
Boolean CFPropertyListIsValid(CFPropertyListRef list, CFPropertyListFormat format);

// New containers throughout; leaves, which never change, are shared. Null when the object is not a
// property list.
CFPropertyListRef CFPropertyListCreateDeepCopy(CFAllocatorRef allocator, CFPropertyListRef list,
                                               CFOptionFlags mutability);

}  // extern "C"
#pragma GCC visibility pop
