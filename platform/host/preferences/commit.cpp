#include "platform/host/preferences/commit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cassert>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <chrono>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"
#include "platform/host/base/file_lock.h"
#include "platform/host/base/open_file.h"
#include "platform/host/objects/cf_date.h"
#include "platform/host/plist/binary_write.h"
#include "platform/host/plist/walk.h"
#include "platform/host/plist/xml_write.h"

// How a commit goes.
//
//   1. Follow the links to the file itself and open its folder, which is created if it is missing.
//      From here on files are named relative to that folder, so renaming it does no harm.
//   2. Lock byte 0 of .ID.plist.lock. If the lock file was replaced meanwhile, start again with the
//      new one, because a lock on a removed file excludes no other process.
//   3. Read the file again and apply this process's changes to it, except under keys whose
//      values the process could not read before (unread.h). If nothing differs, end here.
//      So too if the file does not have the values that the changes expect.
//   4. Write .ID.plist.new with the old file's owner and mode, and sync it.
//   5. Rename it over the file, and sync the folder.
//
// A process that dies at any point leaves the old or the new file. The lock ends with the process;
// the next commit removes the .new file, which only the owner of the lock may create.
//
// Limits: 30 s for the lock (the wait polls, because a lock of a stopped process never ends), 40
// links, 100 replaced lock files. The lock file is never removed, since processes that wait for it
// have it open. Order of locks: HostPreferencesFile::committing, then the lock file; the descriptor
// table's lock is held only while the lock file is opened.

constinit HostCFString gHostRemovedPreference{"(removed)"};

namespace {

constexpr int64_t kMaxLockWait = 30 * kHostSecond;
constexpr int kMaxLinks = 40;
constexpr int kMaxAttempts = 100;  // at a lock that others remove

// The path of the file after its links, and its folder.
struct Target {
  std::string folder;
  std::string file;
  bool isShared = false;
  HostOpenFile directory;
  struct stat info = {};  // of the folder

