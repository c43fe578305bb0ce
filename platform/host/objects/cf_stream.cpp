#include "platform/host/objects/cf_stream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

void HostStreamState::Fail() {
  error = {kCFStreamErrorDomainPOSIX, errno};
  status = kCFStreamStatusError;
}

bool HostStreamState::OpenFile(const char* path, int flags) {
  do {
    fd = HostAboveStandard(open(path, flags | O_CLOEXEC | O_NOCTTY, 0666));
  } while (fd < 0 && errno == EINTR);
  struct stat info = {};
  if (fd >= 0 && fstat(fd, &info) == 0 && S_ISDIR(info.st_mode)) {
    close(std::exchange(fd, -1));
    errno = EISDIR;
  }
  if (fd >= 0)
    status = kCFStreamStatusOpen;
  else
    Fail();
  return fd >= 0;
}

void HostStreamState::Close() {
  const int closed = std::exchange(fd, -1);
  // Interrupted or not, the descriptor is gone on Linux: never again.
  const bool isWell = closed < 0 || close(closed) == 0 || errno == EINTR;
  if (!IsOpen()) return;
  if (isWell)
    status = kCFStreamStatusClosed;
  else
    Fail();
}
