#include "plist/file_replacement.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <string_view>
#include <system_error>
#include <utility>

namespace {

constexpr CFIndex kMaxPathBytes = 4096;
constexpr int kMaxLinks = 40;
constexpr char kNewName[] = "new";

std::string PathOf(CFURLRef file) {
  std::string bytes(kMaxPathBytes, 0);
  auto* const buffer = reinterpret_cast<UInt8*>(bytes.data());
  if (!CFURLGetFileSystemRepresentation(file, true, buffer, kMaxPathBytes)) return "";
  return bytes.c_str();
}

bool IsLink(const std::filesystem::path& path) {
  std::error_code ignored;
  return std::filesystem::is_symlink(path, ignored);
}

// Returns the path at the end of a chain of symbolic links, whether or not it exists, or "" if the
// chain is too long or cannot be followed. A link in /dev ends the chain, because it stands for an
// open file and leads there only when it is opened.
std::filesystem::path FollowLinks(std::filesystem::path path) {
  std::error_code failure;
  for (int i = 0; IsLink(path) && !path.native().starts_with("/dev/"); i++) {
    const std::filesystem::path next = std::filesystem::read_symlink(path, failure);
    if (failure || i == kMaxLinks) return {};
    path = path.parent_path() / next;  // an absolute one stays as it is
  }
  return path;
}

// A file descriptor within a scope; -1 with errno if the file could not be opened.
class OpenFile {
 public:
  OpenFile(const std::string& path, int flags) {
    do {
      fd = open(path.c_str(), flags | O_CLOEXEC, 0600);  // with O_CREAT it needs a mode
    } while (fd < 0 && errno == EINTR);
  }
  ~OpenFile() {
    if (fd >= 0) close(fd);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  bool IsOpen() const { return fd >= 0; }

  // Waits until the disk has all of a file, or the names in a folder. Returns false with errno on
  // failure, and for a file that could not be opened.
  bool WaitForDisk() const {
    if (!IsOpen()) return false;
    while (fsync(fd) != 0) {
      if (errno == EINVAL) return true;  // there is nothing to wait for
      if (errno != EINTR) return false;
    }
    return true;
  }

 private:
  int fd;
};

std::string FolderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

constexpr char kFolderPattern[] = ".vlt-XXXXXX";
constexpr int kMostExamined = 4096;
constexpr int kMostAttempts = 10;

int OpenFolder(const char* path) {
  int fd;
  do {
    fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// A folder is in use while its process holds this lock, which ends with the process.
bool TryLock(int folder) { return flock(folder, LOCK_EX | LOCK_NB) == 0; }

bool IsInParent(int folder) {
  struct stat info;
  return fstat(folder, &info) == 0 && info.st_nlink > 0;
}

// Removes a temporary folder if it belongs to this user and no process uses it.
void RemoveIfLeft(const char* path) {
  const int left = OpenFolder(path);
  if (left < 0) return;
  struct stat info;
  if (fstat(left, &info) == 0 && info.st_uid == geteuid() && TryLock(left)) {
    unlinkat(left, kNewName, 0);
    rmdir(path);
  }
  close(left);
}

// Removes what killed processes have left in `parent`. Looks at its first entries only, so that a
// huge folder does not delay every save.
void RemoveLeftFolders(const std::string& parent) {
  constexpr std::string_view kPattern = kFolderPattern;
  constexpr std::string_view kPrefix = kPattern.substr(0, kPattern.find('X'));
  // Not std::filesystem's iterator, which ends the process if it has no memory.
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(parent.c_str()), &closedir);
  for (int i = 0; i < kMostExamined && entries != nullptr; i++) {
    const dirent* const entry = readdir(entries.get());
    if (entry == nullptr) return;
    const std::string_view name = entry->d_name;
    if (name.size() != kPattern.size() || !name.starts_with(kPrefix)) continue;
    RemoveIfLeft((parent + "/" + entry->d_name).c_str());
  }
}

// Failing does no harm: the new file then belongs to this user, with the old file's mode.
void TakeOver(const char* path, const struct stat& old) {
  if (chown(path, old.st_uid, old.st_gid) != 0) {
    [[maybe_unused]] const int group = chown(path, static_cast<uid_t>(-1), old.st_gid);
  }
  chmod(path, old.st_mode & 07777);
}

}  // namespace

// Makes all texts, so that neither renaming the new file nor removing it needs memory later.
VLTFileReplacement::VLTFileReplacement(CFURLRef file) {
  try {
    Prepare(file);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
    path.clear();
    target.clear();
  }
}

void VLTFileReplacement::Prepare(CFURLRef file) {
  const std::string given = PathOf(file);
  path = FollowLinks(given).string();
  struct stat old;
  isPlain = stat(path.c_str(), &old) != 0 || S_ISREG(old.st_mode);
  if (path.empty()) {
    error = given.empty() ? ENOENT : ELOOP;
    return;
  }
  target = path;
  if (!isPlain || IsLink(path)) return;
  parent = FolderOf(path);
  RemoveLeftFolders(parent);
  MakeFolder();
}

VLTFileReplacement::~VLTFileReplacement() {
  if (openFolder < 0) return;
  unlinkat(openFolder, kNewName, 0);
  rmdir(folder.c_str());
  close(openFolder);
}

// Until the new folder is locked, another process may take it for one that was left and remove it.
// Then a second one is made.
void VLTFileReplacement::MakeFolder() {
  const std::string pattern = (parent == "/" ? "" : parent) + "/" + kFolderPattern;
  target.reserve(pattern.size() + 1 + sizeof kNewName);
  for (int attempt = 0; attempt < kMostAttempts; attempt++) {
    std::string name = pattern;
    if (mkdtemp(name.data()) == nullptr) {
      if (errno == EACCES || errno == EPERM) return;  // written in place
      break;
    }
    const int opened = OpenFolder(name.c_str());
    const bool isOwn = opened >= 0 && (TryLock(opened) || errno != EWOULDBLOCK);
    if (isOwn && IsInParent(opened)) {
      folder = std::move(name);
      openFolder = opened;
      target.assign(folder).append("/").append(kNewName);
      return;
    }
    const int reason = errno;
    if (opened >= 0) close(opened);
    rmdir(name.c_str());
    errno = reason;
    if (opened < 0 && reason != ENOENT) break;
  }
  error = errno;
  path.clear();  // writing in place could destroy the old contents
  target.clear();
}

CFURLRef VLTFileReplacement::CopyTarget() const {
  return CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault,
                                                 reinterpret_cast<const UInt8*>(target.data()),
                                                 static_cast<CFIndex>(target.size()), false);
}

bool VLTFileReplacement::PutInPlace() {
  if (folder.empty() && !isPlain) return true;
  // Opened to append, because reading may not be allowed, and before TakeOver, because the old
  // file's mode may forbid writing.
  const OpenFile file(target, O_WRONLY | O_CREAT | O_APPEND);
  if (folder.empty()) return file.WaitForDisk();
  struct stat old;
  if (file.IsOpen() && stat(path.c_str(), &old) == 0) TakeOver(target.c_str(), old);
  if (!file.WaitForDisk() || std::rename(target.c_str(), path.c_str()) != 0) return false;
  const OpenFile inParent(parent, O_RDONLY);
  // A folder that may not be read cannot be synced.
  return (!inParent.IsOpen() && errno == EACCES) || inParent.WaitForDisk();
}
