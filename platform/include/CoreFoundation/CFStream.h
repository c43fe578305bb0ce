#pragma once

#include <CoreFoundation/CFBase.h>
#include <CoreFoundation/CFURL.h>

// Streams of bytes from and to files and memory. One thread at a time. A stream is made, opened
// once, used and closed:
//
//   NotOpen -> Open (read: -> AtEnd, once nothing is left) -> Closed
//   NotOpen -> Error, and Open -> Error, if a system call fails
//
// A stream never returns to an earlier state. A call that the state does not allow fails and
// changes nothing. The states Opening, Reading and Writing do not occur, because every call
// finishes its work before it returns.

using CFReadStreamRef = struct __CFReadStream*;
using CFWriteStreamRef = struct __CFWriteStream*;

using CFStreamStatus = CFIndex;
enum : CFStreamStatus {
  kCFStreamStatusNotOpen = 0,
  kCFStreamStatusOpening = 1,
  kCFStreamStatusOpen = 2,
  kCFStreamStatusReading = 3,
  kCFStreamStatusWriting = 4,
  kCFStreamStatusAtEnd = 5,
  kCFStreamStatusClosed = 6,
  kCFStreamStatusError = 7,
};

using CFStreamErrorDomain = CFIndex;
enum : CFStreamErrorDomain {
  kCFStreamErrorDomainCustom = -1,
  kCFStreamErrorDomainPOSIX = 1,  // `error` is an errno value
  kCFStreamErrorDomainMacOSStatus = 2,
};

struct CFStreamError {
  CFStreamErrorDomain domain;
  SInt32 error;
};

#pragma GCC visibility push(default)
extern "C" {

extern const CFStringRef kCFStreamPropertyDataWritten;
extern const CFStringRef kCFStreamPropertyAppendToFile;

CFTypeID CFReadStreamGetTypeID(void);
CFTypeID CFWriteStreamGetTypeID(void);

// Not opened yet; a missing file shows when it is opened. Null without an address.
CFReadStreamRef CFReadStreamCreateWithFile(CFAllocatorRef allocator, CFURLRef file);
// Makes a stream that reads the caller's bytes. `deallocator` frees them when the stream is
// destroyed: kCFAllocatorNull does not, any other, also null, does so as CFAllocatorDeallocate.
// Returns null for a negative count, or for null bytes with a positive one; the bytes then stay the
// caller's.
CFReadStreamRef CFReadStreamCreateWithBytesNoCopy(CFAllocatorRef allocator, const UInt8* bytes,
                                                  CFIndex count, CFAllocatorRef deallocator);

// Opening creates the file (0666 less the umask) or cuts it to nothing, unless it is to be appended
// to. Null without an address.
CFWriteStreamRef CFWriteStreamCreateWithFile(CFAllocatorRef allocator, CFURLRef file);
// Into memory that grows, read with kCFStreamPropertyDataWritten.
CFWriteStreamRef CFWriteStreamCreateWithAllocatedBuffers(CFAllocatorRef allocator,
                                                         CFAllocatorRef bufferAllocator);
// Into the caller's `capacity` bytes, which must outlive the stream.
CFWriteStreamRef CFWriteStreamCreateWithBuffer(CFAllocatorRef allocator, UInt8* buffer,
                                               CFIndex capacity);

// Returns false if the system refuses (status Error), and for a stream that was opened before.
Boolean CFReadStreamOpen(CFReadStreamRef stream);
Boolean CFWriteStreamOpen(CFWriteStreamRef stream);

// Closes the file descriptor. Does nothing to a stream that was never opened. If the system reports
// now that bytes were lost, the status is Error.
void CFReadStreamClose(CFReadStreamRef stream);
void CFWriteStreamClose(CFWriteStreamRef stream);

CFStreamStatus CFReadStreamGetStatus(CFReadStreamRef stream);
CFStreamStatus CFWriteStreamGetStatus(CFWriteStreamRef stream);
CFStreamError CFReadStreamGetError(CFReadStreamRef stream);    // zeros without one
CFStreamError CFWriteStreamGetError(CFWriteStreamRef stream);  // zeros without one

// The number of bytes stored, at most `size`; 0 at the end; -1 when the system refuses (status
// Error) or the stream is not open.
CFIndex CFReadStreamRead(CFReadStreamRef stream, UInt8* buffer, CFIndex size);

// The number of bytes taken: all of them, into a fixed buffer as many as there is room for. -1 when
// the system refuses (status Error) or the stream is not open.
CFIndex CFWriteStreamWrite(CFWriteStreamRef stream, const UInt8* bytes, CFIndex count);

// kCFStreamPropertyDataWritten: what a memory stream has taken so far, as a CFData; also after
// closing. kCFStreamPropertyAppendToFile: a CFBoolean. Null for all else. The caller releases it.
CFTypeRef CFWriteStreamCopyProperty(CFWriteStreamRef stream, CFStringRef property);
// kCFStreamPropertyAppendToFile with a CFBoolean, before a file is opened. False for all else.
Boolean CFWriteStreamSetProperty(CFWriteStreamRef stream, CFStringRef property, CFTypeRef value);

}  // extern "C"
#pragma GCC visibility pop
