#include "util/app_error_utils.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <syslog.h>

#include "util/file_utils.h"
#include "util/notice_post.h"
#include "util/strings.h"

namespace {

constexpr int kAssertPriority = 0x404;  // a warning

const char* Shown(const char* text) { return text != nullptr ? text : "(null)"; }

constexpr unsigned char kLogsName[] = "\004Logs";
constexpr int kOpenToAll = 0777;

// Leaves another user's folder as it is, and the target of a link: everyone may write to the folder
// around it, so anyone may have put the link there.
void OpenToAll(FSSpec& folder) {
  FSSpec target = folder;
  Boolean isFolder = 0, isLink = 0;
  if (ResolveAliasFile(&target, 1, &isFolder, &isLink) != noErr || isLink != 0) return;
  SetPermissions(folder, kOpenToAll);
}

// Steps into each folder of `subPath` and overwrites each "/" with a NUL.
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

constinit const char* VLTAppErrorUtils::sExecutableName = "(AppExecutablePathHere)";
constinit const char* VLTAppErrorUtils::sExecutableShortName = "(AppNameHere)";
constinit const char* VLTAppErrorUtils::sLogFileName = "/var/log/Veltrane debug.log";
constinit bool VLTAppErrorUtils::sSysLogErrs = false;
constinit UInt32 VLTAppErrorUtils::sNotificationFlags = 0;
constinit NMRec VLTAppErrorUtils::sNotificationRecord = {nullptr, nmType,  0,       0,       0, 0,
                                                         nullptr, nullptr, nullptr, nullptr, 0};

void VLTAppErrorUtils::setAppName(const char* path) {
  if (path == nullptr) return;
  const char* slash = std::strrchr(path, '/');
  sExecutableName = path;
  sExecutableShortName = slash != nullptr ? slash + 1 : path;
}

OSStatus VLTAppErrorUtils::setLogfileName(const char*, bool, const char*) { return noErr; }

const char* VLTAppErrorUtils::logIOReturn(SInt32 status) {
  static char text[256];
  const auto sys = static_cast<UInt32>(status >> 26 & 0x3F);
  const auto sub = static_cast<UInt32>(status >> 14 & 0xFFF);
  const auto code = static_cast<UInt32>(status & 0x3FFF);
  std::snprintf(text, sizeof text, "(sys=%" PRIx32 ", sub=%" PRIx32 ", code=%" PRIx32 ")", sys, sub,
                code);
  return text;
}

void VLTAppErrorUtils::reportError(const char* who, const char* message, const char* file,
                                   SInt32 line, bool) {
  if (sSysLogErrs) {
    syslog(kAssertPriority, "%s Assert Failed: %s line %ld : %s\n", Shown(who), Shown(file),
           static_cast<long>(line), Shown(message));
  }
  Debugger();
}

OSErr VLTAppErrorUtils::reportErrorNotify(const char* who, const char* message, const char* file,
                                          SInt32 line, bool flag) {
  auto* notice = reinterpret_cast<unsigned char*>(const_cast<char*>(message));
  // Meant: the report prints the length byte, too, because callers rely on it. The copy adds the
  // NUL that a length-prefixed string lacks.
  char logged[257] = {};
  if (notice != nullptr) {
    BlockMoveData(notice, logged, 1 + Size{notice[0]});
  }
  reportError(who, notice != nullptr ? logged : nullptr, file, line, flag);
  return userNotify(notice);
}

OSErr VLTAppErrorUtils::userNotify(unsigned char* text) {
  PostNotice(&sNotificationFlags, &sNotificationRecord, text, notifyNMCompletion);
  return noErr;
}

void VLTAppErrorUtils::notifyNMCompletion(NMRecPtr) { NoticeIsDone(&sNotificationFlags); }

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
