#include "platform/host/session/session_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <atomic>
#include <memory>
#include <mutex>

#include <syslog.h>

#include "platform/host/base/descriptors.h"

namespace {

constinit std::mutex sMutex;
constinit std::atomic<const HostSessionDirectory*> sSession{nullptr};

struct Location {
  std::string path;
  std::string source;
};

Location ChooseLocation(uid_t uid) {
  const char* runtime = getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] == '/') {
    return {std::string(runtime) + "/veltrane", "XDG_RUNTIME_DIR"};
  }
  const std::string number = std::to_string(uid);
  const std::string folder = "/run/user/" + number;
  struct stat info;
  if (stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    return {folder + "/veltrane", "/run/user"};
  }
  return {"/tmp/veltrane-" + number, "/tmp"};
}

std::string DescribeRefusal(const std::string& path, const struct stat* info, uid_t uid,
                            const char* reason) {
  char text[160] = "";
  if (info != nullptr) {
    snprintf(text, sizeof text, " (owner %u, mode %04o)", static_cast<unsigned>(info->st_uid),
             static_cast<unsigned>(info->st_mode & 07777));
  }
  char remedy[200];
  snprintf(remedy, sizeof remedy,
           "; it must be a directory of uid %u with mode 0700: remove it, or chown and chmod it, "
           "or set XDG_RUNTIME_DIR to a directory of your own",
           static_cast<unsigned>(uid));
  return "session directory " + path + text + " refused: " + reason + remedy;
}

bool IsShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOSPC ||
         error == EDQUOT;
}

// Opens the folder `name` of `parent`, which is created if it is missing, and checks that only this
// user can use it.
int OpenOwnDirectory(int parent, const char* name, const std::string& path, uid_t uid,
                     std::string* problem) {
  const bool made = mkdirat(parent, name, 0700) == 0;
  const int made_errno = made ? 0 : errno;
  struct stat info;
  // At once, whatever the umask is: without the owner's bits it could not be opened.
  if (made) fchmodat(parent, name, 0700, 0);
  const int fd =
      HostAboveStandard(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd < 0) {
    const int reason = made_errno != 0 && made_errno != EEXIST ? made_errno : errno;
    const bool seen = fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) == 0;
    const bool link = seen && S_ISLNK(info.st_mode);
    // A shortage in this process or on the machine is not a fault of the directory.
    if (!link && IsShortage(reason)) {
      *problem = "session directory " + path + " cannot be opened now: " + strerror(reason);
    } else {
      *problem = DescribeRefusal(path, seen ? &info : nullptr, uid,
                                 link ? "it is a symbolic link" : strerror(reason));
    }
    return -1;
  }
  const char* reason = nullptr;
  if (fstat(fd, &info) != 0) {
    reason = strerror(errno);
  } else if (info.st_uid != uid) {
    reason = "another user owns it";
  } else if ((info.st_mode & 07777) != 0700) {
    reason = "its mode is not 0700";
  }
  if (reason == nullptr) return fd;
  *problem = DescribeRefusal(path, &info, uid, reason);
  close(fd);
  return -1;
}

const HostSessionDirectory* OpenSession(const Location& location, uid_t uid, std::string* problem) {
  // All that may throw comes before the first file descriptor.
  auto made = std::make_unique<HostSessionDirectory>();
  HostSessionDirectory& session = *made;
  session.uid = uid;
  session.path = location.path;
  session.source = location.source;
  const std::string names = location.path + "/names";
  const std::string ports = location.path + "/ports";
  session.directory =
      OpenOwnDirectory(AT_FDCWD, location.path.c_str(), location.path, uid, problem);
  if (session.directory >= 0) {
    session.names = OpenOwnDirectory(session.directory, "names", names, uid, problem);
  }
  if (session.names >= 0) {
    session.ports = OpenOwnDirectory(session.directory, "ports", ports, uid, problem);
  }
  if (session.ports < 0) {
    if (session.names >= 0) close(session.names);
    if (session.directory >= 0) close(session.directory);
    return nullptr;
  }
  return made.release();
}

}  // namespace

const HostSessionDirectory* HostTrySessionDirectory(std::string* path, std::string* source,
                                                    std::string* problem) {
  const std::lock_guard<std::mutex> lock(sMutex);
  const HostSessionDirectory* session = sSession.load(std::memory_order_acquire);
  if (session == nullptr) {
    const uid_t uid = geteuid();
    const Location location = ChooseLocation(uid);
    *path = location.path;
    *source = location.source;
    session = OpenSession(location, uid, problem);
    if (session == nullptr) return nullptr;
    sSession.store(session, std::memory_order_release);
  }
  *path = session->path;
  *source = session->source;
  return session;
}

const HostSessionDirectory* HostGetSessionDirectory() {
  if (const HostSessionDirectory* session = sSession.load(std::memory_order_acquire))
    return session;
  static std::string* sLastProblem = new std::string;
  std::string path, source, problem;
  const HostSessionDirectory* session = HostTrySessionDirectory(&path, &source, &problem);
  if (session != nullptr) return session;
  const std::lock_guard<std::mutex> lock(sMutex);
  if (*sLastProblem != problem) {
    *sLastProblem = problem;
    syslog(LOG_ERR, "%s", problem.c_str());
  }
  return nullptr;
}
