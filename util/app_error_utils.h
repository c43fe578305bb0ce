#pragma once

#include <Carbon/Carbon.h>

// The name a process goes by in messages, reports of failed assertions, and one-line notices to the
// user. All state is the process's own. Nothing here throws.
//
// Threads: setAppName belongs to the start of main; notices and reports may come from any thread.
class VLTAppErrorUtils {
 public:
  // `path` is the path of the executable; borrowed for ever. Null is ignored.
  static void setAppName(const char* path);
  // What follows the path's last "/"; a placeholder in parentheses before setAppName.
  static const char* getAppName() { return sExecutableShortName; }

  // Kept for clients: changes nothing, returns 0.
  static OSStatus setLogfileName(const char* name, bool logErrors, const char* path);

  // "(sys=%x, sub=%x, code=%x)" of a kernel I/O status, in one buffer that each call overwrites:
  // not for concurrent callers.
  static const char* logIOReturn(SInt32 status);

  // Reports a failed assertion: an entry of the system log when sSysLogErrs is set, and a stop in
  // the debugger in any case. The last argument is not used.
  static void reportError(const char* who, const char* message, const char* file, SInt32 line,
                          bool flag);
  // The same, then userNotify. `message` is a length-prefixed string here.
  static OSErr reportErrorNotify(const char* who, const char* message, const char* file,
                                 SInt32 line, bool flag);

  // Shows a length-prefixed text to the user. Returns 0 whether or not a notice was posted.
  static OSErr userNotify(unsigned char* text);

  // The response routine of the notice; on a thread of the platform's choice.
  static void notifyNMCompletion(NMRecPtr record);

  // Puts the path of a folder for log files into `path`, at most `pathSize` bytes with the zero:
  // folder `subPath` (names with "/" between them) in the domain's log folder; 0 is kLocalDomain.
  // What is missing is made, and open to all. Each "/" of `subPath` becomes a zero on the way.
  // paramErr, with nothing touched, for null or 0; with every other failure `path` has a folder all
  // the same, not the one asked for. Not for concurrent callers.
  static OSErr GetLogFileDirPath(char* path, UInt32 pathSize, char* subPath, SInt16 domain);

  static const char* sExecutableName;
  static const char* sExecutableShortName;
  static const char* sLogFileName;
  static bool sSysLogErrs;
  static UInt32 sNotificationFlags;  // bit 0: a notice is posted
  static NMRec sNotificationRecord;  // the one record of all notices
};
