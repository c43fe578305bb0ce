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
std::atomic<int> sCalls{0};

// Whether this call is interrupted.
bool Enter() {
  const int interval = sInterval;
  if (interval == 0) return false;
  const uint32_t mixed = (static_cast<uint32_t>(++sCalls) * 2654435761u) >> 16;
  if (mixed % static_cast<uint32_t>(interval) != 0) return false;
  errno = EINTR;
  return true;
}

}  // namespace

void InterruptCalls(int interval) { sInterval = interval; }

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

namespace {

struct Failures {
  std::atomic<int> left{0};
  std::atomic<int> error{0};

  bool Take() {
    if (left <= 0 || left-- <= 0) return false;
    errno = error;
    return true;
  }
};
Failures sWatches, sSocketOptions;

void Arm(Failures& failures, int count, int error) {
  failures.error = error;
  failures.left = count;
}

}  // namespace

void FailNextWatches(int count, int error) { Arm(sWatches, count, error); }
void FailNextSocketOptions(int count, int error) { Arm(sSocketOptions, count, error); }

extern "C" int epoll_ctl(int set, int operation, int fd, epoll_event* event) noexcept {
  static auto* const hidden =
      reinterpret_cast<int (*)(int, int, int, epoll_event*)>(dlsym(RTLD_NEXT, "epoll_ctl"));
  return operation == EPOLL_CTL_ADD && sWatches.Take() ? -1 : hidden(set, operation, fd, event);
}

extern "C" int getsockopt(int fd, int level, int name, void* value, socklen_t* size) noexcept {
  static auto* const hidden =
      reinterpret_cast<int (*)(int, int, int, void*, socklen_t*)>(dlsym(RTLD_NEXT, "getsockopt"));
  return sSocketOptions.Take() ? -1 : hidden(fd, level, name, value, size);
}
