#include "platform/host/applications/bundle.h"

#include <CoreFoundation/CFDictionary.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <mutex>
#include <unordered_map>

#include "platform/host/base/directory.h"
#include "platform/host/base/install_prefix.h"
#include "platform/host/base/open_file.h"
#include "platform/host/base/user_folders.h"
#include "platform/host/objects/cf_dictionary.h"
#include "platform/host/objects/cf_string.h"
#include "platform/host/plist/codec.h"

namespace {

constexpr std::string_view kExtension = ".app";
constexpr std::string_view kProgramFolder = "/Contents/Linux/";
constexpr off_t kMaxDescription = 1 << 20;
constexpr size_t kMaxKept = 256;
constexpr int kMaxDepth = 4;
constexpr size_t kMaxEntries = 10'000;

// A state of a file. As long as it is the same, so is the file's content.
struct FileState {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec changed = {};

  bool operator==(const FileState& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
  }
};

FileState StateOf(const struct stat& info) {
  return {info.st_dev, info.st_ino, info.st_size, info.st_mtim};
}

// Keys of a description. As constants they need no memory.
constinit HostCFString sIdentifier{"CFBundleIdentifier"};
constinit HostCFString sVersion{"CFBundleVersion"};
constinit HostCFString sShortVersionString{"CFBundleShortVersionString"};
constinit HostCFString sSignature{"CFBundleSignature"};
constinit HostCFString sPackageType{"CFBundlePackageType"};
constinit HostCFString sExecutable{"CFBundleExecutable"};

struct Kept {
  FileState state;
  int error = 0;  // errno of a description that could not be read
  bool isBundle = false;
  HostBundle bundle;
};

struct Cache {
  std::mutex mutex;
  std::unordered_map<std::string, Kept> bundles;  // by path
};

Cache& KeptBundles() {
  static Cache* cache = new Cache;
  return *cache;
}

// Reads all of a regular file that is not too large, and the state it was in. `*error` is the errno
// value of a call that failed.
bool ReadWhole(const std::string& path, std::string* bytes, FileState* state, int* error) {
  const HostOpenFile file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file.IsOpen()) return *error = errno, false;
  struct stat info;
  bool isRead =
      fstat(file.Get(), &info) == 0 && S_ISREG(info.st_mode) && info.st_size <= kMaxDescription;
  if (isRead) {
    *state = StateOf(info);
    bytes->resize(static_cast<size_t>(info.st_size));
    size_t filled = 0;
    while (filled < bytes->size()) {
      const ssize_t size = read(file.Get(), bytes->data() + filled, bytes->size() - filled);
      if (size < 0 && errno == EINTR) continue;
      if (size < 0) *error = errno;
      if (size <= 0) break;
      filled += static_cast<size_t>(size);
    }
    isRead = filled == bytes->size();
  }
  return isRead;
}

// Returns a string of the description in `encoding`, or "" if it is missing, is not a string, or
// cannot be encoded.
std::string TextOf(CFDictionaryRef description, CFStringRef key, CFStringEncoding encoding) {
  const auto* text = HostCast<HostCFString>(CFDictionaryGetValue(description, key));
  if (text == nullptr) return "";
  size_t size = 0;
  if (HostEncodeText(encoding, text->Text(), 0, nullptr, 0, &size) != text->Length()) return "";
  std::string bytes(size, 0);
  HostEncodeText(encoding, text->Text(), 0, reinterpret_cast<UInt8*>(bytes.data()), size, &size);
  return bytes;
}

// Reads a code of four characters. Leaves `code` unchanged if there are not four.
void ReadCode(CFDictionaryRef description, CFStringRef key, OSType* code) {
  const std::string text = TextOf(description, key, kCFStringEncodingMacRoman);
  if (text.size() == 4) *code = FourCC(text[0], text[1], text[2], text[3]);
}

std::string FileName(std::string_view path) {
  return std::string(path.substr(path.rfind('/') + 1));
}

