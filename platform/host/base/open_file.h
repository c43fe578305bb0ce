#pragma once

#include <unistd.h>

#include <utility>

#include "platform/host/base/descriptors.h"

// HostOpenFile owns a file descriptor for the length of a scope. Not thread-safe: one scope, one
// owner. For descriptors that a forked child
// must give up see descriptors.h.
class HostOpenFile {
 public:
  HostOpenFile() = default;
  // Takes over what has just been opened, under a number above 2; -1 with errno: none.
  explicit HostOpenFile(int opened) : fd(HostAboveStandard(opened)) {}
  HostOpenFile(HostOpenFile&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
  HostOpenFile& operator=(HostOpenFile&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~HostOpenFile() {
    if (fd >= 0) close(fd);
  }

  int Get() const { return fd; }
  bool IsOpen() const { return fd >= 0; }

 private:
  int fd = -1;
};
