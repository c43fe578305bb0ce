#include "platform/host/objects/cf_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <utility>

#include "platform/host/base/descriptors.h"
#include "platform/host/objects/cf_string.h"

namespace {

constinit HostCFString gDataWritten{"kCFStreamPropertyDataWritten"};
constinit HostCFString gAppendToFile{"kCFStreamPropertyAppendToFile"};

}  // namespace

constinit const CFStringRef kCFStreamPropertyDataWritten = &gDataWritten;
constinit const CFStringRef kCFStreamPropertyAppendToFile = &gAppendToFile;

void HostStream::Fail() {
  error = {kCFStreamErrorDomainPOSIX, errno};
  status = kCFStreamStatusError;
}

bool HostStream::Open(int flags) {
  if (status != kCFStreamStatusNotOpen) return false;
  assert(fd < 0);
  if (url) {
    do {
      fd = HostAboveStandard(open(url->Path(), flags | O_CLOEXEC | O_NOCTTY, 0666));
    } while (fd < 0 && errno == EINTR);
    struct stat info = {};
    if (fd >= 0 && fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
      close(std::exchange(fd, -1));
      errno = EISDIR;
    }
    if (fd < 0) return Fail(), false;
  }
  status = kCFStreamStatusOpen;
  return true;
}

void HostStream::Close() {
  const int closed = std::exchange(fd, -1);
  // On Linux the file descriptor is closed even if close is interrupted, so it is not closed twice.
  const bool isWell = closed < 0 || close(closed) == 0 || errno == EINTR;
  if (!IsOpen()) return;
  if (isWell)
    status = kCFStreamStatusClosed;
  else
    Fail();
}