void ReadDescription(CFDictionaryRef description, HostBundle* bundle) {
  bundle->identifier = TextOf(description, &sIdentifier, kCFStringEncodingUTF8);
  bundle->version = TextOf(description, &sVersion, kCFStringEncodingUTF8);
  if (bundle->version.empty()) {
    bundle->version = TextOf(description, &sShortVersionString, kCFStringEncodingUTF8);
  }
  ReadCode(description, &sSignature, &bundle->signature);
  ReadCode(description, &sPackageType, &bundle->packageType);
  if (CFDictionaryContainsKey(description, &sExecutable)) {
    bundle->executable = TextOf(description, &sExecutable, kCFStringEncodingUTF8);
  } else {
    bundle->executable = FileName(bundle->path);
    bundle->executable.resize(bundle->executable.size() - kExtension.size());
  }
  const std::string& name = bundle->executable;
  if (name == "." || name == ".." || name.find('/') != std::string::npos ||
      name.find('\0') != std::string::npos) {
    bundle->executable.clear();
  }
}

Kept ReadBundle(const std::string& path) {
  Kept kept;
  std::string bytes;
  if (!ReadWhole(path + "/Contents/Info.plist", &bytes, &kept.state, &kept.error)) {
    kept.state = {};  // read again next time
    return kept;
  }
  CFPropertyListFormat format = 0;
  HostPropertyListError error;
  const HostRetained<const HostCFObject> list(static_cast<const HostCFObject*>(
      HostReadPlist(reinterpret_cast<const UInt8*>(bytes.data()), bytes.size(),
                    {kCFPropertyListImmutable}, &format, &error)));
  if (error.IsNoMemory())
    throw std::bad_alloc();  // else the folder would not be taken for a bundle
  if (const auto* description = HostCast<HostCFDictionary>(list.Get())) {
    kept.isBundle = true;
    kept.bundle.path = path;
    ReadDescription(description, &kept.bundle);
  }
  return kept;
}

// Returns the reason why a description that exists is not used.
std::string DescriptionProblem(const std::string& path) {
  std::string bytes;
  FileState state;
  int error = 0;
  if (!ReadWhole(path, &bytes, &state, &error)) {
    return std::string("Contents/Info.plist: ") +
           (error != 0 ? strerror(error) : "not a file of at most 1 MiB");
  }
  CFPropertyListFormat format = 0;
  HostPropertyListError problem;
  const CFPropertyListRef list =
      HostReadPlist(reinterpret_cast<const UInt8*>(bytes.data()), bytes.size(),
                    {kCFPropertyListImmutable}, &format, &problem);
  if (list == nullptr) return "Contents/Info.plist is damaged: " + problem.text;
  CFRelease(list);
  return "Contents/Info.plist has no dictionary at its root";
}

bool IsBundleName(std::string_view path) {
  const size_t slash = path.rfind('/');
  const std::string_view name = path.substr(slash == std::string_view::npos ? 0 : slash + 1);
  return name.size() > kExtension.size() && name.ends_with(kExtension);
}

// A link counts if its target has a bundle's name, too, because the target is what is opened.
bool LeadsToBundle(const std::string& path) {
  char real[PATH_MAX];
  return realpath(path.c_str(), real) != nullptr && IsBundleName(real);
}

// A walk through a folder of applications. It keeps a list of the folders to visit and does not
// recurse, so deep trees cost no stack.
struct Walk {
  struct Folder {
    std::string path;
    int depth;
  };

  std::vector<Folder> folders;
  std::vector<std::string> bundles;
  size_t entries = 0;

  void Visit(const Folder& folder) {
    HostDirectory directory(folder.path.c_str());
    if (!directory.IsOpen()) return;
    while (const dirent* entry = directory.Next()) {
      if (entry->d_name[0] == '.') continue;
      if (++entries > kMaxEntries) break;
      std::string path = folder.path + "/" + entry->d_name;
      if (IsBundleName(path)) {
        if (entry->d_type == DT_DIR || LeadsToBundle(path)) bundles.push_back(std::move(path));
      } else if (folder.depth + 1 < kMaxDepth && IsFolder(directory.Descriptor(), *entry)) {
        folders.push_back({std::move(path), folder.depth + 1});
      }
    }
  }

  static bool IsFolder(int directory, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat info;
    return fstatat(directory, entry.d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(info.st_mode);
  }
};

}  // namespace

