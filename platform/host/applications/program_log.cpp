#include "platform/host/applications/program_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "platform/host/applications/bundle.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/user_folders.h"

namespace {

constexpr size_t kMostNameBytes = 200;
constexpr size_t kTailBytes = 64 * 1024;  // in which the last lines are looked for

// Makes an identifier a file name: no slash, no dot at the start, no control characters.
std::string FileNameFor(const std::string& identifier) {
  std::string name;
  for (const char c : identifier) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte <= 0x20 || byte == 0x7F || c == '/' || c == '%' || (c == '.' && name.empty())) {
      char escape[4];
      snprintf(escape, sizeof escape, "%%%02x", byte);
      name += escape;
    } else {
      name += c;
    }
  }
  return name.substr(0, kMostNameBytes);
}

// Creates the folders above the last slash that are missing.
bool MakeFolders(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (mkdir(path.substr(0, slash).c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Reads up to `count` bytes that begin at `offset`.
std::string ReadPart(int fd, off_t offset, size_t count) {
  std::string bytes(count, 0);
  size_t filled = 0;
  while (filled < count) {
    const ssize_t size =
        pread(fd, bytes.data() + filled, count - filled, offset + static_cast<off_t>(filled));
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    filled += static_cast<size_t>(size);
  }
  bytes.resize(filled);
  return bytes;
}

bool WriteAll(int fd, const std::string& bytes) {
  for (size_t written = 0; written < bytes.size();) {
    const ssize_t size = write(fd, bytes.data() + written, bytes.size() - written);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return false;
    written += static_cast<size_t>(size);
  }
  return true;
}

// Moves the last part into the older file. Programs go on writing at the new end, because all of
// them append; what one writes between the two steps is lost. If there is no room for the older
// file, the log is emptied all the same.
void MoveLastPart(int fd, const std::string& path, off_t size) {
  const std::string fresh = path + ".1.new";
  const int older =
      open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (older >= 0) {
    const bool isWhole = WriteAll(older, ReadPart(fd, size - kHostMostLogBytes, kHostMostLogBytes));
    close(older);
    if (!isWhole || rename(fresh.c_str(), (path + ".1").c_str()) != 0) unlink(fresh.c_str());
  }
  (void)!ftruncate(fd, 0);
}

// Cuts a log that is too long, unless another process is cutting it: a second cut would replace the
// older file by the little that was written since the first. The lock belongs to the open file,
// which the started program inherits, so it has to end here.
void Cut(int fd, const std::string& path) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) return;
  struct stat info;
  if (fstat(fd, &info) == 0 && info.st_size > kHostMostLogBytes) {
    MoveLastPart(fd, path, info.st_size);
  }
  flock(fd, LOCK_UN);
}

// Opens a log that is a regular file of this user. Returns -1 with the reason in `problem`, or with
// errno in it.
int OpenOwnFile(const std::string& path, int flags, std::string* problem) {
  int fd = open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
  fd = fd >= 0 ? HostAboveStandard(fd) : fd;
  if (fd < 0) return *problem = strerror(errno), -1;
  struct stat info;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == geteuid()) return fd;
  *problem = "it is not a regular file of this user";
  close(fd);
  errno = EPERM;
  return -1;
}

std::string TailOf(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return "";
  struct stat info;
  std::string bytes;
  if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    bytes = ReadPart(fd, std::max<off_t>(info.st_size - off_t{kTailBytes}, 0), kTailBytes);
  }
  close(fd);
  return bytes;
}

}  // namespace

std::string HostProgramLogPath(const std::string& program) {
  const std::string state = HostStateFolder();
  if (state.empty()) return "";
  HostBundle bundle;
  std::string name = program.substr(program.rfind('/') + 1);
  if (HostBundleOfProgram(program, &bundle) && !bundle.identifier.empty()) name = bundle.identifier;
  return state + "/veltrane/log/" + FileNameFor(name) + ".log";
}

int HostOpenProgramLog(const std::string& path, std::string* problem) {
  *problem = "there is no home folder";
  if (path.empty()) return -1;
  const int flags = O_RDWR | O_APPEND | O_CREAT;
  int fd = OpenOwnFile(path, flags, problem);
  if (fd < 0 && errno == ENOENT && MakeFolders(path)) fd = OpenOwnFile(path, flags, problem);
  if (fd < 0) return -1;
  fcntl(fd, F_SETFL, O_APPEND);  // blocking, as programs expect of their output
  Cut(fd, path);
  HostCutProgramLogs();
  return fd;
}

void HostCutProgramLogs() {
  std::error_code error;
  std::filesystem::directory_iterator file(HostStateFolder() + "/veltrane/log", error), end;
  for (; !error && file != end; file.increment(error)) {
    const std::string path = file->path();
    struct stat info;
    if (!path.ends_with(".log") || lstat(path.c_str(), &info) != 0 ||
        info.st_size <= kHostMostLogBytes) {
      continue;
    }
    std::string ignored;
    const int fd = OpenOwnFile(path, O_RDWR | O_APPEND, &ignored);
    if (fd < 0) continue;
    Cut(fd, path);
    close(fd);
  }
}

void HostNoteInProgramLog(int log, const std::string& text) {
  if (log < 0) return;
  char when[32] = "";
  const time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) != nullptr) strftime(when, sizeof when, "%F %T", &local);
  const std::string line = std::string("-- ") + when + " " + text + "\n";
  (void)!write(log, line.data(), line.size());
}

std::vector<std::string> HostLastLogLines(const std::string& path, size_t count) {
  std::string bytes = TailOf(path);
  if (bytes.size() < kTailBytes) bytes = TailOf(path + ".1") + bytes;
  if (!bytes.empty() && bytes.back() == '\n') bytes.pop_back();
  std::vector<std::string> lines;
  while (!bytes.empty() && lines.size() < count) {
    const size_t feed = bytes.rfind('\n');
    lines.insert(lines.begin(), feed == std::string::npos ? bytes : bytes.substr(feed + 1));
    bytes.resize(feed == std::string::npos ? 0 : feed);
  }
  return lines;
}

std::string HostEndText(int waitStatus) {
  if (WIFEXITED(waitStatus)) return "exit status " + std::to_string(WEXITSTATUS(waitStatus));
  const int number = WTERMSIG(waitStatus);
  const char* const name = sigdescr_np(number);
  return "signal " + std::to_string(number) +
         (name != nullptr ? " (" + std::string(name) + ")" : "");
}
