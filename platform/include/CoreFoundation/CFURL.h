#pragma once

#include <CoreFoundation/CFBase.h>

// Immutable addresses of files; any thread. An address consists of an absolute path, whose bytes
// are passed to the file system unchanged, and of whether it means a folder. Functions look at the
// file system only where stated.

using CFURLRef = const struct __CFURL*;
struct FSRef;

using CFURLPathStyle = CFIndex;
enum : CFURLPathStyle {
  kCFURLPOSIXPathStyle = 0,
  kCFURLHFSPathStyle = 1,      // not supplied: null
  kCFURLWindowsPathStyle = 2,  // not supplied: null
};

#pragma GCC visibility push(default)
extern "C" {

CFTypeID CFURLGetTypeID(void);

// The path's bytes are the string's Mac Roman form if every character has one, else its UTF-8: a
// path that came in as bytes and was read as Mac Roman names the same file again. A relative path
// is taken relative to the working directory of this moment. Returns null for an empty path, one
// with a NUL inside, another style, or without a working directory.
CFURLRef CFURLCreateWithFileSystemPath(CFAllocatorRef allocator, CFStringRef path,
                                       CFURLPathStyle style, Boolean isDirectory);

// Does the same with the path's bytes, for callers that have bytes or UTF-8.
CFURLRef CFURLCreateFromFileSystemRepresentation(CFAllocatorRef allocator, const UInt8* bytes,
                                                 CFIndex count, Boolean isDirectory);

// Returns null if the reference is not valid.
CFURLRef CFURLCreateFromFSRef(CFAllocatorRef allocator, const FSRef* ref);
// Looks the item up, which must exist.
Boolean CFURLGetFSRef(CFURLRef url, FSRef* ref);

// Returns the path, without a slash at its end unless it is "/". The bytes are read as Mac Roman,
// so that the string makes the same address again; the caller releases it.
CFStringRef CFURLCopyFileSystemPath(CFURLRef url, CFURLPathStyle style);

// Stores the bytes of the path, without a slash at its end unless it is "/", and a NUL in `size`
// bytes. If they do not fit, returns false and stores an empty text if there is room for it. Paths
// are always absolute, so `resolveAgainstBase` makes no difference.
Boolean CFURLGetFileSystemRepresentation(CFURLRef url, Boolean resolveAgainstBase, UInt8* buffer,
                                         CFIndex size);

Boolean CFURLHasDirectoryPath(CFURLRef url);

}  // extern "C"
#pragma GCC visibility pop
