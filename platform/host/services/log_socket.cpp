#include "platform/host/services/log_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "platform/host/base/open_file.h"

namespace {

constexpr size_t kMaxHead = 128;  // priority, time, program and process

// "<12>Nov 22 03:04:05 program[123]: ", with English months in every locale.
size_t WriteHead(int priority, char* head) {
  constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  const int size =
      snprintf(head, kMaxHead, "<%d>%.3s %2d %02d:%02d:%02d %.64s[%d]: ", priority,
               kMonths + 3 * local.tm_mon, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
               program_invocation_short_name, static_cast<int>(getpid()));
  return std::min(static_cast<size_t>(std::max(size, 0)), kMaxHead - 1);
}

}  // namespace

void HostLogSocket::Write(int priority, std::string_view text) {
  if (const uint32_t count = lost.exchange(0); count > 0) {
    char told[64];
    snprintf(told, sizeof told, "%u log entries of this process were lost", count);
    if (!Send(LOG_WARNING, told)) {
      lost.fetch_add(count + 1);
      return;
    }
  }
  if (!Send(priority, text)) lost.fetch_add(1);
}

bool HostLogSocket::Send(int priority, std::string_view text) {
  assert(text.size() <= kMaxText);
  if ((priority & LOG_FACMASK) == 0) priority |= LOG_USER;
  char entry[kMaxHead + kMaxText];
  const size_t head = WriteHead(priority, entry);
  // Control bytes could feign further entries or steer a terminal.
  std::replace_copy_if(
      text.begin(), text.end(), entry + head,
      [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7F'; }, ' ');
  return SendToLog(entry, head + text.size());
}

// Opens a socket for each entry, so that the log daemon gets it also after a restart.
bool HostLogSocket::SendToLog(const char* bytes, size_t size) const {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  const HostOpenFile log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!log.IsOpen()) return false;
  const ssize_t sent = sendto(log.Get(), bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL,
                              reinterpret_cast<const sockaddr*>(&address), sizeof address);
  return sent == static_cast<ssize_t>(size);
}
