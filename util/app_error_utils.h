#pragma once

#include <Carbon/Carbon.h>

// The program's name in messages, reports of failed assertions, and one-line notices to the user.
// All state belongs to the process. Nothing here throws.
//
// Threads: call setAppName at the start of main; notices and reports may come from any thread.
class VLTAppErrorUtils {
 public:
  // `path`, the path of the program, is borrowed and must stay valid. Null is ignored.
  static void setAppName(const char* path);
  // Returns the part after the last "/" of the path; before setAppName, a placeholder in
  // parentheses.
  static const char* getAppName() { return sExecutableShortName; }

  // Kept for existing callers. Changes nothing and returns 0.
  static OSStatus setLogfileName(const char* name, bool logErrors, const char* path);

  // Returns the fields of a kernel I/O status as "(sys=%x, sub=%x, code=%x)", in a buffer that the
  // next call overwrites. One thread at a time.
  static const char* logIOReturn(SInt32 status);

  // Reports a failed assertion: writes a log entry if sSysLogErrs is set, then stops in the
  // debugger if one is attached. `flag` is not used.
  static void reportError(const char* who, const char* message, const char* file, SInt32 line,
                          bool flag);
  // Calls reportError, then userNotify. `message` is a length-prefixed string here.
  static OSErr reportErrorNotify(const char* who, const char* message, const char* file,
                                 SInt32 line, bool flag);

  // Shows a length-prefixed text to the user. Returns 0 whether or not a notice was posted.
  static OSErr userNotify(unsigned char* text);

  // The response routine of the notice; the platform calls it on any thread.
  static void notifyNMCompletion(NMRecPtr record);

  // Stores the path of a folder for log files in `path`, a buffer of `pathSize` bytes: the folder
  // `subPath` (names with "/" between them) in the domain's log folder. Domain 0 is kLocalDomain.
  // Creates the missing folders of `subPath` and makes all of them writable for everyone.
  // Overwrites each "/" in `subPath` with a NUL. A null pointer or a size of 0 gives paramErr and
  // changes nothing; after any other failure `path` holds "/Library/Logs". One thread at a time.
  static OSErr GetLogFileDirPath(char* path, UInt32 pathSize, char* subPath, SInt16 domain);

  static const char* sExecutableName;
  static const char* sExecutableShortName;
  static const char* sLogFileName;
  static bool sSysLogErrs;
  static UInt32 sNotificationFlags;  // bit 0: a notice is on screen
  static NMRec sNotificationRecord;  // the one record of all notices
};
