#include "platform/host/session/name_registry.h"

#include <CoreServices/Processes.h>

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/host/base/descriptors.h"
#include "platform/host/base/directory.h"
#include "platform/host/base/file_lock.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/open_file.h"
#include "platform/host/base/thread_object.h"
#include "platform/host/processes/proc_status.h"
#include "platform/host/processes/serial_number.h"
#include "platform/host/session/session_directory.h"

// Names as file locks.
//
// The owner of a name holds two open-file-description locks on the name's file: the one on byte 0
// makes it the owner, the one on byte 1 + port id publishes its port. The kernel removes both as
// soon as the owner ends, however it ends, so what a lock shows is never stale. The content of the
// file, the owner line, is for people and for cleaning up only.
//
//   unowned --lock byte 0--> claimed --lock byte 1 + port id--> published --release or end-->
//   unowned
//
// Claiming. Open the file, lock byte 0, and check that the path still leads to that file; if it was
// removed in between, start again. One of any number of racing processes gets the lock. It then
// removes the socket of the owner before, writes the owner line, publishes the port, and looks the
// name up once as others do, since a foreign lock on a lower byte would hide the port. The owner
// unlinks the file before it gives up the locks; a process that opened it meanwhile starts again.
//
// Looking up. Query the first lock from byte 1 on. A name that is claimed but not yet published is
// unknown. A thread that looks the same name up again keeps the file open; then it only queries the
// lock and checks that the file has not been removed.
//
// Cleaning up. Each claim examines some files, beginning at a random one, and removes those without
// an owner that are a day old or are the hidden name of a process that has ended. It locks byte 0
// of such a file meanwhile.
//
// Locks. No mutex but that of the log line is held here. Opening delays forks (descriptors.h) and
// therefore never waits, whatever is at the path.

namespace {

constexpr size_t kMaxNameBytes = BOOTSTRAP_MAX_NAME_LEN - 1;
// Limits of what one claim does to clean up, so that its time does not grow with the number of
// names.
constexpr int kEntriesPerClaim = 512;      // name files that it examines,
constexpr int kRemovalsPerClaim = 128;     // that it removes at most,
constexpr uint32_t kSkippedAtMost = 4096;  // and passes over to begin anywhere
constexpr time_t kStaleSeconds = 24 * 60 * 60;
// Sticky, so that directory cleaners spare the file.
constexpr mode_t kNameFileMode = S_ISVTX | 0600;

struct NameFile {
  char text[2 * kMaxNameBytes + 1];
};

bool EncodeName(const char* name, NameFile* file) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const size_t size = strnlen(name, kMaxNameBytes + 1);
  if (size == 0 || size > kMaxNameBytes) return false;
  char* out = file->text;
  for (size_t i = 0; i < size; i++) {
    const auto byte = static_cast<unsigned char>(name[i]);
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 15];
  }
  *out = 0;
  return true;
}

int DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

std::optional<std::string> DecodeName(const char* text) {
  const size_t size = strlen(text);
  if (size == 0 || size % 2 != 0 || size > 2 * kMaxNameBytes) return std::nullopt;
  std::string name;
  for (size_t i = 0; i < size; i += 2) {
    const int high = DigitValue(text[i]), low = DigitValue(text[i + 1]);
    if (high < 0 || low < 0 || (high == 0 && low == 0)) return std::nullopt;
    name.push_back(static_cast<char>(high << 4 | low));
  }
  return name;
}

struct flock LockOf(short type, off_t start, off_t length) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = start;
  lock.l_len = length;  // 0: to the end
  return lock;
}

off_t OffsetOf(uint64_t portId) {
  assert(portId != 0 && portId >> 62 == 0);  // above the owner's byte, within a file's size
  return static_cast<off_t>(portId + 1);
}

// Returns 0 if no owner has published a port, also after an error.
uint64_t PublishedPort(int fd) {
  struct flock lock = LockOf(F_WRLCK, 1, 0);
  if (fcntl(fd, F_OFD_GETLK, &lock) != 0 || lock.l_type == F_UNLCK || lock.l_start < 2) return 0;
  return static_cast<uint64_t>(lock.l_start) - 1;
}

