#pragma once

#include <CoreFoundation/CFURL.h>

#include <cstddef>
#include <string_view>

#include "platform/host/objects/cf_object.h"

// The address object: an absolute path of bytes, NUL-terminated, behind the object in the same
// block, without a slash at its end unless it is "/". Immutable; any thread.
struct __CFURL final : HostCFObject {
  static constexpr HostTypeID kClass = kHostTypeURL;

  // A relative path is completed with the working directory. One reference for the caller; null for
  // an empty path, one with a NUL inside, without a working directory and without memory.
  static __CFURL* Create(std::string_view path, bool isDirectory);

  const char* Path() const { return reinterpret_cast<const char*>(this + 1); }
  std::string_view PathBytes() const { return {Path(), length}; }
  bool IsDirectory() const { return isDirectory; }

  bool Equal(const HostCFObject& other) const override;
  CFHashCode Hash() const override;
  CFStringRef CopyDescription() const override { return CopyPath(); }

  // The path as a string that makes the same address again; null without memory.
  CFStringRef CopyPath() const;

 private:
  __CFURL(size_t length, bool isDirectory)
      : HostCFObject(kClass), isDirectory(isDirectory), length(static_cast<UInt32>(length)) {}
  void LastRelease() override;

  const bool isDirectory;
  const UInt32 length;
};
using HostCFURL = __CFURL;
