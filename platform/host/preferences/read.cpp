#include "platform/host/preferences/read.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <bit>
#include <memory>

#include "platform/host/base/open_file.h"
#include "platform/host/objects/cf_number.h"
#include "platform/host/plist/codec.h"
#include "platform/host/plist/walk.h"

namespace {

using State = HostPreferencesContent::State;

constexpr mode_t kForeignWriters = S_IWGRP | S_IWOTH;

int64_t Nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

bool MayChangeUser() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, data) != 0) return true;
  return (data[0].permitted & (UInt32{1} << CAP_SETUID)) != 0;
}

// A process that has only one user id and no privilege to change it keeps that id. For other
// processes each read gets the id from the kernel.
uid_t Reader() {
  static const uid_t constant = [] {
    uid_t real = 0, effective = 0, saved = 0;
    if (getresuid(&real, &effective, &saved) != 0) return uid_t{0};
    const bool isOne = real == effective && effective == saved;
    return isOne && !MayChangeUser() ? effective : uid_t{0};
  }();
  return constant != 0 ? constant : geteuid();
}

HostFileStamp StampOf(const struct stat& info, const std::string& name) {
  HostFileStamp stamp;
  stamp.reader = Reader();
  struct stat folder;
  if (stamp.reader == 0 && info.st_uid != 0 &&
      stat(name.substr(0, name.rfind('/') + 1).c_str(), &folder) == 0) {
    stamp.folderOwner = folder.st_uid;
  }
  stamp.device = info.st_dev;
  stamp.inode = info.st_ino;
  stamp.size = info.st_size;
  stamp.mode = info.st_mode;
  stamp.owner = info.st_uid;
  stamp.group = info.st_gid;
  stamp.modified = Nanoseconds(info.st_mtim);
  stamp.changed = Nanoseconds(info.st_ctim);
  return stamp;
}

// The clock that the kernel stamps files with: a change after this moment bears this time or a
// later one.
int64_t FileClock() {
  timespec now;
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return Nanoseconds(now);
}

const char* Distrust(const HostFileStamp& stamp) {
  if (!S_ISREG(stamp.mode)) return "it is not a regular file";
  // A file that a privileged program writes in a user's folder belongs to that user, but the
  // program still trusts it.
  const bool isFolderOwners = stamp.folderOwner != 0 && stamp.owner == stamp.folderOwner;
  if (stamp.owner != 0 && stamp.owner != stamp.reader && !isFolderOwners) {
    return "another user owns it";
  }
  if ((stamp.mode & kForeignWriters) != 0)
    return "its group or others may write it (chmod go-w makes it usable)";
  if (stamp.size > kHostMaxPreferencesBytes) return "it has more than 64 MiB";
  return nullptr;
}

// Whether the system may do later, with the same file and for the same user, what it refused now.
bool IsPassing(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case EIO:
    case EAGAIN:
      return true;
    default:
      return false;
  }
}

// Returns all bytes of the file, which may be longer or shorter by now than it was; null with errno
// after a failure.
std::unique_ptr<UInt8[]> ReadAll(int fd, size_t expected, size_t* count) {
  const size_t room = expected + 1;
  std::unique_ptr<UInt8[]> bytes(new (std::nothrow) UInt8[room]);
  errno = ENOMEM;
  if (bytes == nullptr) return nullptr;
  size_t have = 0;
  while (have < room) {
    const ssize_t got = read(fd, bytes.get() + have, room - have);
    if (got == 0) break;
    if (got > 0) have += static_cast<size_t>(got);
    if (got < 0 && errno != EINTR) return nullptr;
  }
  if (have == room) {
    errno = EAGAIN;  // it grows; the next read sees another stamp
    return nullptr;
  }
  *count = have;
  return bytes;
}

// Returns the dictionary that the bytes contain; null with the reason if they contain none.
HostCFDictionary* Parse(const UInt8* bytes, size_t count, std::string* reason, bool* isPassing) {
  HostPropertyListError error;
  CFPropertyListFormat format = 0;
  HostPlistRequest request;
  request.mayShareBlocks = false;  // callers keep single values for long
  const CFPropertyListRef list = HostReadPlist(bytes, count, request, &format, &error);
  if (list == nullptr) {
    *isPassing = error.IsNoMemory();
    *reason = error.text.empty() ? "it cannot be read" : error.Sentence();
    return nullptr;
  }
  auto* const values = HostCast<HostCFDictionary>(list);
  if (values != nullptr) return values;
  CFRelease(list);
  *reason = "its property list is not a dictionary";
  return nullptr;
}

