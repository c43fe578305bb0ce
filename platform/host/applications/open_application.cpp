#include "platform/host/applications/open_application.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include <CoreServices/LaunchServices.h>
#include <CoreServices/MacErrors.h>

#include "platform/host/applications/bundle.h"
#include "platform/host/applications/launch_lock.h"
#include "platform/host/base/clock.h"
#include "platform/host/base/user_folders.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"
#include "platform/host/processes/serial_number.h"
#include "platform/host/processes/start_program.h"
#include "platform/host/session/context_directory.h"
#include "platform/host/session/name_registry.h"

// Opening an application: which program it is, whether it runs or is being opened, starting it, and
// waiting until it can be reached. All of this for one program happens in one process at a time,
// so that of many who want it at once one starts it.
//
// Waiting looks again and again, at moments further and further apart. File watching would tell at
// once, but giving a watch back takes the kernel longer than most programs take to start (12 ms),
// and there are few of them to a user.

namespace {

constexpr OSType kApplicationType = FourCC('A', 'P', 'P', 'L');

constexpr int64_t kPatience = 2 * kHostSecond;  // for whatever opening waits for

// A program that ends within kEarly of its start five times in a row is not started again at once:
// 1, 2, 4, 8 and then 10 s have to pass each time. A run of early ends is forgotten when the
// program is seen to live longer, or when its last start lies further back than any pause lasts.
constexpr int64_t kEarly = 2 * kHostSecond;
constexpr int kFirstPauseAfter = 5;  // early ends
constexpr int kMostDoublings = 4;
constexpr int64_t kLongestPause = 10 * kHostSecond;
constexpr int64_t kForgottenAfter = 60 * kHostSecond;

constinit std::atomic<bool> sIgnoresPauses{false};

// Moments of waiting: an eighth of the time waited until now, within limits, and never so short
// that looking itself takes the most of it.
constexpr int64_t kLookSoonest = kHostMillisecond / 10;
constexpr int64_t kLookLatest = 10 * kHostMillisecond;
constexpr int kLookShare = 8;
constexpr int kLookCost = 4;  // times what one look takes
// Those who only wait for another to open are many at times and must not hold it up.
constexpr int64_t kTurnSoonest = 2 * kHostMillisecond;

struct FreeText {
  void operator()(char* text) const { free(text); }
};

// The path without links, as /proc shows it of a process; as it is when it cannot be told.
std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, FreeText> real(realpath(path.c_str(), nullptr));
  return real != nullptr ? real.get() : path;
}

bool IsInTrash(const std::string& path) {
  const std::string data = HostDataFolder();
  if (!data.empty() && path.starts_with(data + "/Trash/")) return true;
  return path.find("/.Trash-" + std::to_string(getuid()) + "/") != std::string::npos ||
         path.find("/.Trash/") != std::string::npos;
}

bool IsExecutable(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

// The program that opening the item at `path` runs.
OSStatus ProgramOf(const std::string& path, std::string* program) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return HostFileStatus(errno);
  if (IsInTrash(path)) return kLSAppInTrashErr;
  if (!S_ISDIR(info.st_mode)) {
    if (!IsExecutable(path)) return kLSNotAnApplicationErr;
    *program = RealPath(path);
    return 0;
  }
  HostBundle bundle;
  int error = 0;
  if (!HostReadBundle(path, &bundle, &error)) {
    return error != 0 ? OSStatus{HostFileStatus(error)} : OSStatus{kLSNotAnApplicationErr};
  }
  if (bundle.packageType != kApplicationType) return kLSNotAnApplicationErr;
  if (bundle.executable.empty() || !IsExecutable(bundle.Program())) return kLSNoExecutableErr;
  *program = RealPath(bundle.Program());
  return 0;
}

OSStatus StatusOfStart(int error) {
  switch (error) {
    case 0:
      return 0;
    case EACCES:
    case EPERM:
    case ENOENT:
    case ENOTDIR:
    case ENOEXEC:
    case ELIBBAD:
    case EISDIR:
    case ELOOP:
    case EINVAL:
    case ETXTBSY:
      return kLSNoExecutableErr;
    default:
      return kLSUnknownErr;
  }
}

timespec TimeOf(int64_t nanoseconds) {
  return {static_cast<time_t>(nanoseconds / kHostSecond),
          static_cast<long>(nanoseconds % kHostSecond)};
}

// A signal ends it early.
void Nap(int64_t nanoseconds) {
  const timespec time = TimeOf(nanoseconds);
  nanosleep(&time, nullptr);
}

