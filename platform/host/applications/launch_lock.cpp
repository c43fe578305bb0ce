#include "platform/host/applications/launch_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <string_view>

#include "platform/host/base/descriptors.h"
#include "platform/host/session/context_directory.h"

namespace {

// Sticky, so that directory cleaners spare the file.
constexpr mode_t kFileMode = S_ISVTX | 0600;
constexpr size_t kMaxRecord = 128 + PATH_MAX;

// The same in every process (FNV-1a): two programs of one hash merely wait for each other.
uint64_t HashOf(std::string_view text) {
  uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return hash;
}

int OpenLockFile(const std::string& program) {
  const HostContext* context = HostGetContext();
  if (context == nullptr) return -1;
  char name[32];
  snprintf(name, sizeof name, "launch-%016" PRIx64, HashOf(program));
  // Entered, so that a child that somebody forks meanwhile does not keep the lock.
  HostDescriptorOpening opening;
  return opening.Enter(
      openat(context->directory, name, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kFileMode),
      HostDescriptorKind::kNameFile);
}

}  // namespace

HostLaunchLock::HostLaunchLock(const std::string& theProgram)
    : program(theProgram), descriptor(OpenLockFile(theProgram)) {}

HostLaunchLock::~HostLaunchLock() { HostCloseDescriptor(descriptor); }

bool HostLaunchLock::Try() {
  while (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

HostLaunchRecord HostLaunchLock::Read() const {
  char text[kMaxRecord];
  const ssize_t size = pread(descriptor, text, sizeof text - 1, 0);
  if (size <= 0) return {};
  text[size] = 0;
  long pid = 0;
  HostLaunchRecord record;
  int hadPort = 0, end = 0;
  if (sscanf(text, "pid %10ld start %10" SCNu32 " opened %20" SCNd64 " port %1d %n", &pid,
             &record.startTicks, &record.opened, &hadPort, &end) != 4 ||
      pid <= 0 || pid > INT_MAX || std::string_view(text + end) != program + "\n") {
    return {};
  }
  record.pid = static_cast<pid_t>(pid);
  record.hadPort = hadPort != 0;
  return record;
}

void HostLaunchLock::Write(const HostLaunchRecord& record) {
  char text[kMaxRecord];
  const int size =
      snprintf(text, sizeof text, "pid %ld start %" PRIu32 " opened %" PRId64 " port %d %s\n",
               static_cast<long>(record.pid), record.startTicks, record.opened,
               record.hadPort ? 1 : 0, program.c_str());
  // A record that cannot be written or is torn reads as none: one start too many, which the
  // program's claim of its port settles.
  if (size <= 0 || static_cast<size_t>(size) >= sizeof text) return;
  if (ftruncate(descriptor, 0) == 0) (void)!pwrite(descriptor, text, static_cast<size_t>(size), 0);
}