// Returns the reason of the system's refusal, by errno.
std::string SystemRefusal(int error, HostPreferencesContent* content) {
  content->isPassing = IsPassing(error);
  content->isMemoryShort = error == ENOMEM;
  content->isSettled = false;
  return HostErrorText(error);
}

// Returns the reason of a refusal, or "".
std::string ReadValues(int fd, HostPreferencesContent* content) {
  if (const char* reason = Distrust(content->stamp)) return reason;
  size_t count = 0;
  const auto bytes = ReadAll(fd, static_cast<size_t>(content->stamp.size), &count);
  if (bytes == nullptr) return SystemRefusal(errno, content);
  std::string reason;
  content->values =
      HostRetained<HostCFDictionary>(Parse(bytes.get(), count, &reason, &content->isPassing));
  content->isMemoryShort = content->isPassing;  // the only passing reason by then
  if (content->isPassing) content->isSettled = false;
  return reason;
}

std::string Refusal(const std::string& name, const HostFileStamp& stamp,
                    const std::string& reason) {
  char owner[64] = "";
  if (stamp.changed != 0) {
    snprintf(owner, sizeof owner, " (owner %u, mode %04o)", static_cast<unsigned>(stamp.owner),
             static_cast<unsigned>(stamp.mode & 07777));
  }
  return "preferences " + name + owner + " are neither read nor written: " + reason;
}

// A real number's bits: zeros of either sign are equal, and no NaN is equal to another.
uint64_t BitsOf(CFNumberRef real) {
  double value = 0;
  CFNumberGetValue(real, kCFNumberFloat64Type, &value);
  return std::bit_cast<uint64_t>(value);
}

bool IsSameLeaf(CFTypeRef a, CFTypeRef b) {
  const auto* number = HostCast<HostCFNumber>(a);
  const auto* other = HostCast<HostCFNumber>(b);
  if (number == nullptr || other == nullptr) return CFEqual(a, b);
  if (number->IsFloat() != other->IsFloat()) return false;
  return number->IsFloat() ? BitsOf(number) == BitsOf(other) : CFEqual(a, b);
}

bool IsSameStep(const HostPlistWalk& a, const HostPlistWalk& b) {
  if (a.Current() != b.Current() || a.Object()->TypeID() != b.Object()->TypeID()) return false;
  if (a.Current() == HostPlistWalk::Step::kClose) return true;
  if ((a.Key() != nullptr) != (b.Key() != nullptr)) return false;
  if (a.Key() != nullptr && !CFEqual(a.Key(), b.Key())) return false;
  return a.Current() == HostPlistWalk::Step::kOpen || IsSameLeaf(a.Object(), b.Object());
}

}  // namespace

std::string HostErrorText(int error) {
  const char* const name = strerrorname_np(error);
  return std::string(strerror(error)) + " (" + std::to_string(error) +
         (name != nullptr ? std::string(", ") + name : "") + ")";
}

HostFileStamp HostStampOfFile(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? StampOf(info, path) : HostFileStamp();
}

HostPreferencesContent HostReadPreferences(const std::string& path, const std::string& name) {
  HostPreferencesContent content;
  int fd;
  do {
    // A pipe or a terminal in place of the file must not make this process wait.
    fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  const HostOpenFile file(fd);
  const int reason = errno;
  if (!file.IsOpen() && (reason == ENOENT || reason == ENOTDIR)) return content;

  const int64_t now = FileClock();
  struct stat info;
  std::string problem;
  if (!file.IsOpen()) {
    content.stamp = HostStampOfFile(name);
    problem = SystemRefusal(reason, &content);
  } else if (fstat(file.Get(), &info) != 0) {
    problem = SystemRefusal(errno, &content);
  } else {
    content.stamp = StampOf(info, name);
    content.isSettled = now > content.stamp.changed;
    problem = ReadValues(file.Get(), &content);
  }
  content.stamp.reader = Reader();
  content.state = problem.empty() ? State::kRead : State::kRefused;
  if (!problem.empty()) content.problem = Refusal(name, content.stamp, problem);
  return content;
}

bool HostIsSamePreference(CFTypeRef a, CFTypeRef b) {
  if (a == b) return true;
  const CFTypeID type = CFGetTypeID(a);
  if (type != CFGetTypeID(b)) return false;
  if (type != kHostTypeArray && type != kHostTypeDictionary) return IsSameLeaf(a, b);
  HostPlistWalk first(a, HostPlistWalk::Order::kSorted);
  HostPlistWalk second(b, HostPlistWalk::Order::kSorted);
  for (;;) {
    const bool hasMore = first.Next();
    if (hasMore != second.Next()) return false;
    if (!hasMore) return first.Fault() == nullptr && second.Fault() == nullptr;
    if (!IsSameStep(first, second)) return false;
  }
}
