#include "platform/host/applications/launch_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <string_view>

#include "platform/host/base/descriptors.h"
#include "platform/host/session/session_directory.h"

namespace {

// Sticky, so that directory cleaners spare the file.
constexpr mode_t kFileMode = S_ISVTX | 0600;
constexpr size_t kMaxEntry = 256 + PATH_MAX;

// The same in every process (FNV-1a). Two programs with the same hash merely wait for each other.
uint64_t HashOf(std::string_view text) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

int OpenLockFile(const std::string& program) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return -1;
  char name[32];
  snprintf(name, sizeof name, "launch-%016" PRIx64, HashOf(program));
  // Entered into the table of file descriptors that a forked child closes, or the child would keep
  // the lock.
  HostDescriptorOpening opening;
  return opening.Enter(
      openat(session->directory, name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode),
      HostDescriptorKind::kNameFile);
}

}  // namespace

HostLaunchLock::HostLaunchLock(const std::string& theProgram)
    : program(theProgram), descriptor(OpenLockFile(theProgram)) {}

HostLaunchLock::~HostLaunchLock() { HostCloseDescriptor(descriptor); }

bool HostLaunchLock::Try() {
  assert(IsUsable());
  while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

HostLaunchEntry HostLaunchLock::Read() const {
  char text[kMaxEntry];
  const ssize_t size = pread(descriptor, text, sizeof text - 1, 0);
  if (size <= 0) return {};
  text[size] = 0;
  long pid = 0;
  HostLaunchEntry entry;
  int hadPort = 0, end = 0;
  const int fields = sscanf(text,
                            "pid %10ld start %10" SCNu32 " at %20" SCNd64 " opened %20" SCNd64
                            " port %1d early %4d last %20" SCNd64 " %n",
                            &pid, &entry.startTicks, &entry.started, &entry.opened, &hadPort,
                            &entry.earlyEnds, &entry.lastEarlyEnd, &end);
  const bool isPossible = pid >= 0 && pid <= INT_MAX && entry.started >= 0 &&
                          entry.lastEarlyEnd >= 0 && entry.earlyEnds >= 0 &&
                          entry.earlyEnds <= kHostMaxEarlyEnds;
  if (fields != 7 || !isPossible || std::string_view(text + end) != program + "\n") {
    return {};
  }
  entry.pid = static_cast<pid_t>(pid);
  entry.hadPort = hadPort != 0;
  return entry;
}

void HostLaunchLock::Write(const HostLaunchEntry& entry) {
  assert(IsUsable() && entry.earlyEnds >= 0 && entry.earlyEnds <= kHostMaxEarlyEnds);
  char text[kMaxEntry];
  const int size =
      snprintf(text, sizeof text,
               "pid %ld start %" PRIu32 " at %" PRId64 " opened %" PRId64
               " port %d early %d last %" PRId64 " %s\n",
               static_cast<long>(entry.pid), entry.startTicks, entry.started, entry.opened,
               entry.hadPort ? 1 : 0, entry.earlyEnds, entry.lastEarlyEnd, program.c_str());
  // An entry that is missing or incomplete counts as no entry. At worst a second copy is started;
  // it fails to claim the port and ends.
  if (size <= 0 || static_cast<size_t>(size) >= sizeof text) return;
  if (ftruncate(descriptor, 0) == 0) (void)!pwrite(descriptor, text, static_cast<size_t>(size), 0);
}
