#include "tests/support/interposed_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <optional>

namespace {

CallFault sFault = CallFault::kNone;
int sNumber = 0;
int sError = 0;
int sCalls = 0;
int sLeap = 0;
int sLeapt = 0;

enum class Call { kQuick, kInterruptible, kFsync, kClose };

std::optional<Call> sOnly;  // others are not counted

// Counts the call and returns its fault.
CallFault Enter(Call call = Call::kQuick) {
  if (sOnly.has_value() ? call != *sOnly : call == Call::kClose) return CallFault::kNone;
  if (++sCalls != sNumber) return CallFault::kNone;
  if (sFault == CallFault::kInterrupt) {
    if (call == Call::kQuick) return CallFault::kNone;
    errno = EINTR;
    return CallFault::kError;
  }
  if (sFault == CallFault::kKill) raise(SIGKILL);
  if (sFault == CallFault::kStop) raise(SIGSTOP);
  if (sFault == CallFault::kError) errno = sError;
  return sFault;
}

// Returns the C library's function that one of this file hides.
template <class Function>
Function* Hidden(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Arm(CallFault fault, int number, int error, std::optional<Call> only) {
  sFault = fault;
  sNumber = number;
  sError = error;
  sOnly = only;
  sCalls = 0;
}

}  // namespace

void ArmCallFault(CallFault fault, int number, int error) {
  Arm(fault, number, error, std::nullopt);
}
void ArmFsyncFault(CallFault fault, int number) { Arm(fault, number, 0, Call::kFsync); }
void ArmCloseFault(int number) { Arm(CallFault::kError, number, EIO, Call::kClose); }
int CallsSinceArmed() { return sCalls; }
void LeapClock(int seconds) { sLeap = seconds; }
int LeaptSeconds() { return sLeapt; }

// Calls with a fixed list of arguments.
#define INTERPOSE(result, name, call, parameters, arguments)               \
  extern "C" result name parameters {                                      \
    static auto* const hidden = Hidden<result parameters>(#name);          \
    return Enter(Call::call) == CallFault::kError ? -1 : hidden arguments; \
  }

INTERPOSE(int, stat64, kQuick, (const char* path, struct stat64* info), (path, info))
INTERPOSE(int, fstat64, kQuick, (int fd, struct stat64* info), (fd, info))
INTERPOSE(int, fstatat64, kQuick, (int at, const char* path, struct stat64* info, int flags),
          (at, path, info, flags))
INTERPOSE(int, fchmod, kQuick, (int fd, mode_t mode), (fd, mode))
INTERPOSE(int, fchown, kQuick, (int fd, uid_t owner, gid_t group), (fd, owner, group))
INTERPOSE(int, renameat, kQuick, (int from, const char* old, int to, const char* name),
          (from, old, to, name))
INTERPOSE(int, unlinkat, kQuick, (int at, const char* path, int flags), (at, path, flags))
INTERPOSE(int, mkdirat, kQuick, (int at, const char* path, mode_t mode), (at, path, mode))
INTERPOSE(int, fsync, kFsync, (int fd), (fd))
INTERPOSE(ssize_t, read, kInterruptible, (int fd, void* bytes, size_t count), (fd, bytes, count))

extern "C" int close(int fd) {
  static auto* const hidden = Hidden<int(int)>("close");
  const int result = hidden(fd);
  return Enter(Call::kClose) == CallFault::kError ? -1 : result;
}

extern "C" ssize_t write(int fd, const void* bytes, size_t count) {
  static auto* const hidden = Hidden<ssize_t(int, const void*, size_t)>("write");
  const CallFault fault = Enter(Call::kInterruptible);
  if (fault == CallFault::kError) return -1;
  return hidden(fd, bytes, fault == CallFault::kShortWrite && count > 1 ? count / 2 : count);
}

extern "C" ssize_t readlink(const char* path, char* bytes, size_t size) noexcept {
  static auto* const hidden = Hidden<ssize_t(const char*, char*, size_t)>("readlink");
  return Enter() == CallFault::kError ? -1 : hidden(path, bytes, size);
}

// The mode is ignored if it is not among the arguments.
#define INTERPOSE_OPEN(name, parameters, arguments)                                  \
  extern "C" int name parameters {                                                   \
    static auto* const hidden = Hidden<int parameters>(#name);                       \
    va_list list;                                                                    \
    va_start(list, flags);                                                           \
    const mode_t mode = va_arg(list, mode_t);                                        \
    va_end(list);                                                                    \
    return Enter(Call::kInterruptible) == CallFault::kError ? -1 : hidden arguments; \
  }

INTERPOSE_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
INTERPOSE_OPEN(openat64, (int at, const char* path, int flags, ...), (at, path, flags, mode))

// Every command that takes anything takes a pointer or less.
extern "C" int fcntl64(int fd, int command, ...) {
  static auto* const hidden = Hidden<int(int, int, ...)>("fcntl64");
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return Enter() == CallFault::kError ? -1 : hidden(fd, command, argument);
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const hidden = Hidden<int(clockid_t, timespec*)>("clock_gettime");
  const int result = hidden(clock, now);
  if (clock != CLOCK_MONOTONIC || result != 0) return result;
  sLeapt += sLeap;
  now->tv_sec += sLeapt;
  return 0;
}