  std::string Path() const { return folder + "/" + file; }
  mode_t FileMode() const { return isShared ? 0644 : 0600; }
};

// Returns the text of a failure, with errno's reason.
std::string Failure(const char* what, const std::string& path) {
  return std::string("preferences ") + path + " not written: " + what + ": " + HostErrorText(errno);
}

// Replaces `*path` by the path that its links lead to. Returns false with errno if that cannot be
// found out; the links must not be replaced then.
bool FollowLinks(std::string* path) {
  for (int i = 0; i < kMaxLinks; i++) {
    char next[4096];
    const ssize_t length = readlink(path->c_str(), next, sizeof next);
    // It is not a link, or it does not exist.
    if (length < 0) return errno == EINVAL || errno == ENOENT || errno == ENOTDIR;
    if (length == 0 || length == sizeof next) return errno = ENAMETOOLONG, false;
    const std::string link(next, static_cast<size_t>(length));
    *path = link[0] == '/' ? link : path->substr(0, path->rfind('/') + 1) + link;
  }
  return errno = ELOOP, false;
}

// Waits for the disk. Some file systems cannot sync folders; their error is ignored.
bool Sync(int fd, bool isFolder) {
  while (fsync(fd) != 0) {
    if (isFolder && errno == EINVAL) return true;
    if (errno != EINTR) return false;
  }
  return true;
}

// Calls openat again if a signal interrupts it.
int OpenAt(int directory, const char* name, int flags, mode_t mode = 0) {
  int fd;
  do {
    fd = openat(directory, name, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

int OpenFolder(int parent, const char* name) {
  return OpenAt(parent, name, O_RDONLY | O_DIRECTORY);
}

// Gives a file that a privileged program has made in a user's folder to that user. `fd` is new and
// was opened without following a link, so another file cannot have taken its place.
void GiveToOwnerOf(const struct stat& folder, int fd) {
  if (geteuid() != 0 || folder.st_uid == 0) return;
  [[maybe_unused]] const int ignored = fchown(fd, folder.st_uid, folder.st_gid);
}

// After a new folder was made in `parent`: gives it to the parent's owner, and waits until the disk
// has its name.
void FinishFolder(int parent, const char* name) {
  const HostOpenFile made(OpenAt(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW));
  struct stat info;
  if (made.IsOpen() && fstat(parent, &info) == 0) GiveToOwnerOf(info, made.Get());
  Sync(HostOpenFile(OpenFolder(parent, ".")).Get(), true);
}

// Makes the missing folders on the way to `folder`. A failure shows when the folder is opened: the
// result is errno of the first folder that could not be made, or 0.
int MakeFolders(const std::string& folder, mode_t mode) {
  int reason = 0;
  HostOpenFile parent(OpenAt(AT_FDCWD, "/", O_PATH | O_DIRECTORY));
  for (size_t start = 1, end = 0; end != std::string::npos; start = end + 1) {
    if (!parent.IsOpen()) return reason != 0 ? reason : errno;
    end = folder.find('/', start);
    const std::string name = folder.substr(start, end - start);
    if (name.empty()) continue;
    if (mkdirat(parent.Get(), name.c_str(), mode) == 0) {
      FinishFolder(parent.Get(), name.c_str());
    } else if (reason == 0 && errno != EEXIST) {
      reason = errno;
    }
    // Folders on the way need not be readable.
    parent = HostOpenFile(OpenAt(parent.Get(), name.c_str(), O_PATH | O_DIRECTORY));
  }
  return reason;
}

bool FindTarget(const HostPreferencesPlace& place, Target* target, std::string* problem) {
  std::string path = place.path;
  if (!FollowLinks(&path)) return *problem = Failure("cannot follow its links", place.path), false;
  const size_t slash = path.rfind('/');
  target->folder = path.substr(0, slash);
  target->file = path.substr(slash + 1);
  target->isShared = place.isShared;
  target->directory = HostOpenFile(OpenFolder(AT_FDCWD, target->folder.c_str()));
  if (!target->directory.IsOpen() && errno == ENOENT && path == place.path) {
    const int reason = MakeFolders(target->folder, place.isShared ? 0755 : 0700);
    target->directory = HostOpenFile(OpenFolder(AT_FDCWD, target->folder.c_str()));
    // Report why the folder could not be created, not that it does not exist.
    if (!target->directory.IsOpen() && errno == ENOENT && reason != 0) errno = reason;
  }
  if (!target->directory.IsOpen() || fstat(target->directory.Get(), &target->info) != 0) {
    return *problem = Failure("cannot open its folder", path), false;
  }
  return true;
}

// The lock of a file. One process at a time holds it, until this object is destroyed.
class CommitLock {
 public:
  CommitLock() = default;
  CommitLock(const CommitLock&) = delete;
  CommitLock& operator=(const CommitLock&) = delete;
  ~CommitLock() {
    if (fd < 0) return;
    HostUnlockByte(fd, 0);
    HostCloseDescriptor(fd);
  }

  bool Take(const Target& target, std::string* problem) {
    const std::string name = "." + target.file + ".lock";
    const int64_t end = HostDeadlineAfter(HostNow(), kMaxLockWait);
    for (int attempt = 0; attempt < kMaxAttempts; attempt++) {
      fd = Open(target, name.c_str());
      if (fd < 0 && errno == EEXIST) continue;  // another process created it at this moment
      if (fd < 0) return *problem = Failure("cannot open the lock file", target.Path()), false;
      if (!Wait(end)) return *problem = Failure("waiting for its lock", target.Path()), false;
      // A file that was removed between opening and locking guards nothing.
      if (HostIsSameFile(target.directory.Get(), name.c_str(), fd)) return true;
      HostCloseDescriptor(std::exchange(fd, -1));
    }
    return *problem = Failure("its lock file keeps being removed", target.Path()), false;
  }

 private:
  static int Open(const Target& target, const char* name) {
    constexpr int kFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    HostDescriptorOpening opening;
    const int directory = target.directory.Get();
    int lock = OpenAt(directory, name, kFlags);
    if (lock < 0 && errno == ENOENT) {
      lock = OpenAt(directory, name, kFlags | O_CREAT | O_EXCL, target.FileMode());
      if (lock >= 0) GiveToOwnerOf(target.info, lock);
    }
    return opening.Enter(lock, HostDescriptorKind::kNameFile);
  }

  // Polls, because waiting in the kernel would never end if the owner is stopped.
  bool Wait(int64_t end) {
    auto pause = std::chrono::microseconds(200);
    while (!HostTryLockByte(fd, 0)) {
      if (errno != EAGAIN && errno != EACCES) return false;
      if (HostNow() >= end) return errno = ETIMEDOUT, false;
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, std::chrono::microseconds(5000));
    }
    return true;
  }

  int fd = -1;
};

// The result of applying changes to the content of a file.
struct Merged {
  HostRetained<HostCFDictionary> values;
  bool differs = false;       // from the content of the file
  size_t left = 0;            // changes that were not applied
  CFStringRef key = nullptr;  // one of them; borrowed from the changes
};

// Applies the changes to a copy of `old`, which may be null.
Merged Merge(const HostCFDictionary* old, const HostPreferencesChanges& changes) {
  Merged result;
  HostRetained<HostCFDictionary> merged(
      old != nullptr
          ? CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, old)
          : CFDictionaryCreateMutable(kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks,
                                      &kCFTypeDictionaryValueCallBacks));
  if (!merged) throw std::bad_alloc();
  for (const HostPair& change : changes.values->Pairs()) {
    if (change.key == nullptr) continue;
    const HostPair* const found = merged->Find(change.key);
    const bool isRemoval = change.value == &gHostRemovedPreference;
    const bool isSame = found != nullptr
                            ? !isRemoval && HostIsSamePreference(found->value, change.value)
                            : isRemoval;
    if (!isSame && found != nullptr && changes.unread &&
        changes.unread->Find(change.key) != nullptr) {
      result.left++;
      result.key = static_cast<CFStringRef>(change.key);
      continue;
    }
    result.differs = result.differs || !isSame;
    if (isRemoval) {
      merged->Remove(change.key);
    } else if (!merged->Set(change.key, change.value)) {
      throw std::bad_alloc();
    }
  }
  result.values = std::move(merged);
  return result;
}

// For messages: "" if it is too long for them.
std::string KeyText(CFStringRef key) {
  char text[256];
  return CFStringGetCString(key, text, sizeof text, kCFStringEncodingUTF8) ? text : "";
}

std::string ProblemOf(const Merged& merged, const Target& target) {
  if (merged.left == 0) return "";
  const std::string others =
      merged.left == 1 ? "" : " and " + std::to_string(merged.left - 1) + " more";
  return "preferences " + target.Path() + ": \"" + KeyText(merged.key) + "\"" + others +
         " not replaced: the file could not be read when the program asked for the old value";
}

// Returns a key, borrowed from the changes, under which the file does not have what is expected, or
// null. `old` may be null.
CFStringRef UnexpectedKey(const HostCFDictionary* old, const HostPreferencesChanges& changes) {
  if (!changes.expected) return nullptr;
  for (const HostPair& pair : changes.expected->Pairs()) {
    if (pair.key == nullptr) continue;
    const HostPair* const found = old != nullptr ? old->Find(pair.key) : nullptr;
    const bool isAsExpected = found == nullptr ? pair.value == &gHostRemovedPreference
                                               : HostIsSamePreference(found->value, pair.value);
    if (!isAsExpected) return static_cast<CFStringRef>(pair.key);
  }
  return nullptr;
}

class VectorSink final : public HostPlistSink {
 public:
  bool Take(const UInt8* piece, size_t count) override {
    if (count > static_cast<size_t>(kHostMaxPreferencesBytes) - bytes.size()) return false;
    bytes.insert(bytes.end(), piece, piece + count);
    return true;
  }
  std::vector<UInt8> bytes;
};

// XML has no fractions of a second.
bool HasFractionOfSecond(CFPropertyListRef list) {
  HostPlistWalk walk(list, HostPlistWalk::Order::kStored);
  while (walk.Next()) {
    const auto* date = HostCast<HostCFDate>(walk.Object());
    if (date != nullptr && std::floor(date->Time()) != date->Time()) return true;
  }
  return false;
}

bool Encode(CFPropertyListRef list, std::vector<UInt8>* bytes, std::string* reason) {
  HostPropertyListError error;
  VectorSink xml, binary;
  // Text with a NUL, or half of a pair, goes into the binary form only.
  if (!HasFractionOfSecond(list) && HostWritePlistXML(list, xml, &error)) {
    *bytes = std::move(xml.bytes);
  } else if (HostWritePlistBinary(list, binary, &error)) {
    *bytes = std::move(binary.bytes);
  } else {
    if (error.IsNoMemory()) throw std::bad_alloc();
    *reason = error.Sentence();
    return false;
  }
  return true;
}

bool WriteAll(int fd, const std::vector<UInt8>& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t wrote = write(fd, bytes.data() + done, bytes.size() - done);
    if (wrote > 0) done += static_cast<size_t>(wrote);
    if (wrote == 0) errno = ENOSPC;
    if (wrote == 0 || (wrote < 0 && errno != EINTR)) return false;
  }
  return true;
}

// The new file, beside the one that it replaces. Only the owner of the lock creates one.
class NewFile {
 public:
  explicit NewFile(const Target& target) : target(target), name("." + target.file + ".new") {}
  ~NewFile() {
    if (isMade) unlinkat(target.directory.Get(), name.c_str(), 0);
  }
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  // Make, Fill and PutInPlace in this order. Each returns false with the reason in `*problem`.
  bool Make(const HostFileStamp& old, std::string* problem) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    const int directory = target.directory.Get();
    int fd = OpenAt(directory, name.c_str(), kFlags, 0600);
    if (fd < 0 && errno == EEXIST && unlinkat(directory, name.c_str(), 0) == 0) {
      fd = OpenAt(directory, name.c_str(), kFlags, 0600);  // its writer died
    }
    file = HostOpenFile(fd);
    assert(!isMade);
    isMade = file.IsOpen();
    if (!isMade) return Fail("cannot create a new file", problem);
    return TakeAfter(old) || Fail("cannot keep its owner and mode", problem);
  }

