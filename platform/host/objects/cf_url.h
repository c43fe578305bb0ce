#pragma once

#include <CoreFoundation/CFURL.h>

#include <cstddef>
#include <string_view>

#include "platform/host/objects/cf_object.h"

// The URL object: an absolute path of bytes, which stands after the object in the same block with a
// NUL at its end. The path has no slash at its end unless it is "/". Immutable; any thread.
struct __CFURL final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeURL;

  // Returns a new object; a relative path is completed with the working directory. Returns null for
  // an empty path, a path with a NUL, and without a working directory or memory.
  static __CFURL* Create(std::string_view path, bool isDirectory);

  const char* Path() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view PathBytes() const { return {Path(), length}; }
  bool IsDirectory() const { return isDirectory; }

  bool Equal(const HostCFObject& other) const override;
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override { return CopyPath(); }

  // Returns the path as a string from which the same URL can be made, or null without memory.
  CFStringRef CopyPath() const;

 private:
  __CFURL(size_t length, bool isDirectory)
      : HostCFObject(kClass), isDirectory(isDirectory), length(static_cast<UInt32>(length)) {}
  void LastRelease() override;

  const bool isDirectory;
  const UInt32 length;
};
using HostCFURL = __CFURL;
