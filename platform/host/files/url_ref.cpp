#include <CoreFoundation/CFURL.h>
#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <limits.h>

#include <cstring>

// Addresses of files from references and back.

CFURLRef CFURLCreateFromFSRef(CFAllocatorRef allocator, const FSRef* ref) {
  UInt8 path[PATH_MAX];
  FSRef same;
  Boolean isDirectory = false;
  if (FSRefMakePath(ref, path, sizeof path) != noErr) return nullptr;
  if (FSPathMakeRef(path, &same, &isDirectory) != noErr) isDirectory = false;  // a link to nothing
  const auto length = static_cast<CFIndex>(std::strlen(reinterpret_cast<char*>(path)));
  return CFURLCreateFromFileSystemRepresentation(allocator, path, length, isDirectory);
}

Boolean CFURLGetFSRef(CFURLRef url, FSRef* ref) {
  UInt8 path[PATH_MAX];
  return CFURLGetFileSystemRepresentation(url, true, path, sizeof path) &&
         FSPathMakeRef(path, ref, nullptr) == noErr;
}
