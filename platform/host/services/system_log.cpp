#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "platform/host/base/sink_file.h"

namespace {

constexpr int kPriorityBits = LOG_PRIMASK | LOG_FACMASK;
constexpr size_t kEntrySize = 2048;  // bytes, NUL included

std::string_view WithoutLastNewline(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  return text;
}

}  // namespace

void HostSyslog(int priority, const char* format, ...) {
  const int savedErrno = errno;
  char entry[kEntrySize];
  va_list arguments;
  va_start(arguments, format);
  const int size = vsnprintf(entry, sizeof entry, format, arguments);
  va_end(arguments);
  if (size < 0) entry[0] = 0;

  char prefix[16];
  snprintf(prefix, sizeof prefix, "%x ", static_cast<unsigned>(priority));
  std::string line = prefix;
  line += WithoutLastNewline(entry);
  // The parentheses call the C library's function instead of the macro of its name.
  if (!HostAppendToSink("VLTHOST_LOG", line)) (syslog)(priority & kPriorityBits, "%s", entry);
  errno = savedErrno;
}
