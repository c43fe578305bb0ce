#include "platform/host/applications/open_application.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>

#include <CoreServices/LaunchServices.h>
#include <CoreServices/MacErrors.h>

#include "platform/host/applications/bundle.h"
#include "platform/host/applications/launch_lock.h"
#include "platform/host/applications/program_log.h"
#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/user_folders.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"
#include "platform/host/processes/serial_number.h"
#include "platform/host/processes/start_program.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/session_directory.h"

// Opening an application takes four steps: find the program, check whether it runs or is being
// opened, start it, and wait until it can be reached. Only the holder of the program's launch lock
// takes the last three, so if many processes open a program at once, one of them starts it.
//
// The others wait for the lock, at most kPatience. A process that gets it after the holder has
// started the program reports that a launch is in progress; one that gets it after the holder has
// failed to start the program tries itself. The launch entry, the content of the lock file, shows
// which of the two it was.
//
// A program runs already if a process that runs its file owns a port, or if the process of the last
// start or one of that process's POSIX session does. The process of the last start also counts
// before it owns a port. After it has owned one and owns none any more it is about to end: its end
// is waited for, then the program is started again.
//
// Waiting polls at growing intervals. A file watch would report at once, but removing one takes the
// kernel 12 ms, longer than most programs take to start, and each user may have only a few.