bool HostReadBundle(std::string_view path, HostBundle* bundle, int* error) {
  if (error != nullptr) *error = 0;
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (!IsBundleName(path) || path.find('\0') != std::string_view::npos) return false;
  const std::string key(path);
  struct stat info;
  if (stat((key + "/Contents/Info.plist").c_str(), &info) != 0) return false;
  Cache& cache = KeptBundles();
  const std::lock_guard<std::mutex> lock(cache.mutex);
  auto entry = cache.bundles.find(key);
  if (entry == cache.bundles.end() || !(entry->second.state == StateOf(info))) {
    if (cache.bundles.size() >= kMaxKept) cache.bundles.clear();
    entry = cache.bundles.insert_or_assign(key, ReadBundle(key)).first;
  }
  if (entry->second.isBundle) *bundle = entry->second.bundle;
  if (error != nullptr) *error = entry->second.error;
  return entry->second.isBundle;
}

std::string_view HostBundleAround(std::string_view programPath) {
  const size_t slash = programPath.rfind('/');
  if (slash == std::string_view::npos) return {};
  const std::string_view folder = programPath.substr(0, slash + 1);
  if (!folder.ends_with(kProgramFolder)) return {};
  const std::string_view bundle = folder.substr(0, folder.size() - kProgramFolder.size());
  return IsBundleName(bundle) ? bundle : std::string_view{};
}

bool HostBundleOfProgram(std::string_view programPath, HostBundle* bundle) {
  constexpr std::string_view kDeleted = " (deleted)";
  const std::string_view around = HostBundleAround(programPath);
  HostBundle found;
  if (around.empty() || !HostReadBundle(around, &found)) return false;
  const std::string_view name = programPath.substr(around.size() + kProgramFolder.size());
  const std::string_view rest = name.substr(std::min(name.size(), found.executable.size()));
  if (!name.starts_with(found.executable) || found.executable.empty()) return false;
  if (!rest.empty() && rest != kDeleted) return false;
  *bundle = std::move(found);
  return true;
}

std::vector<std::string> HostApplicationFolders() {
  std::vector<std::string> folders;
  const std::string own = HostDataFolder();
  if (!own.empty()) folders.push_back(own + "/veltrane/Applications");
  for (const std::string& shared : HostSharedDataFolders()) {
    folders.push_back(shared + "/veltrane/Applications");
  }
  for (const std::string& prefix : HostInstallPrefixes()) {
    std::string folder = prefix + "/share/veltrane/Applications";
    if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
      folders.push_back(std::move(folder));
    }
  }
  return folders;
}

std::vector<std::string> HostListBundlePaths() {
  std::vector<std::string> paths;
  for (const std::string& root : HostApplicationFolders()) {
    Walk walk;
    walk.folders.push_back({root, 0});
    while (!walk.folders.empty() && walk.entries <= kMaxEntries) {
      const Walk::Folder next = std::move(walk.folders.back());
      walk.folders.pop_back();
      walk.Visit(next);
    }
    std::sort(walk.bundles.begin(), walk.bundles.end());
    std::move(walk.bundles.begin(), walk.bundles.end(), std::back_inserter(paths));
  }
  return paths;
}

std::vector<HostBundle> HostListApplications() {
  std::vector<HostBundle> applications;
  for (const std::string& path : HostListBundlePaths()) {
    HostBundle bundle;
    if (HostReadBundle(path, &bundle)) applications.push_back(std::move(bundle));
  }
  return applications;
}

std::string HostBundleProblem(const std::string& path) {
  const std::string description = path + "/Contents/Info.plist";
  HostBundle bundle;
  struct stat info;
  if (stat(description.c_str(), &info) != 0) {
    return "Contents/Info.plist: " + std::string(strerror(errno));
  }
  if (!HostReadBundle(path, &bundle)) return DescriptionProblem(description);
  if (bundle.packageType != FourCC('A', 'P', 'P', 'L')) {
    return "CFBundlePackageType is not APPL";
  }
  if (bundle.executable.empty()) return "CFBundleExecutable is not the name of a file";
  const std::string program = "Contents/Linux/" + bundle.executable;
  if (stat(bundle.Program().c_str(), &info) != 0) return program + ": " + strerror(errno);
  if (!S_ISREG(info.st_mode)) return program + " is not a file";
  if (faccessat(AT_FDCWD, bundle.Program().c_str(), X_OK, AT_EACCESS) != 0) {
    return program + " is not executable for this user";
  }
  return "";
}
