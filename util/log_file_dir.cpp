#include <cstdio>

#include "util/app_error_utils.h"
#include "util/file_utils.h"
#include "util/strings.h"

namespace {

constexpr unsigned char kLogsName[] = "\004Logs";
constexpr int kOpenToAll = 0777;

// Another user's folder stays as it is. So does what a link leads to: all may write the folder
// around it, so anybody may have put the link there.
void OpenToAll(FSSpec& folder) {
  FSSpec target = folder;
  Boolean isFolder = 0, isLink = 0;
  if (ResolveAliasFile(&target, 1, &isFolder, &isLink) != noErr || isLink != 0) return;
  SetPermissions(folder, kOpenToAll);
}

// Steps into each folder of `subPath`, putting a zero over each "/" on the way.
OSErr WalkDown(FSSpec& folder, char* subPath) {
  OSErr err = noErr;
  for (char* name = subPath; err == noErr && name != nullptr;) {
    char* slash = name;
    while (*slash != 0 && *slash != '/') ++slash;
    char* const next = *slash == '/' ? slash + 1 : nullptr;
    *slash = 0;
    if (*name != 0) {
      Str255 text;
      err = FindOrCreateSubDirectory(folder, cpstrcpy(text, name, sizeof text));
      if (err == noErr) OpenToAll(folder);
    }
    name = next;
  }
  return err;
}

}  // namespace

OSErr VLTAppErrorUtils::GetLogFileDirPath(char* path, UInt32 pathSize, char* subPath,
                                          SInt16 domain) {
  if (path == nullptr || pathSize == 0 || subPath == nullptr) return paramErr;
  FSSpec folder = {};
  OSErr err = GetFindFolderSpec(&folder, domain != 0 ? domain : SInt16{kLocalDomain},
                                kDomainLibraryFolderType, kLogsName, true);
  if (err == noErr) err = WalkDown(folder, subPath);
  if (err == noErr) err = FSSpecToPath(&folder, path, pathSize);
  if (err != noErr) std::snprintf(path, pathSize, "%s", "/Library/Logs");
  return err;
}
