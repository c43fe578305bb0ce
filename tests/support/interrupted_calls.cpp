#include "tests/support/interrupted_calls.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace {

std::atomic<int> sInterval{0};
std::atomic<int> sNumber{0};
std::atomic<int> sCalls{0};
std::atomic<int> sInterrupted{0};

void Arm(int interval, int number) {
  sInterval = interval;
  sNumber = number;
  sCalls = 0;
  sInterrupted = 0;
}

// Whether this call is interrupted.
bool Enter() {
  const int interval = sInterval, number = sNumber;
  if (interval == 0 && number == 0) return false;
  const int call = ++sCalls;
  const uint32_t mixed = (static_cast<uint32_t>(call) * 2654435761u) >> 16;
  if (call != number && (interval == 0 || mixed % static_cast<uint32_t>(interval) != 0)) {
    return false;
  }
  ++sInterrupted;
  errno = EINTR;
  return true;
}

}  // namespace

void InterruptCalls(int interval) { Arm(interval, 0); }
void InterruptCall(int number) { Arm(0, number); }
int InterruptedCalls() { return sInterrupted; }

#define INTERRUPT(result, name, parameters, arguments)                                           \
  extern "C" result name parameters {                                                            \
    static auto* const hidden = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    return Enter() ? -1 : hidden arguments;                                                      \
  }

INTERRUPT(int, accept4, (int fd, sockaddr* address, socklen_t* size, int flags),
          (fd, address, size, flags))
INTERRUPT(int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size))
INTERRUPT(ssize_t, recv, (int fd, void* bytes, size_t size, int flags), (fd, bytes, size, flags))
INTERRUPT(ssize_t, recvmsg, (int fd, msghdr* message, int flags), (fd, message, flags))
INTERRUPT(ssize_t, send, (int fd, const void* bytes, size_t size, int flags),
          (fd, bytes, size, flags))
INTERRUPT(ssize_t, sendmsg, (int fd, const msghdr* message, int flags), (fd, message, flags))
INTERRUPT(int, poll, (pollfd * entries, nfds_t count, int timeout), (entries, count, timeout))
INTERRUPT(int, epoll_wait, (int fd, epoll_event* events, int count, int timeout),
          (fd, events, count, timeout))