// The owner line of a name file: for people, and for the process that cleans up after the owner.
struct OwnerLine {
  long pid = 0;
  unsigned long uid = 0;
  UInt32 startTicks = 0;
  uint64_t portId = 0;
};

std::optional<OwnerLine> ReadOwnerLine(int fd) {
  char text[160];
  const ssize_t size = pread(fd, text, sizeof text - 1, 0);
  if (size <= 0) return std::nullopt;
  text[size] = 0;
  OwnerLine line;
  if (sscanf(text, "pid %10ld uid %10lu start %10" SCNu32 " port %16" SCNx64, &line.pid, &line.uid,
             &line.startTicks, &line.portId) != 4) {
    return std::nullopt;
  }
  return line;
}

bool WriteOwnerLine(int fd, uint64_t portId) {
  ProcessSerialNumber psn = {0, 0};
  GetCurrentProcess(&psn);
  char text[160];
  const int size =
      snprintf(text, sizeof text, "pid %ld uid %lu start %" PRIu32 " port %016" PRIx64 "\n",
               static_cast<long>(getpid()), static_cast<unsigned long>(geteuid()),
               psn.highLongOfPSN, portId);
  if (ftruncate(fd, 0) != 0) return false;
  const ssize_t written = pwrite(fd, text, static_cast<size_t>(size), 0);
  if (written >= 0 && written != size) errno = ENOSPC;
  return written == size;
}

void RemoveSocket(const HostSessionDirectory& session, uint64_t portId) {
  char file[17];
  HostPortFileName(portId, file);
  unlinkat(session.ports, file, 0);
}

kern_return_t StatusOf(int error) {
  switch (error) {
    case EACCES:
    case EPERM:
    case EROFS:
      return BOOTSTRAP_NOT_PRIVILEGED;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOSPC:
    case EDQUOT:
    case ENOLCK:
      return BOOTSTRAP_NO_MEMORY;
    default:
      return KERN_FAILURE;
  }
}

// Logs what is wrong with the session's names, once for each reason in a row.
void LogProblem(const std::string& problem) {
  static constinit std::mutex sMutex;
  static std::string* sLast = new std::string;
  const std::lock_guard<std::mutex> lock(sMutex);
  if (*sLast == problem) return;
  *sLast = problem;
  syslog(LOG_ERR, "%s", problem.c_str());
}

