#include "platform/host/processes/proc_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/host/base/open_file.h"

namespace {

constexpr uint64_t kKernelThread = 0x00200000;  // a bit of the flags field

// Positions of the fields, counted from 1 as its documentation does.
enum Field { kFirstNumber = 4, kFlags = 9, kUserTime = 14, kSystemTime = 15, kStart = 22 };

// The command name may contain spaces and parentheses, so fields are counted from the last ")". A
// zombie does not count as a process.
bool ParseStatus(const char* text, HostProcessStatus* status) {
  const char* nameEnd = std::strrchr(text, ')');
  if (nameEnd == nullptr || nameEnd[1] != ' ') return false;
  const char state = nameEnd[2];
  if (state == 0 || state == 'Z' || state == 'X') return false;
  uint64_t numbers[kStart + 1] = {};
  const char* at = nameEnd + 3;
  for (int field = kFirstNumber; field <= kStart; ++field) {
    char* end = nullptr;
    errno = 0;
    numbers[field] = std::strtoull(at, &end, 10);
    if (end == at || errno != 0) return false;
    at = end;
  }
  status->startTicks = numbers[kStart];
  status->activeTicks = numbers[kUserTime] + numbers[kSystemTime];
  return (numbers[kFlags] & kKernelThread) == 0;
}

}  // namespace

int HostReadProcessStatus(pid_t pid, HostProcessStatus* status) {
  // The dot makes a user-mode emulator pass the path to the kernel. For the path without it, the
  // emulator makes up a file, with a start time that differs from the one other processes see.
  char path[40];
  std::snprintf(path, sizeof path, "/proc/./%d/stat", static_cast<int>(pid));
  const HostOpenFile file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return errno == ENOENT ? ESRCH : errno;
  char text[1024];
  struct stat info;
  const ssize_t size = read(file.Get(), text, sizeof text - 1);
  const int error = size < 0 || fstat(file.Get(), &info) != 0 ? errno : 0;
  if (error != 0 || size == 0) return error != 0 ? error : ESRCH;
  text[size] = 0;
  status->uid = info.st_uid;
  return ParseStatus(text, status) ? 0 : ESRCH;
}

std::string HostProgramPath(pid_t pid) {
  char link[32], target[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
  const ssize_t size = readlink(link, target, sizeof target);
  return size > 0 ? std::string(target, static_cast<size_t>(size)) : std::string();
}
