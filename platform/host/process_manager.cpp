#include "platform/host/process_manager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <CoreServices/MacErrors.h>

namespace {

// What /proc tells about a process that still runs.
struct ProcessStatus {
  uint64_t startTicks = 0;
  uid_t uid = 0;
};

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

bool ReadStatus(pid_t pid, ProcessStatus* status) {
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

bool IsCurrentProcess(const ProcessSerialNumber& psn) {
  return psn.highLongOfPSN == 0 && psn.lowLongOfPSN == kCurrentProcess;
}

bool AreEqual(const ProcessSerialNumber& a, const ProcessSerialNumber& b) {
  return a.highLongOfPSN == b.highLongOfPSN && a.lowLongOfPSN == b.lowLongOfPSN;
}

ProcessSerialNumber Compose(uint64_t startTicks, pid_t pid) {
  const auto ticks = static_cast<UInt32>(startTicks);
  return {ticks != 0 ? ticks : 1, static_cast<UInt32>(pid)};
}

// Our own number, high word above low; of another process when we were forked since.
constinit std::atomic<uint64_t> sOwnNumber{0};

bool OwnSerialNumber(ProcessSerialNumber* psn) {
  const pid_t pid = getpid();
  const uint64_t known = sOwnNumber.load(std::memory_order_relaxed);
  *psn = {static_cast<UInt32>(known >> 32), static_cast<UInt32>(known)};
  if (psn->lowLongOfPSN == static_cast<UInt32>(pid)) return true;
  ProcessStatus status;
  if (!ReadStatus(pid, &status)) return false;
  *psn = Compose(status.startTicks, pid);
  sOwnNumber.store(uint64_t{psn->highLongOfPSN} << 32 | psn->lowLongOfPSN,
                   std::memory_order_relaxed);
  return true;
}

// Gives { 0, kCurrentProcess } the number it stands for.
bool Resolve(const ProcessSerialNumber& psn, ProcessSerialNumber* resolved) {
  *resolved = psn;
  return !IsCurrentProcess(psn) || OwnSerialNumber(resolved);
}

}  // namespace

bool HostSerialNumberOfPid(pid_t pid, ProcessSerialNumber* psn) {
  if (pid == getpid()) return GetCurrentProcess(psn) == noErr;
  ProcessStatus status;
  if (pid <= 0 || !ReadStatus(pid, &status) || status.uid != geteuid()) return false;
  *psn = Compose(status.startTicks, pid);
  return true;
}

pid_t HostPidOfSerialNumber(const ProcessSerialNumber& psn) {
  ProcessSerialNumber wanted;
  if (!Resolve(psn, &wanted) || wanted.lowLongOfPSN > INT32_MAX) return 0;
  const auto pid = static_cast<pid_t>(wanted.lowLongOfPSN);
  ProcessSerialNumber found;
  return HostSerialNumberOfPid(pid, &found) && AreEqual(found, wanted) ? pid : 0;
}

OSErr GetCurrentProcess(ProcessSerialNumber* psn) {
  if (psn == nullptr) return paramErr;
  ProcessSerialNumber own;
  if (!OwnSerialNumber(&own)) return procNotFound;
  *psn = own;
  return noErr;
}

OSErr SameProcess(const ProcessSerialNumber* a, const ProcessSerialNumber* b, Boolean* result) {
  if (a == nullptr || b == nullptr || result == nullptr) return paramErr;
  ProcessSerialNumber left;
  ProcessSerialNumber right;
  if (!Resolve(*a, &left) || !Resolve(*b, &right)) return procNotFound;
  *result = AreEqual(left, right);
  return noErr;
}

OSStatus GetProcessPID(const ProcessSerialNumber* psn, pid_t* pid) {
  if (psn == nullptr || pid == nullptr) return paramErr;
  const pid_t found = HostPidOfSerialNumber(*psn);
  if (found == 0) return procNotFound;
  *pid = found;
  return noErr;
}

OSStatus GetProcessForPID(pid_t pid, ProcessSerialNumber* psn) {
  if (psn == nullptr) return paramErr;
  return HostSerialNumberOfPid(pid, psn) ? noErr : procNotFound;
}
