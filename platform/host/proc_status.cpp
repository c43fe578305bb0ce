#include "platform/host/proc_status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// The text behind blank number `count` from `at` on; null when there are fewer.
const char* SkipFields(const char* at, int count) {
  for (; at != nullptr && count > 0; --count) {
    at = std::strchr(at, ' ');
    if (at != nullptr) ++at;
  }
  return at;
}

// Fields 3 (state) and 22 (start time). The command name before them may hold blanks and
// parentheses of its own, so fields are counted from the last one. A process that has ended and
// only waits to be waited for is none any more.
bool ParseStatus(const char* text, uint64_t* startTicks) {
  const char* state = SkipFields(std::strrchr(text, ')'), 1);
  if (state == nullptr || *state == 'Z' || *state == 'X') return false;
  const char* start = SkipFields(state, 22 - 3);
  if (start == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  *startTicks = std::strtoull(start, &end, 10);
  return end != start && errno == 0;
}

}  // namespace

bool HostReadProcessStatus(pid_t pid, HostProcessStatus* status) {
  // The dot makes a user-mode emulator pass the path on: it answers for the plain one itself, with
  // a start time that is not the one other processes see.
  char path[40];
  std::snprintf(path, sizeof path, "/proc/./%d/stat", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[1024];
  struct stat info;
  const ssize_t size = read(fd, text, sizeof text - 1);
  const bool owned = fstat(fd, &info) == 0;
  close(fd);
  if (size <= 0 || !owned) return false;
  text[size] = 0;
  status->uid = info.st_uid;
  return ParseStatus(text, &status->startTicks);
}

std::string HostProgramPath(pid_t pid) {
  char link[32], target[PATH_MAX];
  std::snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
  const ssize_t size = readlink(link, target, sizeof target);
  return size > 0 ? std::string(target, static_cast<size_t>(size)) : std::string();
}
