#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string_view>

#include "platform/host/base/sink_file.h"
#include "platform/host/services/log_socket.h"

namespace {

constexpr int kPriorityBits = LOG_PRIMASK | LOG_FACMASK;
constexpr size_t kMaxPrefix = 16;

constinit HostLogSocket sLog{_PATH_LOG};

// Formats into `entry`, without the newline at the end.
std::string_view Format(char (&entry)[HostLogSocket::kMaxText + 1], const char* format,
                        va_list arguments) {
  const int size = vsnprintf(entry, sizeof entry, format, arguments);
  size_t length = std::min(static_cast<size_t>(std::max(size, 0)), sizeof entry - 1);
  if (length > 0 && entry[length - 1] == '\n') length--;
  return {entry, length};
}

// Writes a line such as "404 text" to the file that tests read. Returns false if there is none.
bool WriteToSink(int priority, std::string_view text) {
  char line[kMaxPrefix + HostLogSocket::kMaxText];
  const int size = snprintf(line, sizeof line, "%x %.*s", static_cast<unsigned>(priority),
                            static_cast<int>(text.size()), text.data());
  try {
    return HostAppendToSink("VLTHOST_LOG", {line, static_cast<size_t>(size)});
  } catch (const std::bad_alloc&) {
    return false;
  }
}

}  // namespace

void HostSyslog(int priority, const char* format, ...) {
  const int savedErrno = errno;
  char entry[HostLogSocket::kMaxText + 1];
  va_list arguments;
  va_start(arguments, format);
  const std::string_view text = Format(entry, format, arguments);
  va_end(arguments);
  if (!WriteToSink(priority, text)) sLog.Write(priority & kPriorityBits, text);
  errno = savedErrno;
}