// Logs why the file of a name cannot be used. Returns the status that stands for `error`.
kern_return_t RefuseNameFile(const HostSessionDirectory& session, const char* file, int error) {
  struct stat info = {};
  std::string reason = strerror(error);
  if (fstatat(session.names, file, &info, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(info.st_mode)) {
    reason = "it is not a regular file";
  }
  LogProblem("port name \"" + DecodeName(file).value_or(file) + "\": its file " + session.path +
             "/names/" + file + " cannot be used: " + reason + "; remove it");
  return StatusOf(error);
}

bool IsRegularFile(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

// Whether opening failed because of what is at the name's path.
bool IsFileUnusable(int error) {
  return error == EACCES || error == EPERM || error == ELOOP || error == EISDIR || error == ENXIO ||
         error == ENODEV || error == EINVAL;
}

// Opens the file of a name with `flags`, and enters it, so that no forked child keeps it. Returns
// the file descriptor, or -1 with errno, which is EINVAL if the file is not a regular one. Never
// waits, whatever is at the path, because forks are delayed meanwhile.
int OpenNameFile(const HostSessionDirectory& session, const char* file, int flags) {
  int fd = -1;
  {
    HostDescriptorOpening opening;
    fd =
        opening.Enter(openat(session.names, file,
                             flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, kNameFileMode),
                      HostDescriptorKind::kNameFile);
  }
  if (fd < 0 || IsRegularFile(fd)) return fd;
  HostCloseDescriptor(fd);
  errno = EINVAL;
  return -1;
}

// Locks byte 0 of `file`, which makes this process the owner of the name.
kern_return_t TakeOwnership(const HostSessionDirectory& session, const char* file, int* claim) {
  for (;;) {
    const int fd = OpenNameFile(session, file, O_RDWR | O_CREAT);
    if (fd < 0) {
      return IsFileUnusable(errno) ? RefuseNameFile(session, file, errno)
                                   : HostRegistrationStatus(errno);
    }
    if (!HostTryLockByte(fd, 0)) {
      const int error = errno;
      HostCloseDescriptor(fd);
      return error == EAGAIN || error == EACCES ? BOOTSTRAP_NAME_IN_USE
                                                : HostRegistrationStatus(error);
    }
    // A file that was removed between open and lock guards nothing: start again.
    if (HostIsSameFile(session.names, file, fd)) {
      *claim = fd;
      return 0;
    }
    struct stat info;
    const bool gone = fstat(session.names, &info) != 0 || info.st_nlink == 0;
    HostCloseDescriptor(fd);
    if (gone) return KERN_FAILURE;
  }
}

// Whether `line` is the owner line of a hidden name whose process has ended.
bool IsOfEndedProcess(const std::optional<OwnerLine>& line) {
  ProcessSerialNumber psn = {0, 0};
  if (!line || line->pid <= 0) return false;
  return !HostSerialNumberOfPid(static_cast<pid_t>(line->pid), &psn) ||
         psn.highLongOfPSN != line->startTicks;
}

// Removes a file without an owner if it has not been changed for a day, or is the hidden name of a
// process that has ended, which is never claimed again. Locks the file meanwhile.
bool RemoveIfStale(const HostSessionDirectory& session, const char* file) {
  struct stat info;
  if (fstatat(session.names, file, &info, AT_SYMLINK_NOFOLLOW) != 0) return false;
  const bool isHidden = strncmp(file, "01", 2) == 0;
  const bool isOld = info.st_mtime <= time(nullptr) - kStaleSeconds;
  if (!S_ISREG(info.st_mode) || !(isOld || isHidden)) return false;
  const int fd = HostAboveStandard(
      openat(session.names, file, O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  if (fd < 0) return false;
  // A young file that is being claimed is not locked even for a moment: its claim would fail.
  const bool ours = (isOld || IsOfEndedProcess(ReadOwnerLine(fd))) && HostTryLockByte(fd, 0) &&
                    HostIsSameFile(session.names, file, fd);
  if (ours) {
    if (const auto line = ReadOwnerLine(fd)) RemoveSocket(session, line->portId);
    unlinkat(session.names, file, 0);
  }
  close(fd);
  return ours;
}

// Examines some of the names, beginning at a random one, because the first ones may stay in use for
// long.
void RemoveStaleFiles(const HostSessionDirectory& session) {
  HostDirectory directory(session.names, ".");
  if (!directory.IsOpen()) return;
  uint32_t skipped = 0;
  if (getrandom(&skipped, sizeof skipped, 0) != sizeof skipped) skipped = 0;
  skipped %= kSkippedAtMost;
  uint32_t count = 0;
  while (count < skipped && directory.Next() != nullptr) count++;
  if (count < skipped) {  // fewer than that: round once more
    directory.Rewind();
    for (uint32_t left = count == 0 ? 0 : skipped % count; left > 0; left--) {
      static_cast<void>(directory.Next());
    }
  }
  int removed = 0;
  bool isRound = false;
  for (int seen = 0; seen < kEntriesPerClaim && removed < kRemovalsPerClaim; seen++) {
    const dirent* entry = directory.Next();
    if (entry == nullptr) {
      if (std::exchange(isRound, true)) return;
      directory.Rewind();
    } else if (entry->d_name[0] != '.' && RemoveIfStale(session, entry->d_name)) {
      removed++;
    }
  }
}

int OpenToLook(const HostSessionDirectory& session, const char* file) {
  return HostAboveStandard(
      openat(session.names, file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
}

// The name that a thread looked up last. The second look-up in a row keeps the name's file open,
// since opening it costs more than querying its lock. Further look-ups only query the lock and
// check that the file has not been removed.
class LastLookUp {
 public:
  LastLookUp() = default;
  LastLookUp(const LastLookUp&) = delete;
  LastLookUp& operator=(const LastLookUp&) = delete;
  ~LastLookUp() { Close(); }

  bool IsOf(const NameFile& file) const { return strcmp(name.text, file.text) == 0; }
  uint64_t Ask();
  kern_return_t OpenAndQuery(const HostSessionDirectory& session, const NameFile& file,
                             uint64_t* portId);

 private:
  void Close();

  NameFile name = {};
  int descriptor = -1;      // of the name's file, read-only; -1: not kept
  uint32_t generation = 0;  // HostForkGeneration when it was opened
};

void LastLookUp::Close() {
  // In a forked child the number may be another file's.
  if (generation == HostForkGeneration()) HostCloseDescriptor(descriptor);
  descriptor = -1;
}

// Returns the published port, or 0 if the kept file has none; then the name's file must be opened
// again.
uint64_t LastLookUp::Ask() {
  if (descriptor < 0 || generation != HostForkGeneration()) return 0;
  const uint64_t port = PublishedPort(descriptor);
  struct stat info;
  // Checked after the lock: if another owner has taken the name since, it has another file.
  return port != 0 && fstat(descriptor, &info) == 0 && info.st_nlink > 0 ? port : 0;
}

// Does the same as HostFindName.
kern_return_t LastLookUp::OpenAndQuery(const HostSessionDirectory& session, const NameFile& file,
                                       uint64_t* portId) {
  const bool isAgain = IsOf(file);
  Close();
  generation = HostForkGeneration();
  name = file;

  const int fd = OpenNameFile(session, file.text, O_RDONLY);
  if (fd < 0) {
    if (errno == ENOENT) return BOOTSTRAP_UNKNOWN_SERVICE;
    return IsFileUnusable(errno) ? RefuseNameFile(session, file.text, errno)
                                 : HostRegistrationStatus(errno);
  }
  const uint64_t port = PublishedPort(fd);
  if (isAgain && port != 0) {
    descriptor = fd;
  } else {
    HostCloseDescriptor(fd);
  }
  if (port == 0) return BOOTSTRAP_UNKNOWN_SERVICE;
  *portId = port;
  return BOOTSTRAP_SUCCESS;
}

// Whether others find `portId` in the name's file. Opens the file once more, because the locks of
// an opening do not exclude that opening itself. Returns true if there are no file descriptors
// left.
bool IsFound(const HostSessionDirectory& session, const char* file, uint64_t portId) {
  const int fd = OpenToLook(session, file);
  if (fd < 0) return true;
  const uint64_t found = PublishedPort(fd);
  close(fd);
  return found == portId;
}

// The pid in the owner line, or 0 if that line does not belong to the published port.
pid_t PublishedOwner(uint64_t port, const std::optional<OwnerLine>& line) {
  const bool isCurrent = port != 0 && line && line->portId == port && line->pid > 0;
  return isCurrent ? static_cast<pid_t>(line->pid) : 0;
}

std::optional<HostNameInfo> ReadNameFile(const HostSessionDirectory& session, const char* file) {
  const auto name = DecodeName(file);
  if (!name) return std::nullopt;
  const int fd = OpenToLook(session, file);
  if (fd < 0) return std::nullopt;
  const uint64_t port = PublishedPort(fd);
  const auto line = ReadOwnerLine(fd);
  struct stat info = {};
  fstat(fd, &info);
  close(fd);
  if (port == 0) return std::nullopt;

  HostNameInfo result;
  result.name = *name;
  result.hidden = (*name)[0] == 1;
  result.portID = port;
  result.ageSeconds = std::max<double>(0, difftime(time(nullptr), info.st_mtime));
  if (const pid_t owner = PublishedOwner(port, line); owner != 0) {
    result.ownerPid = owner;
    result.ownerUid = static_cast<uid_t>(line->uid);
    result.program = HostProgramPath(result.ownerPid);
  }
  return result;
}

}  // namespace

kern_return_t HostRegistrationStatus(int error) {
  if (const HostSessionDirectory* session = HostGetSessionDirectory()) {
    const char* const hint = error == ENOENT ? " (is /proc mounted?)" : "";
    LogProblem("port names in " + session->path + " cannot be used: " + strerror(error) + hint);
  }
  return StatusOf(error);
}

kern_return_t HostClaimName(const char* name, uint64_t portId, int* claim) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return KERN_FAILURE;
  NameFile file;
  if (!EncodeName(name, &file)) return KERN_INVALID_ARGUMENT;
  int fd = -1;
  if (const kern_return_t err = TakeOwnership(*session, file.text, &fd); err != 0) return err;

  if (const auto line = ReadOwnerLine(fd)) RemoveSocket(*session, line->portId);
  fchmod(fd, kNameFileMode);  // whatever the umask is
  // Published last: from here on others find the port.
  if (!WriteOwnerLine(fd, portId) || !HostTryLockByte(fd, OffsetOf(portId))) {
    const kern_return_t err = HostRegistrationStatus(errno);
    HostReleaseName(name, fd);
    return err;
  }
  if (!IsFound(*session, file.text, portId)) {
    LogProblem("port name \"" + std::string(name) +
               "\": another program has locked part of its file " + session->path + "/names/" +
               file.text + ", so that nobody would find the port; end it");
    HostReleaseName(name, fd);
    return KERN_FAILURE;
  }
  futimens(fd, nullptr);  // a lock wakes no file watcher, this does
  *claim = fd;
  HostGuard([session] { RemoveStaleFiles(*session); });  // without memory another claim does it
  return 0;
}

void HostReleaseName(const char* name, int claim) {
  assert(claim >= 0);
  const HostSessionDirectory* session = HostGetSessionDirectory();
  NameFile file;
  // The file is still locked: a process that opens it meanwhile finds, once it has the lock, that
  // it is gone.
  if (session != nullptr && EncodeName(name, &file) &&
      HostIsSameFile(session->names, file.text, claim)) {
    unlinkat(session->names, file.text, 0);
  }
  HostCloseDescriptor(claim);
}

kern_return_t HostFindName(const char* name, uint64_t* portId) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return KERN_FAILURE;
  NameFile file;
  if (!EncodeName(name, &file)) return BOOTSTRAP_UNKNOWN_SERVICE;
  LastLookUp& last = HostThreadObject<LastLookUp>();
  if (last.IsOf(file)) {
    if (const uint64_t port = last.Ask(); port != 0) {
      *portId = port;
      return BOOTSTRAP_SUCCESS;
    }
  }
  return last.OpenAndQuery(*session, file, portId);
}

std::string HostFindNameOwnedBy(const std::function<bool(pid_t)>& isOwner) {
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return {};
  HostDirectory directory(session->names, ".");
  if (!directory.IsOpen()) return {};
  std::string hidden;
  while (const dirent* entry = directory.Next()) {
    const auto name = DecodeName(entry->d_name);
    if (!name) continue;
    const HostOpenFile file(OpenToLook(*session, entry->d_name));
    if (!file.IsOpen()) continue;
    const pid_t owner = PublishedOwner(PublishedPort(file.Get()), ReadOwnerLine(file.Get()));
    if (owner == 0 || !isOwner(owner)) continue;
    if ((*name)[0] != 1) return *name;
    hidden = *name;
  }
  return hidden;
}

std::vector<HostNameInfo> HostReadNames() {
  std::vector<HostNameInfo> names;
  const HostSessionDirectory* session = HostGetSessionDirectory();
  if (session == nullptr) return names;
  HostDirectory directory(session->names, ".");
  if (!directory.IsOpen()) return names;
  while (const dirent* entry = directory.Next()) {
    if (auto info = ReadNameFile(*session, entry->d_name)) names.push_back(std::move(*info));
  }
  return names;
}

std::string HostEventPortName(const ProcessSerialNumber& psn) {
  char text[18];
  snprintf(text, sizeof text, "\x01%08" PRIx32 "%08" PRIx32, psn.highLongOfPSN, psn.lowLongOfPSN);
  return text;
}

void HostPortFileName(uint64_t portId, char (&text)[17]) {
  snprintf(text, sizeof text, "%016" PRIx64, portId);
}
