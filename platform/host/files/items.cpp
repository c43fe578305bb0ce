#include "platform/host/files/items.h"

#include <CoreServices/MacErrors.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/host/base/clock.h"
#include "platform/host/files/status.h"

// File specs and file references are byte-copyable, so what they refer to is in a table of this
// process: the path and the identity of each folder that has a number. A path is resolved once, by
// realpath; after that its folder's number is found by the path's text, and a look at the folder
// (Identify) shows whether the path still leads to the folder that got the number. If it does not,
// the number's node is marked as replaced (path null), and the new folder gets a number of its own.
// So a number that was given out either leads to its own folder or fails with fnfErr, and the table
// only grows. One mutex guards the table; no call that may block is made while it is held.

namespace {

constexpr SInt32 kFirstNumber = 16;     // smaller ones have, or may get, a meaning of their own
constexpr size_t kMaxNodes = 1u << 20;  // folders of one process
constexpr size_t kFirstRoom = 64;       // in the table of nodes
constexpr size_t kMaxName = sizeof(Str63) - 1;

// The identity of the item at a path: which folder it is, or that it is not a folder.
struct Identity {
  UInt64 device = 0;
  UInt64 inode = 0;
  int64_t born = 0;  // nanoseconds of the wall clock; 0 where the file system does not record it
  bool isFolder = false;

