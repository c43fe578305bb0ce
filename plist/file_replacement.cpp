#include "plist/file_replacement.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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

// The path at the end of a chain of symbolic links, whether or not anything is there; "" when the
// chain is too long or cannot be followed.
std::filesystem::path FollowLinks(std::filesystem::path path) {
  std::error_code failure;
  for (int i = 0; std::filesystem::is_symlink(path, failure); i++) {
    const std::filesystem::path next = std::filesystem::read_symlink(path, failure);
    if (failure || i == kMaxLinks) return {};
    path = path.parent_path() / next;  // an absolute one stays as it is
  }
  return path;
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
  const bool isThere = stat(path.c_str(), &old) == 0;
  if (path.empty()) {
    error = given.empty() ? ENOENT : ELOOP;
  } else if (!isThere || S_ISREG(old.st_mode)) {
    MakeFolder();
  }
}

VLTFileReplacement::~VLTFileReplacement() {
  if (folder.empty()) return;
  std::remove((folder + kNewFile).c_str());
  std::remove(folder.c_str());
}

void VLTFileReplacement::MakeFolder() {
  const std::string parent = std::filesystem::path(path).parent_path().string();
  std::string name = (parent == "/" ? "" : parent) + "/.vlt-XXXXXX";
  if (mkdtemp(name.data()) != nullptr) {
    folder = name;
  } else if (errno != EACCES && errno != EPERM) {
    error = errno;
    path.clear();  // writing in place could destroy the old contents
  }
}

CFURLRef VLTFileReplacement::CopyTarget() const {
  const std::string target = folder.empty() ? path : folder + kNewFile;
  return CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault,
                                                 reinterpret_cast<const UInt8*>(target.data()),
                                                 static_cast<CFIndex>(target.size()), false);
}

bool VLTFileReplacement::PutInPlace() {
  if (folder.empty()) return true;
  const std::string target = folder + kNewFile;
  struct stat old;
  if (stat(path.c_str(), &old) == 0) TakeOver(target.c_str(), old);
  return std::rename(target.c_str(), path.c_str()) == 0;
}
