#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/host/base/directory.h"
#include "platform/host/base/guard.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"
#include "platform/host/services/date_time.h"

namespace {

// The extended attribute in which file servers on Linux store a file's resource fork.
constexpr char kResourceForkAttribute[] = "user.org.netatalk.ResourceFork";

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
  HostDirectory directory(path.c_str());
  if (!directory.IsOpen()) return HostFileStatus(errno);
  std::vector<std::string> names;
  while (const dirent* each = directory.Next()) {
    if (HostIsSpecName(each->d_name)) names.emplace_back(each->d_name);
  }
  if (static_cast<size_t>(index) > names.size()) return fnfErr;
  const auto wanted = names.begin() + (index - 1);
  std::nth_element(names.begin(), wanted, names.end());
  return FindEntry({folder, *wanted}, entry);
}

// Finds the item that a parameter block names, by the rules of ioFDirIndex.
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

// Fills the fields that both kinds of parameter block have for a file.
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
  if (name != nullptr && block->hFileInfo.ioFDirIndex != 0)
    HostGiveName(entry.item.name, sizeof(Str63) - 1, name);
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

}  // namespace

OSErr PBGetCatInfoSync(CInfoPBPtr block) {
  if (block == nullptr) return paramErr;
  return block->hFileInfo.ioResult =
             HostGuard(OSErr{memFullErr}, [block] { return GetCatInfo(block); });
}

OSErr PBHGetFInfoSync(HParmBlkPtr block) {
  if (block == nullptr) return paramErr;
  return block->fileParam.ioResult =
             HostGuard(OSErr{memFullErr}, [block] { return GetFInfo(&block->fileParam); });
}
