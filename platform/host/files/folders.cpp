#include <CoreServices/Folders.h>
#include <CoreServices/MacErrors.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/host/base/guard.h"
#include "platform/host/base/open_file.h"
#include "platform/host/base/user_folders.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"

namespace {

// Returns the root of a domain, or "" for an unknown domain.
std::string DomainRoot(SInt16 domain) {
  if (domain == kUserDomain) {
    const std::string data = HostDataFolder();
    return data.empty() ? "" : data + "/veltrane";
  }
  if (domain != kLocalDomain && domain != kOnSystemDisk && domain != kOnAppropriateDisk) return "";
  const std::string moved = HostFolderVariable("VLTHOST_LOCAL_ROOT");
  return moved.empty() ? "/var/lib/veltrane" : moved;
}

// The machine's applications are in the folder where installed programs keep their data.
std::string ApplicationsFolder(SInt16 domain, const std::string& root) {
  if (domain == kUserDomain) return root + "/Applications";
  const auto shared = HostSharedDataFolders();
  return shared.empty() ? "" : shared[0] + "/veltrane/Applications";
}

// Returns "" for an unknown domain or type.
std::string PathOf(SInt16 domain, OSType type) {
  std::string root = DomainRoot(domain);
  if (root.empty()) return "";
  switch (type) {
    case kDomainTopLevelFolderType:
      return root;
    case kDomainLibraryFolderType:
      return root + "/Library";
    case kApplicationSupportFolderType:
      return root + "/Library/Application Support";
    case kPreferencesFolderType:
      return root + "/Library/Preferences";
    case kApplicationsFolderType:
      return ApplicationsFolder(domain, root);
    case kTemporaryFolderType:
      return "/tmp";
    case kCurrentUserFolderType:
      return HostHomeFolder();
    default:
      return "";
  }
}

// A folder that root has made inside another user's folder is given to that user, who could not use
// it otherwise.
void GiveToOwnerOfParent(const std::string& path) {
  struct stat parent;
  if (geteuid() != 0) return;
  if (stat(path.substr(0, path.rfind('/') + 1).c_str(), &parent) != 0 || parent.st_uid == 0) return;
  const HostOpenFile made(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!made.IsOpen()) return;
  [[maybe_unused]] const int ignored = fchown(made.Get(), parent.st_uid, parent.st_gid);
}

// Makes the missing folders of a path. Those that exist may be links.
OSErr MakeFolders(const std::string& path) {
  for (size_t end = 1; end != std::string::npos;) {
    end = path.find('/', end);
    const std::string part = path.substr(0, end);
    if (end != std::string::npos) ++end;
    struct stat info;
    if (stat(part.c_str(), &info) == 0) continue;
    if (errno != ENOENT) return HostFileStatus(errno);
    if (mkdir(part.c_str(), 0777) == 0) {
      GiveToOwnerOfParent(part);
    } else if (errno != EEXIST) {
      return HostFileStatus(errno);
    }
  }
  return noErr;
}

OSErr FindItem(SInt16 domain, OSType type, Boolean create, HostItem* item) {
  const std::string path = PathOf(domain, type);
  if (path.empty()) return fnfErr;
  OSErr err = HostItemAtEndOf(path.c_str(), item);
  if (err != fnfErr || !create) return err;
  err = MakeFolders(path);
  return err == noErr ? HostItemAtEndOf(path.c_str(), item) : err;
}

}  // namespace

OSErr FindFolder(SInt16 domain, OSType type, Boolean create, SInt16* vRefNum, SInt32* dirID) {
  if (vRefNum == nullptr || dirID == nullptr) return paramErr;
  SInt32 number = 0;
  const OSErr err = HostGuard(OSErr{memFullErr}, [&] {
    HostItem item;
    std::string path;
    OSErr found = FindItem(domain, type, create, &item);
    if (found == noErr) found = HostPathOfItem(item, &path);
    return found == noErr ? HostNumberOfFolder(path, &number) : found;
  });
  if (err != noErr) return err;
  *vRefNum = kHostVolume;
  *dirID = number;
  return noErr;
}

OSErr FSFindFolder(SInt16 domain, OSType type, Boolean create, FSRef* ref) {
  if (ref == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&] {
    HostItem item;
    const OSErr err = FindItem(domain, type, create, &item);
    if (err == noErr) HostRefOfItem(item, ref);
    return err;
  });
}