  bool Fill(const std::vector<UInt8>& bytes, std::string* problem) {
    if (!WriteAll(file.Get(), bytes)) return Fail("cannot write", problem);
    return Sync(file.Get(), false) || Fail("bringing it to the disk", problem);
  }

  bool PutInPlace(std::string* problem) {
    const int directory = target.directory.Get();
    assert(isMade);
    if (renameat(directory, name.c_str(), directory, target.file.c_str()) != 0) {
      return Fail("renaming", problem);
    }
    isMade = false;
    return Sync(directory, true) || Fail("bringing its folder to the disk", problem);
  }

 private:
  bool Fail(const char* what, std::string* problem) const {
    *problem = Failure(what, target.Path());
    return false;
  }

  bool TakeAfter(const HostFileStamp& old) const {
    if (old.changed == 0) {
      GiveToOwnerOf(target.info, file.Get());
      return fchmod(file.Get(), target.FileMode()) == 0;
    }
    struct stat made;
    if (fstat(file.Get(), &made) != 0) return false;
    const bool isSameOwner = made.st_uid == old.owner && made.st_gid == old.group;
    if (!isSameOwner && fchown(file.Get(), old.owner, old.group) != 0) return false;
    return fchmod(file.Get(), old.mode & 07777) == 0;
  }