namespace {

constexpr OSType kApplicationType = FourCC('A', 'P', 'P', 'L');

constexpr int64_t kPatience = 2 * kHostSecond;  // the limit of each wait during an opening

// A program that ends within kEarly of its start five times in a row is not started again at once:
// 1, 2, 4, 8 and then 10 s have to pass each time. A run of early ends is forgotten when the
// program is seen to live longer, or when nothing has been seen of it for longer than any pause.
constexpr int64_t kEarly = 2 * kHostSecond;
constexpr int kFirstPauseAfter = 5;  // early ends
constexpr int kMostDoublings = 4;
constexpr int64_t kLongestPause = 10 * kHostSecond;
constexpr int64_t kForgottenAfter = 60 * kHostSecond;

constinit std::atomic<bool> sIgnoresPauses{false};

// A pause between two polls is an eighth of the time waited so far, within limits, and at least
// four times as long as one poll takes.
constexpr int64_t kLookSoonest = kHostMillisecond / 10;
constexpr int64_t kLookLatest = 10 * kHostMillisecond;
constexpr int kLookShare = 8;
constexpr int kLookCost = 4;  // times what one look takes
// Many processes may wait for one opener and must not slow it down.
constexpr int64_t kTurnSoonest = 2 * kHostMillisecond;

// Returns the path without links, as /proc shows it for a process, or `path` if that fails.
std::string RealPath(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr ? real : path;
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

// Finds the program that runs when the item at `path` is opened.
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

// A signal ends the sleep early; callers poll.
void Nap(int64_t nanoseconds) {
  const timespec time = TimeOf(nanoseconds);
  nanosleep(&time, nullptr);
}

// A process that is held by a pidfd, so that no other process can be mistaken for it.
class Process {
 public:
  Process() = default;
  explicit Process(const HostStartedProgram& started)
      : pid(started.pid), descriptor(started.descriptor) {}
  // The process of an entry, unless it has ended.
  explicit Process(const HostLaunchEntry& entry) {
    if (entry.pid == 0) return;
    descriptor = HostAboveStandard(static_cast<int>(syscall(SYS_pidfd_open, entry.pid, 0)));
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

  pid_t Pid() const { return pid; }  // 0: it has ended

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

  // Whether `other` is the process or belongs to the POSIX session that the process began, as the
  // processes that it starts do.
  bool IsOrStarted(pid_t other) const { return pid != 0 && (other == pid || getsid(other) == pid); }

  // Whether a process of its POSIX session is alive, as after a script or a program that puts
  // itself into the background.
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

// Returns how long to sleep before the next poll. `began` is when the wait began, `looked` when the
// last poll began.
int64_t NapUntilNextLook(int64_t began, int64_t looked, int64_t deadline) {
  const int64_t now = HostNow();
  const int64_t nap = std::clamp((now - began) / kLookShare, kLookSoonest, kLookLatest);
  return std::min(std::max(nap, kLookCost * (now - looked)), deadline - now);
}

// Waits until the process or one of its POSIX session owns a port, or all have ended.
HostOpening WaitForPort(const Process& process, std::string* port) {
  assert(process.Pid() != 0);
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

// Waits until no other process opens the program. Returns false if that takes too long.
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

// Whether the program runs, as described above. Fills `info` if so.
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

// Counts the end of the entry's process, which has been seen now. An end that no opener saw within
// kEarly of the start does not count, because it may have been early or not.
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

// The log of a program that is being started.
class ProgramLog {
 public:
  explicit ProgramLog(HostOpeningInfo* info) {
    const std::string path = HostProgramLogPath(info->program);
    std::string problem;
    descriptor = HostOpenProgramLog(path, &problem);
    if (descriptor >= 0) {
      info->log = path;
    } else {
      syslog(LOG_WARNING, "the output of %s is lost, because its log %s cannot be opened: %s",
             info->program.c_str(), path.c_str(), problem.c_str());
    }
  }
  ~ProgramLog() {
    if (descriptor >= 0) close(descriptor);
  }
  ProgramLog(const ProgramLog&) = delete;
  ProgramLog& operator=(const ProgramLog&) = delete;

  int Descriptor() const { return descriptor; }
  void Note(const std::string& text) const { HostNoteInProgramLog(descriptor, text); }

  void NoteEnd(const HostOpeningInfo& info, int64_t nanoseconds) const {
    const std::string how = info.waitStatus ? HostEndText(*info.waitStatus) : "unknown status";
    const auto milliseconds = static_cast<long long>(nanoseconds / kHostMillisecond);
    Note("process " + std::to_string(info.pid) + " ended: " + how + ", " +
         std::to_string(milliseconds) + " ms after its start");
    syslog(LOG_WARNING, "%s ended with %s, %lld ms after its start and before it had a port%s%s",
           info.program.c_str(), how.c_str(), milliseconds,
           info.log.empty() ? "" : "; its output is in ", info.log.c_str());
  }

 private:
  int descriptor = -1;
};

// `past` is the entry of the start before.
OSStatus StartAndWait(HostLaunchLock& lock, const HostLaunchEntry& past, HostOpeningInfo* info) {
  assert(!info->program.empty() && info->program[0] == '/');
  HostLaunchEntry entry;
  entry.earlyEnds = past.earlyEnds;
  entry.lastEarlyEnd = past.lastEarlyEnd;
  lock.Write(entry);  // of no process until one has been started
  const ProgramLog log(info);
  log.Note("starting " + info->program);  // before any output of the program
  HostEndWatch watch;
  HostStartedProgram started;
  entry.started = HostNow();
  const int error = HostStartProgram(info->program.c_str(), &started,
                                     {.output = log.Descriptor(), .watch = &watch});
  if (error != 0) {
    log.Note("could not be started: " + std::string(strerror(error)));
    return StatusOfStart(error);
  }
  const Process process(started);
  ProcessSerialNumber psn;
  entry.pid = info->pid = process.Pid();
  if (HostSerialNumberOfPid(process.Pid(), &psn)) entry.startTicks = psn.highLongOfPSN;
  lock.Write(entry);
  info->outcome = WaitForPort(process, &info->port);
  entry.hadPort = info->outcome == HostOpening::kClaimed;
  entry.opened = HostNow();
  if (info->outcome == HostOpening::kEnded) {
    info->waitStatus = watch.Status();
    log.NoteEnd(*info, entry.opened - entry.started);
    CountEnd(info->program, &entry);
  }
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
  // The holder before has started the program, even if it has ended since. A holder that could not
  // start it leaves an entry without a process.
  if (hadToWait && entry.pid != 0 && entry.opened >= arrived) {
    info->pid = entry.pid;
    return kLSLaunchInProgressErr;
  }
  HostLaunchEntry past = entry;
  const int64_t now = HostNow();
  const int64_t latest = std::max(past.started, past.lastEarlyEnd);
  if (latest > now) past = {};  // from before the machine was restarted
  if (now - latest > kForgottenAfter) past.earlyEnds = 0;
  info->outcome = HostOpening::kRunning;
  if (Runs(entry, info)) {
    if (past.earlyEnds != 0 && now - past.started >= kEarly) past.earlyEnds = 0, lock.Write(past);
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
  const OSStatus err = HostGuard(OSStatus{memFullErr}, [application] {
    HostOpeningInfo info;
    return HostOpenApplication(application, &info);
  });
  if (err == 0 && outLaunched != nullptr) *outLaunched = *application;
  return err;
}
