#include "platform/host/proc_status.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace {

// Field 22, counted behind the command name: that one may hold blanks and parentheses of its own,
// so fields are counted from the last ')'.
constexpr int kStartFieldAfterName = 20;

bool ParseStartTicks(const char* text, uint64_t* startTicks) {
  const char* at = strrchr(text, ')');
  if (at == nullptr) return false;
  for (int field = 0; field < kStartFieldAfterName; field++) {
    at = strchr(at + 1, ' ');
    if (at == nullptr) return false;
  }
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = strtoull(at + 1, &end, 10);
  if (end == at + 1 || errno != 0) return false;
  *startTicks = value;
  return true;
}

constinit std::atomic<uint64_t> sOwnTicks{0};
constinit std::atomic<pid_t> sOwnPid{0};

}  // namespace

bool HostReadProcess(pid_t pid, uint64_t* startTicks, uid_t* uid) {
  char path[32];
  snprintf(path, sizeof path, "/proc/%ld/stat", static_cast<long>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[1024];
  struct stat info;
  const ssize_t size = read(fd, text, sizeof text - 1);
  const bool owned = fstat(fd, &info) == 0;
  close(fd);
  if (size <= 0 || !owned) return false;
  text[size] = 0;
  *uid = info.st_uid;
  return ParseStartTicks(text, startTicks);
}

uint64_t HostOwnStartTicks() {
  const pid_t pid = getpid();
  if (sOwnPid.load(std::memory_order_acquire) == pid) return sOwnTicks.load();
  uint64_t ticks = 0;
  uid_t uid = 0;
  if (!HostReadProcess(pid, &ticks, &uid)) return 0;
  sOwnTicks.store(ticks);
  sOwnPid.store(pid, std::memory_order_release);
  return ticks;
}

std::string HostProgramPath(pid_t pid) {
  char link[32], target[PATH_MAX];
  snprintf(link, sizeof link, "/proc/%ld/exe", static_cast<long>(pid));
  const ssize_t size = readlink(link, target, sizeof target);
  return size > 0 ? std::string(target, static_cast<size_t>(size)) : std::string();
}
