#include "plist/file_replacement.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <system_error>

namespace {

constexpr CFIndex kMaxPathBytes = 4096;
constexpr int kMaxLinks = 40;
constexpr char kNewFile[] = "/new";

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

// The path at the end of a chain of symbolic links, whether or not anything is there; "" when the
// chain is too long or cannot be followed. A link in /dev ends it: it stands for what is open, and
// leads there only when it is opened.
std::filesystem::path FollowLinks(std::filesystem::path path) {
  std::error_code failure;
  for (int i = 0; IsLink(path) && !path.native().starts_with("/dev/"); i++) {
    const std::filesystem::path next = std::filesystem::read_symlink(path, failure);
    if (failure || i == kMaxLinks) return {};
    path = path.parent_path() / next;  // an absolute one stays as it is
  }
  return path;
}

using OpenFile = std::unique_ptr<FILE, int (*)(FILE*)>;

OpenFile Open(const std::string& path, const char* mode) {
  return OpenFile(std::fopen(path.c_str(), mode), &std::fclose);
}

// Waits until the disk has all of a file, or the names in a folder. False with errno; for a file
// that could not be opened, too.
bool WaitForDisk(const OpenFile& file) {
  if (file == nullptr) return false;
  while (fsync(fileno(file.get())) != 0) {
    if (errno == EINVAL) return true;  // there is nothing to wait for
    if (errno != EINTR) return false;
  }
  return true;
}

std::string FolderOf(const std::string& path) {
  return std::filesystem::path(path).parent_path().string();
}

// Failing is no harm: another's file that may be replaced is then ours, with its mode.
void TakeOver(const char* path, const struct stat& old) {
  if (chown(path, old.st_uid, old.st_gid) != 0) {
    [[maybe_unused]] const int group = chown(path, static_cast<uid_t>(-1), old.st_gid);
  }
  chmod(path, old.st_mode & 07777);
}

}  // namespace

VLTFileReplacement::VLTFileReplacement(CFURLRef file) {
  const std::string given = PathOf(file);
  path = FollowLinks(given).string();
  struct stat old;
  isPlain = stat(path.c_str(), &old) != 0 || S_ISREG(old.st_mode);
  if (path.empty()) {
    error = given.empty() ? ENOENT : ELOOP;
  } else if (isPlain && !IsLink(path)) {
    MakeFolder();
  }
}

VLTFileReplacement::~VLTFileReplacement() {
  if (folder.empty()) return;
  std::remove((folder + kNewFile).c_str());
  std::remove(folder.c_str());
}

void VLTFileReplacement::MakeFolder() {
  const std::string parent = FolderOf(path);
  std::string name = (parent == "/" ? "" : parent) + "/.vlt-XXXXXX";
  if (mkdtemp(name.data()) != nullptr) {
    folder = name;
  } else if (errno != EACCES && errno != EPERM) {
    error = errno;
    path.clear();  // writing in place could destroy the old contents
  }
}

std::string VLTFileReplacement::Target() const { return folder.empty() ? path : folder + kNewFile; }

CFURLRef VLTFileReplacement::CopyTarget() const {
  const std::string target = Target();
  return CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault,
                                                 reinterpret_cast<const UInt8*>(target.data()),
                                                 static_cast<CFIndex>(target.size()), false);
}

bool VLTFileReplacement::PutInPlace() {
  if (folder.empty() && !isPlain) return true;
  const std::string target = Target();
  // To append, because reading need not be allowed; and before the old file's mode may forbid it.
  const OpenFile file = Open(target, "ae");
  if (folder.empty()) return WaitForDisk(file);
  struct stat old;
  if (file != nullptr && stat(path.c_str(), &old) == 0) TakeOver(target.c_str(), old);
  if (!WaitForDisk(file) || std::rename(target.c_str(), path.c_str()) != 0) return false;
  const OpenFile parent = Open(FolderOf(path), "re");
  return parent == nullptr || WaitForDisk(parent);  // one that may not be read cannot be waited for
}
