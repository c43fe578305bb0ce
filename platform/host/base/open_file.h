#pragma once

#include <unistd.h>

#include <utility>

#include "platform/host/base/descriptors.h"

// HostOpenFile owns a file descriptor for the length of a scope. One thread at a time. File
// descriptors that a forked child must close are entered in the table of descriptors.h instead.
class HostOpenFile {
 public:
  HostOpenFile() = default;
  // Takes over a file descriptor that has just been opened, and moves it above 2. A negative number
  // means that nothing is open; errno stays.
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
