#pragma once

#include <dirent.h>
#include <fcntl.h>

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

#include "platform/host/base/descriptors.h"

// HostDirectory reads the entries of a folder, through a file descriptor above 2 that it owns. One
// thread at a time.
class HostDirectory {
 public:
  // If the folder cannot be opened, IsOpen returns false and errno has the reason. Throws
  // std::bad_alloc without memory, since a folder that cannot be read is not an empty one. Links
  // are followed.
  explicit HostDirectory(const char* path) : HostDirectory(AT_FDCWD, path) {}
  // `path` is relative to the folder that `parent` is open on.
  HostDirectory(int parent, const char* path) {
    const int fd =
        HostAboveStandard(openat(parent, path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (fd < 0) return;
    stream.reset(fdopendir(fd));
    if (stream != nullptr) return;
    const int error = errno;
    close(fd);
    if (error == ENOMEM) throw std::bad_alloc();
    errno = error;
  }

  bool IsOpen() const { return stream != nullptr; }
  // Returns the file descriptor, which this object closes.
  int Descriptor() const { return dirfd(stream.get()); }

  // Returns the next entry, valid until the next call, or null after the last one.
  const dirent* Next() { return readdir(stream.get()); }
  // Makes the first entry the next one.
  void Rewind() { rewinddir(stream.get()); }

 private:
  struct Closer {
    void operator()(DIR* open) const { closedir(open); }
  };
  std::unique_ptr<DIR, Closer> stream;
};
