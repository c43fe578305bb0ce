#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <dirent.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/host/bundle.h"
#include "platform/host/date_time.h"
#include "platform/host/file_items.h"
#include "platform/host/file_status.h"

namespace {

// Where file servers on Linux keep a file's resource fork.
constexpr char kResourceForkAttribute[] = "user.org.netatalk.ResourceFork";
constexpr SInt16 kDesktopRefNum = 1;

SInt32 Clamped(int64_t size) {
  return static_cast<SInt32>(std::clamp<int64_t>(size, 0, INT32_MAX));
}

struct CatalogueEntry {
  HostItem item;
  std::string path;
  struct stat info;
};

OSErr FindEntry(const HostItem& item, CatalogueEntry* entry) {
  entry->item = item;
  return HostLookAtItem(item, &entry->path, &entry->info);
}

OSErr FindIndexed(SInt32 folder, int index, CatalogueEntry* entry) {
  std::string path;
  const OSErr err = HostPathOfFolder(folder, &path);
  if (err != noErr) return err;
  DIR* directory = opendir(path.c_str());
  if (directory == nullptr) return HostFileStatus(errno);
  std::vector<std::string> names;
  while (const dirent* each = readdir(directory)) {
    if (HostIsRecordName(each->d_name)) names.emplace_back(each->d_name);
  }
  closedir(directory);
  if (static_cast<size_t>(index) > names.size()) return fnfErr;
  const auto place = names.begin() + (index - 1);
  std::nth_element(names.begin(), place, names.end());
  return FindEntry({folder, *place}, entry);
}

// What a block asks for, by the rules of ioFDirIndex.
OSErr FindAsked(const HFileInfo& block, CatalogueEntry* entry) {
  const bool isNamed = block.ioFDirIndex == 0;
  HostItem item;
  const OSErr err =
      HostItemOfSpec(block.ioVRefNum, block.ioDirID, isNamed ? block.ioNamePtr : nullptr, &item);
  if (err != noErr) return err;
  if (block.ioFDirIndex <= 0) return FindEntry(item, entry);
  std::string path;
  SInt32 folder = 0;
  OSErr found = HostPathOfItem(item, &path);
  if (found == noErr) found = HostNumberOfFolder(path, &folder);
  return found == noErr ? FindIndexed(folder, block.ioFDirIndex, entry) : found;
}

void GiveName(const std::string& name, StringPtr out) {
  const size_t length = std::min(name.size(), sizeof(Str63) - 1);
  out[0] = static_cast<UInt8>(length);
  std::memcpy(out + 1, name.data(), length);
}

// The fields that every kind of block has for a file.
template <class Block>
void FillFile(const CatalogueEntry& entry, Block* block) {
  const ssize_t fork = lgetxattr(entry.path.c_str(), kResourceForkAttribute, nullptr, 0);
  block->ioFlLgLen = Clamped(entry.info.st_size);
  block->ioFlPyLen = Clamped(int64_t{entry.info.st_blocks} * 512);
  block->ioFlRLgLen = block->ioFlRPyLen = Clamped(fork);
  block->ioFlStBlk = block->ioFlRStBlk = 0;
  block->ioFlFndrInfo = {};
  block->ioFlCrDat = block->ioFlMdDat = HostLocalDate(entry.info.st_mtime);
  block->ioDirID = 0;  // files have no number
}

template <class Block>
void FillCommon(const CatalogueEntry& entry, Block* block) {
  const bool isLocked = (entry.info.st_mode & 0222) == 0;
  block->ioFRefNum = 0;
  block->ioFlAttrib = static_cast<UInt8>((isLocked ? kioFlAttribLockedMask : 0) |
                                         (S_ISDIR(entry.info.st_mode) ? kioFlAttribDirMask : 0));
}

OSErr FillFolder(const CatalogueEntry& entry, DirInfo* block) {
  SInt32 number = 0;
  const OSErr err = HostNumberOfFolder(entry.path, &number);
  if (err != noErr) return err;
  FillCommon(entry, block);
  block->ioDrUsrWds = {};
  block->ioDrFndrInfo = {};
  block->ioDrDirID = number;
  block->ioDrNmFls = 0;
  block->ioDrCrDat = block->ioDrMdDat = HostLocalDate(entry.info.st_mtime);
  block->ioDrBkDat = 0;
  block->ioDrParID = entry.item.folder;
  return noErr;
}

OSErr GetCatInfo(CInfoPBRec* block) {
  CatalogueEntry entry;
  OSErr err = FindAsked(block->hFileInfo, &entry);
  const bool isFolder = err == noErr && S_ISDIR(entry.info.st_mode);
  if (isFolder) err = FillFolder(entry, &block->dirInfo);
  if (err != noErr) return err;
  if (!isFolder) {
    HFileInfo* file = &block->hFileInfo;
    FillCommon(entry, file);
    FillFile(entry, file);
    file->ioFlBkDat = 0;
    file->ioFlXFndrInfo = {};
    file->ioFlParID = entry.item.folder;
    file->ioFlClpSiz = 0;
  }
  StringPtr name = block->hFileInfo.ioNamePtr;
  if (name != nullptr && block->hFileInfo.ioFDirIndex != 0) GiveName(entry.item.name, name);
  return noErr;
}

OSErr GetFInfo(HFileParam* block) {
  if (block->ioFDirIndex != 0) return paramErr;
  HostItem item;
  CatalogueEntry entry;
  OSErr err = HostItemOfSpec(block->ioVRefNum, block->ioDirID, block->ioNamePtr, &item);
  if (err == noErr) err = FindEntry(item, &entry);
  if (err == noErr && S_ISDIR(entry.info.st_mode)) err = fnfErr;
  if (err != noErr) return err;
  FillCommon(entry, block);
  FillFile(entry, block);
  return noErr;
}

struct Application {
  HostItem item;
  UInt32 date = 0;  // of the bundle's making, as near as the disk tells
};

// The applications of a creator whose bundles have a record, in the order of the folders.
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
  if (block->ioNamePtr != nullptr) GiveName(place->item.name, block->ioNamePtr);
  block->ioAPPLParID = place->item.folder;
  block->ioTagInfo = static_cast<SInt32>(place->date);
  return noErr;
}

}  // namespace

OSErr PBGetCatInfoSync(CInfoPBPtr block) {
  if (block == nullptr) return paramErr;
  return block->hFileInfo.ioResult = GetCatInfo(block);
}

OSErr PBHGetFInfoSync(HParmBlkPtr block) {
  if (block == nullptr) return paramErr;
  return block->fileParam.ioResult = GetFInfo(&block->fileParam);
}

OSErr PBDTGetPath(DTPBPtr block) {
  if (block == nullptr) return paramErr;
  const bool isVolume = block->ioVRefNum == 0 || block->ioVRefNum == kHostVolume;
  if (isVolume) block->ioDTRefNum = kDesktopRefNum;
  return block->ioResult = isVolume ? OSErr{noErr} : OSErr{nsvErr};
}

OSErr PBDTGetAPPLSync(DTPBPtr block) {
  if (block == nullptr) return paramErr;
  return block->ioResult = GetApplication(block);
}
