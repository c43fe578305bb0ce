#include "platform/host/base/sink_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/host/base/descriptors.h"

bool HostAppendToSink(const char* variable, std::string_view line) {
  const char* path = secure_getenv(variable);
  if (path == nullptr || path[0] == 0) return false;
  // Made before the file is opened, because this may throw.
  std::string text(line);
  std::replace(text.begin(), text.end(), '\n', ' ');
  text.push_back('\n');

  const int fd = HostAboveStandard(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (fd < 0) return false;
  ssize_t written;
  do {
    written = write(fd, text.data(), text.size());
  } while (written < 0 && errno == EINTR);
  close(fd);
  return written == static_cast<ssize_t>(text.size());
}