  const Target& target;
  const std::string name;
  HostOpenFile file;
  bool isMade = false;
};

bool Replace(const Target& target, const HostFileStamp& old, CFPropertyListRef list,
             std::string* problem) {
  std::vector<UInt8> bytes;
  std::string reason;
  if (!Encode(list, &bytes, &reason)) {
    *problem = "preferences " + target.Path() + " not written: " + reason;
    return false;
  }
  NewFile file(target);
  return file.Make(old, problem) && file.Fill(bytes, problem) && file.PutInPlace(problem);
}

}  // namespace

bool HostCommitPreferences(const HostPreferencesPlace& place, const HostPreferencesChanges& changes,
                           HostPreferencesContent* content, std::string* problem) {
  Target target;
  CommitLock lock;
  if (!FindTarget(place, &target, problem) || !lock.Take(target, problem)) return false;
  *content = HostReadPreferences(target.Path(), place.path);
  if (content->state == HostPreferencesContent::State::kRefused) {
    if (content->isMemoryShort) throw std::bad_alloc();
    *problem = content->problem;
    return false;
  }
  if (const CFStringRef key = UnexpectedKey(content->values.Get(), changes)) {
    *problem = "preferences " + target.Path() + ": \"" + KeyText(key) + "\" has another value now";
    return true;
  }
  const Merged merged = Merge(content->values.Get(), changes);
  std::string left = ProblemOf(merged, target);
  if (merged.differs) {
    if (!Replace(target, content->stamp, merged.values.Get(), problem)) return false;
    content->state = HostPreferencesContent::State::kRead;
    content->values = merged.values;
    content->stamp = HostStampOfFile(place.path);
    content->isSettled = false;
  }
  *problem = std::move(left);
  return true;
}
