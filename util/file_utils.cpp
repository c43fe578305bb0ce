#include "util/file_utils.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "util/strings.h"

namespace {

constexpr SInt32 kFirstNewSystem = 0x1000;  // the first version with domains
constexpr unsigned char kRootSupportName[] = "\010Veltrane";

// Callers may use either system's number for the machine's domain.
SInt16 MachineDomain(SInt16 domain) {
  SInt32 version = 0;
  if (Gestalt(gestaltSystemVersion, &version) != noErr) return domain;
  if (version < kFirstNewSystem) return domain == kLocalDomain ? SInt16{kOnSystemDisk} : domain;
  return domain == kOnSystemDisk ? SInt16{kLocalDomain} : domain;
}

// Stores the file spec of `name` in a folder. Creates `name` as a folder if it is missing.
OSErr MakeFolderSpec(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, FSSpec* out) {
  OSErr err = FSMakeFSSpec(vRefNum, dirID, name, out);
  if (err == fnfErr) err = FSpDirCreate(out, smSystemScript, nullptr);
  // Another process or thread has made it between the two calls.
  return err == dupFNErr ? FSMakeFSSpec(vRefNum, dirID, name, out) : err;
}

// Stores the path of an item that does not exist yet.
OSErr PathOfNewItem(const FSSpec& item, char* path, UInt32 pathSize) {
  FSSpec folder = {};
  folder.vRefNum = item.vRefNum;
  folder.parID = item.parID;
  FSRef ref;
  OSErr err = FSpMakeFSRef(&folder, &ref);
  if (err == noErr) {
    err = static_cast<OSErr>(FSRefMakePath(&ref, reinterpret_cast<UInt8*>(path), pathSize));
  }
  if (err != noErr) return err;
  char leaf[256];
  pcstrcpy(leaf, item.name, sizeof leaf);
  const size_t length = std::strlen(path);
  const size_t leafLength = std::strlen(leaf);
  // Meant: one byte more than the slash, the name and the NUL need, because callers rely on it.
  if (length + leafLength + 2 >= pathSize) return paramErr;
  path[length] = '/';  // Meant: after the root's own slash, too, because callers rely on it.
  std::memcpy(path + length + 1, leaf, leafLength + 1);
  return noErr;
}

}  // namespace

OSErr FSGetDirID(const FSSpec& folder, SInt32& dirID) {
  FSSpec copy = folder;
  CInfoPBRec block = {};
  block.hFileInfo.ioNamePtr = copy.name;
  block.hFileInfo.ioVRefNum = copy.vRefNum;
  block.hFileInfo.ioDirID = copy.parID;
  const OSErr err = PBGetCatInfoSync(&block);
  if (err != noErr) return err;
  if ((block.hFileInfo.ioFlAttrib & kioFlAttribDirMask) == 0) return dirNFErr;
  dirID = block.dirInfo.ioDrDirID;
  return noErr;
}

OSErr GetFindFolderSpec(FSSpec* out, SInt16 domain, OSType folderType, ConstStr255Param subName,
                        bool create) {
  const SInt16 machineDomain = MachineDomain(domain);
  if (out == nullptr) return paramErr;
  SInt16 vRefNum = 0;
  SInt32 dirID = 0;
  const OSErr err = FindFolder(machineDomain, folderType, create, &vRefNum, &dirID);
  return err == noErr ? MakeFolderSpec(vRefNum, dirID, subName, out) : err;
}

OSErr GetAppSupportSubFolder(FSSpec* out, SInt16 domain, ConstStr255Param subName) {
  return GetFindFolderSpec(out, domain, kApplicationSupportFolderType, subName, true);
}

OSErr GetRootSupportFolder(FSSpec* out, SInt16 domain) {
  return GetAppSupportSubFolder(out, domain, kRootSupportName);
}

OSErr FindOrCreateSubDirectory(FSSpec& folder, unsigned char* name) {
  if (name == nullptr || name[0] == 0) return paramErr;
  SInt32 dirID = 0;
  FSSpec found = {};
  OSErr err = FSGetDirID(folder, dirID);
  if (err == noErr) err = MakeFolderSpec(folder.vRefNum, dirID, name, &found);
  if (err == noErr) folder = found;
  return err;
}