// A process by a descriptor, which no other process ever takes the place of.
class Process {
 public:
  Process() = default;
  explicit Process(const HostStartedProgram& started)
      : pid(started.pid), descriptor(started.descriptor) {}
  // Of a record; nobody when that process has ended.
  explicit Process(const HostLaunchEntry& entry) {
    if (entry.pid == 0) return;
    descriptor = static_cast<int>(syscall(SYS_pidfd_open, entry.pid, 0));
    ProcessSerialNumber psn;
    if (descriptor >= 0 && HostSerialNumberOfPid(entry.pid, &psn) &&
        psn.highLongOfPSN == entry.startTicks) {
      pid = entry.pid;
    }
  }
  ~Process() {
    if (descriptor >= 0) close(descriptor);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t Pid() const { return pid; }  // 0: nobody

  // Waits for its end, also across signals. Returns false if the time passes first.
  bool HasEnded(int64_t nanoseconds) const {
    const int64_t deadline = HostNow() + nanoseconds;
    for (;;) {
      pollfd entry = {descriptor, POLLIN, 0};
      const timespec time = TimeOf(std::max<int64_t>(deadline - HostNow(), 0));
      const int ready = ppoll(&entry, 1, &time, nullptr);
      if (ready >= 0 || errno != EINTR) return ready > 0;
    }
  }

  // Whether `other` is the process or one that it started: it began a session of its own, and what
  // it starts belongs to that until it leaves it.
  bool IsOrStarted(pid_t other) const { return pid != 0 && (other == pid || getsid(other) == pid); }

  // Whether one that it started lives, as behind a script or a program that puts itself into the
  // background.
  bool HasHeirs() const {
    ProcessSerialNumber psn = {0, kNoProcess};
    while (GetNextProcess(&psn) == 0) {
      if (getsid(static_cast<pid_t>(psn.lowLongOfPSN)) == pid) return true;
    }
    return false;
  }

 private:
  pid_t pid = 0;
  int descriptor = -1;
};

// The next moment to look, from when we began and from when the last look did.
int64_t NapUntilNextLook(int64_t began, int64_t looked, int64_t deadline) {
  const int64_t now = HostNow();
  const int64_t nap = std::clamp((now - began) / kLookShare, kLookSoonest, kLookLatest);
  return std::min(std::max(nap, kLookCost * (now - looked)), deadline - now);
}

// Waits until the process can be reached by a port, or has ended.
HostOpening WaitForPort(const Process& process, std::string* port) {
  const int64_t began = HostNow();
  const int64_t deadline = began + kPatience;
  bool hasEnded = false;
  for (;;) {
    const int64_t looked = HostNow();
    *port = HostFindNameOwnedBy([&](pid_t owner) { return process.IsOrStarted(owner); });
    if (!port->empty()) return HostOpening::kClaimed;
    const int64_t nap = NapUntilNextLook(began, looked, deadline);
    if (nap <= 0) return HostOpening::kSilent;
    if (process.HasEnded(hasEnded ? 0 : nap)) {
      if (!process.HasHeirs()) return HostOpening::kEnded;
      if (std::exchange(hasEnded, true)) Nap(nap);
    }
  }
}

// Waits until nobody else opens the program. False when that takes too long.
bool WaitForTurn(HostLaunchLock& lock) {
  const int64_t began = HostNow();
  while (!lock.Try()) {
    const int64_t waited = HostNow() - began;
    if (waited >= kPatience) return false;
    const int64_t nap = std::clamp(waited / kLookShare, kTurnSoonest, kLookLatest);
    Nap(nap);
  }
  return true;
}

bool RunsProgram(pid_t pid, const struct stat& program) {
  const std::string link = "/proc/" + std::to_string(pid) + "/exe";
  struct stat running;
  return stat(link.c_str(), &running) == 0 && running.st_ino == program.st_ino &&
         running.st_dev == program.st_dev;
}

// Whether a copy runs that can be reached, or will be: one that owns a port, or was started here
// and has not come to its port yet. One that had a port and has none any more is on its way out and
// is waited for, so that whoever asks for a daemon that just quits gets a new one.
bool Runs(const HostLaunchEntry& entry, HostOpeningInfo* info) {
  const Process last(entry);
  struct stat program;
  if (stat(info->program.c_str(), &program) != 0) return false;
  info->port = HostFindNameOwnedBy([&](pid_t owner) {
    if (!last.IsOrStarted(owner) && !RunsProgram(owner, program)) return false;
    info->pid = owner;
    return true;
  });
  if (!info->port.empty()) return true;
  if (last.Pid() == 0) return false;
  if (entry.hadPort) return last.HasEnded(kPatience), false;
  info->pid = last.Pid();
  return true;
}

// How long after `earlyEnds` early ends in a row a program is not started again.
int64_t PauseAfter(int earlyEnds) {
  if (earlyEnds < kFirstPauseAfter) return 0;
  const int doublings = std::min(earlyEnds - kFirstPauseAfter, kMostDoublings);
  return std::min(kHostSecond << doublings, kLongestPause);
}

// Counts the end of the entry's process, which has been seen now. An end that nobody saw within
// kEarly of the start counts for nothing: it may have been early or not.
void CountEnd(const std::string& program, HostLaunchEntry* entry) {
  const int64_t now = HostNow();
  if (entry->pid == 0 || entry->lastEarlyEnd >= entry->started) return;  // counted already
  if (now - entry->started >= kEarly) return;
  entry->earlyEnds = std::min(entry->earlyEnds + 1, kHostMaxEarlyEnds);
  entry->lastEarlyEnd = now;
  const int64_t pause = PauseAfter(entry->earlyEnds);
  if (pause > 0) {
    syslog(LOG_WARNING,
           "%s has ended within %d s of its start %d times in a row; the next start is possible in "
           "%d s",
           program.c_str(), static_cast<int>(kEarly / kHostSecond), entry->earlyEnds,
           static_cast<int>(pause / kHostSecond));
  }
}

// `past` is the entry of the start before.
OSStatus StartAndWait(HostLaunchLock& lock, const HostLaunchEntry& past, HostOpeningInfo* info) {
  HostLaunchEntry entry;
  entry.earlyEnds = past.earlyEnds;
  entry.lastEarlyEnd = past.lastEarlyEnd;
  lock.Write(entry);  // of no process until one has been started
  HostStartedProgram started;
  entry.started = HostNow();
  const int error = HostStartProgram(info->program.c_str(), &started);
  if (error != 0) return StatusOfStart(error);
  const Process process(started);
  ProcessSerialNumber psn;
  entry.pid = info->pid = process.Pid();
  if (HostSerialNumberOfPid(process.Pid(), &psn)) entry.startTicks = psn.highLongOfPSN;
  lock.Write(entry);
  info->outcome = WaitForPort(process, &info->port);
  entry.hadPort = info->outcome == HostOpening::kClaimed;
  entry.opened = HostNow();
  if (info->outcome == HostOpening::kEnded) CountEnd(info->program, &entry);
  if (info->outcome == HostOpening::kSilent) entry.earlyEnds = 0;
  lock.Write(entry);
  return 0;
}

OSStatus OpenProgram(HostOpeningInfo* info) {
  HostLaunchLock lock(info->program);
  if (!lock.IsUsable()) return kLSServerCommunicationErr;
  const int64_t arrived = HostNow();
  info->outcome = HostOpening::kUnderWay;
  const bool hadToWait = !lock.Try();
  const bool isOurTurn = !hadToWait || WaitForTurn(lock);
  const HostLaunchEntry entry = lock.Read();
  if (!isOurTurn) {
    if (entry.opened == 0) info->pid = entry.pid;  // of the start that is still under way
    return kLSLaunchInProgressErr;
  }
  // Whoever was before us has started it, whatever has become of it. (One who could not start it
  // has left no record: then it is for us to find out why.)
  if (hadToWait && entry.pid != 0 && entry.opened >= arrived) {
    info->pid = entry.pid;
    return kLSLaunchInProgressErr;
  }
  HostLaunchEntry past = entry;
  const int64_t age = HostNow() - past.started;
  if (age < 0) past = {};  // from before the machine was restarted
  if (age > kForgottenAfter) past.earlyEnds = 0;
  info->outcome = HostOpening::kRunning;
  if (Runs(entry, info)) {
    if (past.earlyEnds != 0 && age >= kEarly) past.earlyEnds = 0, lock.Write(past);
    return 0;
  }
  CountEnd(info->program, &past);
  const bool isPaused = HostNow() - past.lastEarlyEnd < PauseAfter(past.earlyEnds);
  if (isPaused && !sIgnoresPauses.load(std::memory_order_relaxed)) {
    lock.Write(past);
    return kLSServerCommunicationErr;
  }
  return StartAndWait(lock, past, info);
}

}  // namespace

void HostOpenDespitePauses() { sIgnoresPauses = true; }

OSStatus HostOpenApplication(const FSRef* application, HostOpeningInfo* info) {
  if (application == nullptr) return paramErr;
  HostItem item;
  std::string path;
  OSStatus err = HostItemOfRef(*application, &item);
  if (err == 0) err = HostPathOfItem(item, &path);
  if (err == 0) err = ProgramOf(path, &info->program);
  if (err == 0) err = OpenProgram(info);
  return err;
}

OSStatus LSOpenFSRef(const FSRef* application, FSRef* outLaunched) {
  HostOpeningInfo info;
  const OSStatus err = HostOpenApplication(application, &info);
  if (err == 0 && outLaunched != nullptr) *outLaunched = *application;
  return err;
}