  // A file is known by its path alone, because saving a file replaces it with a new one. A folder
  // that is removed leaves its inode number to the next one, so its birth time counts, too.
  bool IsSameItem(const Identity& other) const {
    if (isFolder != other.isFolder) return false;
    if (isFolder && born != other.born) return false;
    return !isFolder || (device == other.device && inode == other.inode);
  }
};

struct Node {
  const std::string* path = nullptr;  // null when another folder has taken its place
  Identity identity;
};

// Allows look-ups by a part of a path without a copy.
struct PathHash {
  using is_transparent = void;
  size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
};

struct Table {
  std::mutex mutex;
  // By path; the keys are the nodes' paths.
  std::unordered_map<std::string, SInt32, PathHash, std::equal_to<>> numbers;
  std::vector<Node> nodes;  // by number, from kFirstNumber on
};

Table& Nodes() {
  static Table* table = new Table;
  return *table;
}

// With an empty path, identifies the item that the file descriptor `descriptor` is open on.
OSErr Identify(int descriptor, const char* path, Identity* identity) {
  struct statx info;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH;
  if (statx(descriptor, path, flags, STATX_TYPE | STATX_INO | STATX_BTIME, &info) != 0) {
    return HostFileStatus(errno);
  }
  identity->device = UInt64{info.stx_dev_major} << 32 | info.stx_dev_minor;
  identity->inode = info.stx_ino;
  identity->isFolder = S_ISDIR(info.stx_mode);
  const bool isBornKnown = (info.stx_mask & STATX_BTIME) != 0;
  identity->born = isBornKnown ? info.stx_btime.tv_sec * 1'000'000'000 + info.stx_btime.tv_nsec : 0;
  return noErr;
}

OSErr Identify(const char* path, Identity* identity) { return Identify(AT_FDCWD, path, identity); }

// Finds the number of the item at `path`, or gives it one. If the path has led to another folder
// before, that folder's number is never used again.
OSErr NumberOf(const std::string& path, const Identity& identity, SInt32* number) {
  assert(path.size() > 1 && path[0] == '/');  // the root's number is fixed
  Table& table = Nodes();
  const std::lock_guard<std::mutex> lock(table.mutex);
  // Room first: an entry of `numbers` always has its node.
  if (table.nodes.size() == table.nodes.capacity()) {
    table.nodes.reserve(std::max(kFirstRoom, 2 * table.nodes.size()));
  }
  const auto [entry, isNew] = table.numbers.try_emplace(path, 0);
  if (!isNew) {
    Node& known = table.nodes[static_cast<size_t>(entry->second - kFirstNumber)];
    if (known.identity.IsSameItem(identity)) return *number = entry->second, noErr;
    known.path = nullptr;
  }
  if (table.nodes.size() == kMaxNodes) {
    table.numbers.erase(entry);
    return memFullErr;
  }
  table.nodes.push_back({&entry->first, identity});
  entry->second = kFirstNumber + static_cast<SInt32>(table.nodes.size()) - 1;
  *number = entry->second;
  return noErr;
}

OSErr NodeOf(SInt32 number, std::string* path, Identity* identity) {
  Table& table = Nodes();
  const std::lock_guard<std::mutex> lock(table.mutex);
  if (number < kFirstNumber) return dirNFErr;
  const auto index = static_cast<size_t>(number - kFirstNumber);
  if (index >= table.nodes.size()) return dirNFErr;
  const Node& node = table.nodes[index];
  if (node.path == nullptr) return fnfErr;
  path->reserve(node.path->size() + 1 + kMaxName);  // most callers append a name
  *path = *node.path;
  *identity = node.identity;
  return noErr;
}

// A random word in this process's references, by which others are refused.
UInt32 ReferenceKey() {
  static constinit std::atomic<uint32_t> sKey{0};
  uint32_t key = sKey.load(std::memory_order_relaxed);
  if (key != 0) return key;
  uint32_t made = 0;
  if (getrandom(&made, sizeof made, GRND_NONBLOCK) != sizeof made || made == 0) {
    made = (static_cast<uint32_t>(HostNow()) ^ static_cast<uint32_t>(getpid()) << 8) | 1;
  }
  return sKey.compare_exchange_strong(key, made) ? made : key;
}

// The bytes of a reference. The stamp is made from the device and inode number of what was at the
// path when the reference was made, or is 0 if that was not known. An item with the same stamp at
// the same path counts as the same one, and its folder is not looked at again.
struct Reference {
  UInt64 stamp;
  UInt32 key;
  SInt32 folder;
  UInt8 length;
  char name[kMaxName];
};
static_assert(sizeof(Reference) == sizeof(FSRef));

UInt64 StampOf(const struct stat& info) {
  const UInt64 mixed = (static_cast<UInt64>(info.st_dev) << 40 | info.st_dev >> 24) ^ info.st_ino;
  return mixed != 0 ? mixed : 1;
}

std::string Joined(std::string folder, std::string_view name) {
  if (folder.size() > 1) folder += '/';
  folder += name;
  return folder;
}

// Whether realpath would return the text unchanged if no component were a link.
bool IsPlainPath(std::string_view path) {
  if (path.size() < 2 || path[0] != '/' || path.size() >= PATH_MAX) return false;
  while (!path.empty()) {
    path.remove_prefix(1);  // the slash
    const std::string_view name = path.substr(0, path.find('/'));
    if (name.empty() || name == "." || name == "..") return false;
    path.remove_prefix(name.size());
  }
  return true;
}

// Finds an item whose folder has a number and still is the folder that got that number; then
// nothing has to be resolved. Returns false for any other item, and for links.
bool FindKnown(std::string_view path, HostItem* item, struct stat* info) {
  if (!IsPlainPath(path)) return false;
  const size_t slash = path.rfind('/');
  const std::string_view name = path.substr(slash + 1);
  SInt32 number = fsRtDirID;
  if (slash != 0) {
    const std::string folder(path.substr(0, slash));
    Identity known, found;
    {
      Table& table = Nodes();
      const std::lock_guard<std::mutex> lock(table.mutex);
      const auto entry = table.numbers.find(folder);
      if (entry == table.numbers.end()) return false;
      number = entry->second;
      assert(number >= kFirstNumber);
      known = table.nodes[static_cast<size_t>(number - kFirstNumber)].identity;
    }
    if (!known.isFolder || Identify(folder.c_str(), &found) != noErr) return false;
    if (!known.IsSameItem(found)) return false;
  }
  if (name.size() > kMaxName || lstat(path.data(), info) != 0 || S_ISLNK(info->st_mode)) {
    return false;
  }
  *item = {number, std::string(name)};
  return true;
}

OSErr NumberOfWorkingFolder(SInt32* number) {
  char path[PATH_MAX];
  if (getcwd(path, sizeof path) == nullptr) return HostFileStatus(errno);
  if (path[0] != '/') return fnfErr;  // it lies outside this process's root folder
  return HostNumberOfFolder(path, number);
}

}  // namespace

