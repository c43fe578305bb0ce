#include "util/app_error_utils.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <syslog.h>

#include "util/notice_post.h"

namespace {

constexpr int kAssertPriority = 0x404;  // a warning

const char* Shown(const char* text) { return text != nullptr ? text : "(null)"; }

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
  // The report prints the length byte too, as it always has; it needs a terminator, which a
  // length-prefixed string lacks.
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
