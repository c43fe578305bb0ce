#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/applications/bundle.h"
#include "platform/host/base/guard.h"
#include "platform/host/files/items.h"
#include "platform/host/services/date_time.h"

namespace {

// The only desktop database. It covers all application folders.
constexpr SInt16 kDesktopRefNum = 1;

struct Application {
  HostItem item;
  UInt32 date = 0;  // when the bundle's folder was last changed
};

// Finds the applications of a creator, in the order of the folders. Leaves out bundles whose names
// are too long for a file spec.
std::vector<Application> ApplicationsOf(OSType creator) {
  std::vector<Application> found;
  for (const HostBundle& bundle : HostListApplications()) {
    if (bundle.signature != creator || bundle.packageType != FourCC('A', 'P', 'P', 'L')) continue;
    Application application;
    struct stat info;
    if (stat(bundle.path.c_str(), &info) != 0) continue;
    if (HostItemAtEndOf(bundle.path.c_str(), &application.item) != noErr) continue;
    if (application.item.name.empty()) continue;
    application.date = HostLocalDate(info.st_mtime);
    found.push_back(std::move(application));
  }
  return found;
}

OSErr GetApplication(DTPBRec* block) {
  if (block->ioDTRefNum != kDesktopRefNum) return rfNumErr;
  if (block->ioIndex < 0) return paramErr;
  const std::vector<Application> found = ApplicationsOf(block->ioFileCreator);
  auto place = found.begin();
  if (block->ioIndex == 0) {
    place = std::max_element(found.begin(), found.end(),
                             [](const auto& a, const auto& b) { return a.date < b.date; });
  } else if (static_cast<size_t>(block->ioIndex) <= found.size()) {
    place += block->ioIndex - 1;
  } else {
    place = found.end();
  }
  if (place == found.end()) return afpItemNotFound;
  if (block->ioNamePtr != nullptr)
    HostGiveName(place->item.name, sizeof(Str63) - 1, block->ioNamePtr);
  block->ioAPPLParID = place->item.folder;
  block->ioTagInfo = static_cast<SInt32>(place->date);
  return noErr;
}

}  // namespace

OSErr PBDTGetPath(DTPBPtr block) {
  if (block == nullptr) return paramErr;
  const bool isVolume = block->ioVRefNum == 0 || block->ioVRefNum == kHostVolume;
  if (isVolume) block->ioDTRefNum = kDesktopRefNum;
  return block->ioResult = isVolume ? OSErr{noErr} : OSErr{nsvErr};
}

OSErr PBDTGetAPPLSync(DTPBPtr block) {
  if (block == nullptr) return paramErr;
  return block->ioResult = HostGuard(OSErr{memFullErr}, [block] { return GetApplication(block); });
}