OSErr SetPermissions(FSSpec& item, int mode) {
  static char path[1024];
  const OSErr err = FSSpecToPath(&item, path, sizeof path);
  if (err != noErr) return err;
  const auto bits = static_cast<mode_t>(mode & 0xFFFF);
  return chmod(path, bits) == 0 ? OSErr{noErr} : static_cast<OSErr>(errno);
}

OSErr GetFileSize(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, SInt32* dataSize,
                  SInt32* resourceSize) {
  HParamBlockRec block = {};
  block.fileParam.ioNamePtr = const_cast<StringPtr>(name);
  block.fileParam.ioVRefNum = vRefNum;
  block.fileParam.ioDirID = dirID;
  const OSErr err = PBHGetFInfoSync(&block);
  if (err != noErr) return err;
  if (dataSize != nullptr) *dataSize = block.fileParam.ioFlLgLen;
  if (resourceSize != nullptr) *resourceSize = block.fileParam.ioFlRLgLen;
  return noErr;
}

OSErr FSpGetFileSize(const FSSpec* file, SInt32* dataSize, SInt32* resourceSize) {
  if (file == nullptr) return paramErr;
  return GetFileSize(file->vRefNum, file->parID, file->name, dataSize, resourceSize);
}

OSErr FindAppOnVolume(OSType creator, SInt16 vRefNum, FSSpec* app) {
  if (app == nullptr) return paramErr;
  DTPBRec block = {};
  block.ioVRefNum = vRefNum;
  OSErr err = PBDTGetPath(&block);
  if (err != noErr) return err;
  block.ioFileCreator = creator;
  block.ioIndex = 0;
  block.ioNamePtr = app->name;
  err = PBDTGetAPPLSync(&block);
  if (err != noErr) return err;
  app->vRefNum = vRefNum;
  app->parID = block.ioAPPLParID;
  return noErr;
}

OSErr FSSpecToPath(const FSSpec* item, char* path, UInt32 pathSize) {
  if (path == nullptr) return paramErr;
  FSRef ref;
  OSErr err = FSpMakeFSRef(item, &ref);
  if (err == fnfErr) return PathOfNewItem(*item, path, pathSize);
  if (err == noErr) {
    err = static_cast<OSErr>(FSRefMakePath(&ref, reinterpret_cast<UInt8*>(path), pathSize));
  }
  if (err != noErr) return err;
  return std::strlen(path) <= pathSize ? OSErr{noErr} : OSErr{paramErr};
}

OSErr PathToFSSpec(const char* path, FSSpec* out) {
  if (path == nullptr || path[0] == 0 || out == nullptr) return paramErr;
  FSRef ref;
  const auto err =
      static_cast<OSErr>(FSPathMakeRef(reinterpret_cast<const UInt8*>(path), &ref, nullptr));
  if (err != noErr) return err;
  return FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, out, nullptr);
}

OSErr GetCurrentPSN(ProcessSerialNumber* psn) { return GetCurrentProcess(psn); }

void FirstPSN(ProcessSerialNumber* psn) {
  psn->highLongOfPSN = 0;
  psn->lowLongOfPSN = kNoProcess;
}

OSErr FindPSN(ProcessSerialNumber* psn, OSType signature, OSType type) {
  if (psn == nullptr) return paramErr;
  FirstPSN(psn);
  return FindNextPSN(psn, signature, type);
}

OSErr FindNextPSN(ProcessSerialNumber* psn, OSType signature, OSType type) {
  for (;;) {
    const OSErr err = GetNextProcess(psn);
    if (err != noErr) return err;
    ProcessInfoRec info = {};
    info.processInfoLength = sizeof info;
    // A process without information has ended meanwhile.
    if (GetProcessInformation(psn, &info) != noErr) continue;
    if (info.processSignature == signature && info.processType == type) return noErr;
  }
}