bool HostIsSpecName(std::string_view name) {
  if (name.empty() || name.size() > kMaxName || name == "." || name == "..") return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

OSErr HostNumberOfFolder(const std::string& path, SInt32* number) {
  if (path == "/") return *number = fsRtDirID, noErr;
  Identity identity;
  const OSErr err = Identify(path.c_str(), &identity);
  if (err != noErr) return err;
  return identity.isFolder ? NumberOf(path, identity, number) : OSErr{dirNFErr};
}

OSErr HostPathOfFolder(SInt32 number, std::string* path) {
  if (number == fsRtDirID) return *path = "/", noErr;
  Identity known, found;
  std::string knownPath;
  OSErr err = NodeOf(number, &knownPath, &known);
  if (err == noErr && !known.isFolder) err = dirNFErr;
  if (err == noErr) err = Identify(knownPath.c_str(), &found);
  // If a folder on the path has become a file, the numbered folder does not exist any more.
  if (err == dirNFErr && known.isFolder) err = fnfErr;
  if (err == noErr && !known.IsSameItem(found)) err = fnfErr;
  if (err == noErr) *path = std::move(knownPath);
  return err;
}

OSErr HostOpenFolder(SInt32 number, HostOpenFile* folder) {
  std::string path;
  OSErr err = HostPathOfFolder(number, &path);
  if (err != noErr) return err;
  HostOpenFile opened(open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened.IsOpen()) return HostFileStatus(errno);
  // Check the folder that was opened: the path may lead to another one by now.
  Identity known, found;
  if (number != fsRtDirID) {
    err = Identify(opened.Get(), "", &found);
    if (err == noErr) err = NodeOf(number, &path, &known);
    if (err == noErr && !known.IsSameItem(found)) err = fnfErr;
  }
  if (err == noErr) *folder = std::move(opened);
  return err;
}

OSErr HostItemOfPath(const std::string& path, HostItem* item) {
  if (path == "/") return *item = {fsRtParID, "/"}, noErr;
  assert(!path.empty() && path[0] == '/' && path.back() != '/');
  const size_t slash = path.rfind('/');
  std::string name = path.substr(slash + 1);
  SInt32 number = 0;
  OSErr err = noErr;
  if (name.size() <= kMaxName) {
    err = HostNumberOfFolder(slash == 0 ? "/" : path.substr(0, slash), &number);
  } else {
    Identity identity;
    err = Identify(path.c_str(), &identity);
    if (err == noErr) err = NumberOf(path, identity, &number);
    name.clear();
  }
  if (err == noErr) *item = {number, std::move(name)};
  return err;
}

OSErr HostItemAtEndOf(const char* path, HostItem* item, struct stat* info) {
  struct stat here;
  if (info == nullptr) info = &here;
  if (FindKnown(path, item, info)) return noErr;
  char real[PATH_MAX];
  if (realpath(path, real) == nullptr) return HostFileStatus(errno);
  const OSErr err = HostItemOfPath(real, item);
  if (err == noErr && info != &here && lstat(real, info) != 0) return HostFileStatus(errno);
  return err;
}

OSErr HostItemOfSpec(SInt16 volume, SInt32 folder, ConstStr255Param name, HostItem* item) {
  if (volume != 0 && volume != kHostVolume) return nsvErr;
  OSErr err = folder == 0 ? NumberOfWorkingFolder(&folder) : OSErr{noErr};
  if (err != noErr) return err;
  const std::string_view text(reinterpret_cast<const char*>(name) + 1,
                              name != nullptr ? name[0] : 0);
  if (folder == fsRtParID && text == "/") return *item = {fsRtParID, "/"}, noErr;
  if (text.empty()) {
    std::string path;
    err = HostPathOfFolder(folder, &path);
    return err == noErr ? HostItemOfPath(path, item) : err;
  }
  if (!HostIsSpecName(text)) return bdNamErr;
  *item = {folder, std::string(text)};
  return noErr;
}

OSErr HostItemOfRef(const FSRef& ref, HostItem* item) {
  Reference bytes;
  std::memcpy(&bytes, &ref, sizeof bytes);
  if (bytes.key != ReferenceKey() || bytes.length > kMaxName) return errFSBadFSRef;
  std::string name(bytes.name, bytes.length);
  const bool isRoot = bytes.folder == fsRtParID && name == "/";
  if (!isRoot && !name.empty() && !HostIsSpecName(name)) return errFSBadFSRef;
  *item = {bytes.folder, std::move(name)};
  return noErr;
}

OSErr HostSpecOfItem(const HostItem& item, FSSpec* spec) {
  if (item.name.empty()) return bdNamErr;
  assert(item.name.size() <= kMaxName);
  FSSpec made = {};
  made.vRefNum = kHostVolume;
  made.parID = item.folder;
  made.name[0] = static_cast<UInt8>(item.name.size());
  std::memcpy(made.name + 1, item.name.data(), item.name.size());
  *spec = made;
  return noErr;
}

OSErr HostResolveRef(const FSRef& ref, HostItem* item, std::string* path, struct stat* info) {
  OSErr err = HostItemOfRef(ref, item);
  if (err != noErr) return err;
  Reference bytes;
  std::memcpy(&bytes, &ref, sizeof bytes);
  Identity known;
  if (bytes.stamp != 0 && bytes.length != 0 && NodeOf(item->folder, path, &known) == noErr) {
    *path = Joined(std::move(*path), item->name);
    if (lstat(path->c_str(), info) == 0 && StampOf(*info) == bytes.stamp) return noErr;
  }
  return HostLookAtItem(*item, path, info);
}

void HostRefOfItem(const HostItem& item, FSRef* ref, const struct stat* info) {
  assert(item.name.size() <= kMaxName);
  Reference bytes = {};
  bytes.stamp = info != nullptr ? StampOf(*info) : 0;
  bytes.key = ReferenceKey();
  bytes.folder = item.folder;
  bytes.length = static_cast<UInt8>(item.name.size());
  std::memcpy(bytes.name, item.name.data(), item.name.size());
  std::memcpy(ref, &bytes, sizeof bytes);
}

OSErr HostPathOfItem(const HostItem& item, std::string* path) {
  if (item.folder == fsRtParID) {
    if (item.name != "/") return fnfErr;
    return *path = "/", noErr;
  }
  if (item.name.empty()) {
    Identity identity;
    const OSErr err = NodeOf(item.folder, path, &identity);
    if (err != noErr) return err;
    // Only items with long names have a number and no name.
    if (path->size() - path->rfind('/') - 1 <= kMaxName) return errFSBadFSRef;
    return identity.isFolder ? HostPathOfFolder(item.folder, path) : OSErr{noErr};
  }
  const OSErr err = HostPathOfFolder(item.folder, path);
  if (err != noErr) return err;
  *path = Joined(std::move(*path), item.name);
  return noErr;
}

OSErr HostLookAtItem(const HostItem& item, std::string* path, struct stat* info) {
  const OSErr err = HostPathOfItem(item, path);
  if (err != noErr) return err;
  return lstat(path->c_str(), info) == 0 ? OSErr{noErr} : HostFileStatus(errno);
}

OSErr HostFolderOfItem(const HostItem& item, HostItem* folder) {
  if (item.folder == fsRtParID) return dirNFErr;
  std::string path;
  const OSErr err = HostPathOfItem(item, &path);
  if (err != noErr) return err;
  const size_t slash = path.rfind('/');
  return HostItemOfPath(slash == 0 ? "/" : path.substr(0, slash), folder);
}

void HostGiveName(std::string_view name, size_t most, StringPtr out) {
  assert(most <= 255);
  out[0] = static_cast<UInt8>(std::min(name.size(), most));
  std::memcpy(out + 1, name.data(), out[0]);
}
