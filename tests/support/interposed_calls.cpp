#include "tests/support/interposed_calls.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

namespace {

CallFault sFault = CallFault::kNone;
int sNumber = 0;
int sError = 0;
bool sOnlyFsync = false;
int sCalls = 0;
int sLeap = 0;
int sLeapt = 0;

enum class Call { kQuick, kInterruptible, kFsync };

// What this call meets.
CallFault Enter(Call call = Call::kQuick) {
  if (sOnlyFsync && call != Call::kFsync) return CallFault::kNone;
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

// The C library's function that one of ours hides.
template <class Function>
Function* Hidden(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void Arm(CallFault fault, int number, int error, bool onlyFsync) {
  sFault = fault;
  sNumber = number;
  sError = error;
  sOnlyFsync = onlyFsync;
  sCalls = 0;
}

}  // namespace

void ArmCallFault(CallFault fault, int number, int error) { Arm(fault, number, error, false); }
void ArmFsyncFault(CallFault fault, int number) { Arm(fault, number, 0, true); }
int CallsSinceArmed() { return sCalls; }
void LeapClock(int seconds) { sLeap = seconds; }
int LeaptSeconds() { return sLeapt; }

// Calls with a fixed list of arguments.
#define INTERPOSE(name, parameters, arguments)                   \
  extern "C" int name parameters {                               \
    static auto* const hidden = Hidden<int parameters>(#name);   \
    return Enter() == CallFault::kError ? -1 : hidden arguments; \
  }

INTERPOSE(stat64, (const char* path, struct stat64* info), (path, info))
INTERPOSE(fstat64, (int fd, struct stat64* info), (fd, info))
INTERPOSE(fstatat64, (int at, const char* path, struct stat64* info, int flags),
          (at, path, info, flags))
INTERPOSE(fchmod, (int fd, mode_t mode), (fd, mode))
INTERPOSE(fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group))
INTERPOSE(renameat, (int from, const char* old, int to, const char* name), (from, old, to, name))
INTERPOSE(unlinkat, (int at, const char* path, int flags), (at, path, flags))
INTERPOSE(mkdirat, (int at, const char* path, mode_t mode), (at, path, mode))

extern "C" int fsync(int fd) {
  static auto* const hidden = Hidden<int(int)>("fsync");
  return Enter(Call::kFsync) == CallFault::kError ? -1 : hidden(fd);
}

extern "C" ssize_t read(int fd, void* bytes, size_t count) {
  static auto* const hidden = Hidden<ssize_t(int, void*, size_t)>("read");
  return Enter(Call::kInterruptible) == CallFault::kError ? -1 : hidden(fd, bytes, count);
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

namespace {

mode_t ModeAmong(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" int open64(const char* path, int flags, ...) {
  static auto* const hidden = Hidden<int(const char*, int, ...)>("open64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeAmong(flags, arguments);
  va_end(arguments);
  return Enter(Call::kInterruptible) == CallFault::kError ? -1 : hidden(path, flags, mode);
}

extern "C" int openat64(int at, const char* path, int flags, ...) {
  static auto* const hidden = Hidden<int(int, const char*, int, ...)>("openat64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = ModeAmong(flags, arguments);
  va_end(arguments);
  return Enter(Call::kInterruptible) == CallFault::kError ? -1 : hidden(at, path, flags, mode);
}

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
