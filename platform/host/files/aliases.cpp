#include <CoreServices/Aliases.h>
#include <CoreServices/MacErrors.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/host/base/guard.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"

namespace {

constexpr int kMaxLinks = 40;

struct Target {
  HostItem item;
  std::string path;
  struct stat info;
};

// Looks at the item. If it does not exist, returns fnfErr and sets the target's item and path.
OSErr LookAt(const HostItem& item, Target* target) {
  target->item = item;
  return HostLookAtItem(item, &target->path, &target->info);
}

// Finds the item that a link's text names, relative to the folder of the link. Its last component
// may be a link again or may not exist.
OSErr ItemOfLink(const std::string& linkPath, const std::string& text, HostItem* item) {
  std::string path = text;
  if (path[0] != '/') path.insert(0, linkPath.substr(0, linkPath.rfind('/') + 1));
  const size_t last = path.find_last_not_of('/');
  if (last == std::string::npos) return HostItemAtEndOf("/", item);
  const size_t slash = path.rfind('/', last);
  const std::string name = path.substr(slash + 1, last - slash);
  if (name == "." || name == "..") return HostItemAtEndOf(path.c_str(), item);
  HostItem folder;
  std::string folderPath;
  SInt32 number = 0;
  OSErr err = HostItemAtEndOf(path.substr(0, slash + 1).c_str(), &folder);
  if (err == noErr) err = HostPathOfItem(folder, &folderPath);
  if (err == noErr) err = HostNumberOfFolder(folderPath, &number);
  if (err != noErr) return err == fnfErr ? OSErr{dirNFErr} : err;
  if (HostIsSpecName(name)) return *item = {number, name}, noErr;
  return bdNamErr;
}

OSErr FollowOnce(Target* target) {
  char text[PATH_MAX];
  const ssize_t size = readlink(target->path.c_str(), text, sizeof text);
  if (size <= 0) return size < 0 ? HostFileStatus(errno) : OSErr{fnfErr};
  HostItem item;
  const OSErr err = ItemOfLink(target->path, std::string(text, static_cast<size_t>(size)), &item);
  return err == noErr ? LookAt(item, target) : err;
}

OSErr Resolve(FSSpec* spec, bool resolvesChains, Boolean* targetIsFolder, Boolean* wasAliased) {
  HostItem item;
  Target target;
  OSErr err = HostItemOfSpec(*spec, &item);
  if (err == noErr) err = LookAt(item, &target);
  if (err != noErr) return err;
  int links = 0;
  while (err == noErr && S_ISLNK(target.info.st_mode) && (links == 0 || resolvesChains)) {
    if (++links > kMaxLinks) return fnfErr;
    err = FollowOnce(&target);
  }
  const OSErr failure = err;
  if (links > 0 && (err == noErr || err == fnfErr)) err = HostSpecOfItem(target.item, spec);
  if (err != noErr || failure != noErr) return failure != noErr ? failure : err;
  *targetIsFolder = S_ISDIR(target.info.st_mode);
  *wasAliased = links > 0;
  return noErr;
}

}  // namespace

OSErr ResolveAliasFile(FSSpec* spec, Boolean resolveAliasChains, Boolean* targetIsFolder,
                       Boolean* wasAliased) {
  if (spec == nullptr || targetIsFolder == nullptr || wasAliased == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [=] {
    return Resolve(spec, resolveAliasChains != 0, targetIsFolder, wasAliased);
  });
}
