#pragma once

#include <CoreFoundation/CFPropertyList.h>
#include <CoreServices/MacTypes.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "platform/host/plist_error.h"

struct AEDesc;
struct FSRef;
struct __CFString;

// What people want to see and no documented interface tells. For tools, benchmarks and tests only.
// Any thread.

// One name that a live process owns.
struct HostNameInfo {
  std::string name;     // raw bytes
  pid_t ownerPid = 0;   // 0 when the owner's record could not be read
  uid_t ownerUid = 0;
  std::string program;  // the owner's executable path as /proc tells, "" when it does not
  double ageSeconds = 0;
  bool hidden = false;  // a process's own event port, claimed by its event loop
};

// The names that are published now, sorted. Empty when the session directory cannot be used.
std::vector<HostNameInfo> HostListNames();

// The session directory and where its path came from; when it cannot be used, why and what to do.
struct HostContextInfo {
  std::string path;
  std::string source;   // "XDG_RUNTIME_DIR", "/run/user" or "/tmp"
  bool usable = false;
  std::string problem;  // path, owner, mode and remedy in one line; "" when usable
};
HostContextInfo HostDescribeContext();

// Host resources of this process that must not grow with the number of messages.
struct HostPortCounts {
  size_t portNames = 0;    // entries of the port table
  size_t receivers = 0;    // receive rights with a socket
  size_t connections = 0;  // of all receive rights
  size_t queuedBytes = 0;  // replies waiting for their readers
  size_t partialBytes = 0;  // partly received frames
};
HostPortCounts HostCountPorts();

// The keywords of all attributes that an event has, those with a meaning of their own first. Empty
// for what is no event. (AEGetAttributeDesc reads one, but nothing documented lists them.)
std::vector<FourCharCode> HostAttributeKeys(const AEDesc* event);

// One of the files in which the preferences of an application are looked up.
struct HostPreferencesSource {
  std::string path;
  bool isForAnyUser = false;  // else the current user's
  bool isForThisHost = false;
  bool isForAnyApplication = false;
  bool exists = false;
  bool hasValue = false;  // under the key that was asked for, also when it is not written yet
  std::string problem;    // one line, why the file is not used; "" when it is, or does not exist
};

// Those files, the strongest first: the first one that has a value is where the application's value
// comes from. `key` may be null: no values then. Empty when the identifier can have no files.
std::vector<HostPreferencesSource> HostPreferencesSources(const __CFString* application,
                                                          const __CFString* key);

// An application that can be found by its identifier or signature.
struct HostApplicationInfo {
  std::string path;    // of its bundle
  std::string folder;  // the application folder it was found in
  std::string identifier;
  std::string version;
  OSType signature = 0;
};

// The folders that applications are looked for in, in their order, and what is in them.
std::vector<std::string> HostListApplicationFolders();
std::vector<HostApplicationInfo> HostDescribeApplications();

// How opening an application went, for people.
enum class HostOpening {
  kRunning,   // it ran already
  kUnderWay,  // somebody else was opening it
  kClaimed,   // started, and it claimed a port
  kEnded,     // started, and it has ended without one
  kSilent,    // started; it has done neither within the time
};
struct HostOpeningInfo {
  std::string program;  // absolute path, links resolved
  HostOpening outcome = HostOpening::kSilent;
  pid_t pid = 0;     // of the program that was started, or is known to run; 0 when it is not known
  std::string port;  // a port of its, "" when none was seen
};

// LSOpenFSRef, and what it saw. `info` is filled as far as opening got.
OSStatus HostOpenApplication(const FSRef* application, HostOpeningInfo* info);

// A file or stream that has more, or never ends, is no property list.
inline constexpr size_t kHostMaxPlistBytes = size_t{256} << 20;

// A property list in any form, as CFPropertyListCreateFromStream reads it; the caller releases it.
// Null with the place of the fault in `*error`; `*format` then says what the bytes were taken for.
CFPropertyListRef HostReadPropertyList(const UInt8* bytes, size_t count, CFOptionFlags mutability,
                                       CFPropertyListFormat* format, HostPropertyListError* error);

// A process of the process list, and where its program is.
struct HostProcessInfo {
  pid_t pid = 0;
  OSType type = 0;         // as GetProcessInformation tells them
  OSType signature = 0;
  std::string program;     // path as /proc tells, "" when it does not
  std::string bundle;      // path of the application bundle, "" for a program that has none
  std::string identifier;  // the bundle's, "" without
};

// False, with nothing stored, for a process that has ended or is not ours to see.
bool HostDescribeProcess(const ProcessSerialNumber& psn, HostProcessInfo* info);

// The caller's login session, and how that is known. The sources are texts for people.
struct HostSession {
  UInt32 id = 0;
  UInt32 attributes = 0;           // bits as SessionGetInfo gives them
  const char* idSource = "";       // a variable's name, "audit session" or "user id"
  const char* rootSource = "";     // a variable's name, or what decided it
  const char* graphicSource = "";  // likewise
};
HostSession HostDescribeOwnSession();

// Why one domain has no values or was not written by the last synchronising of this process, in one
// line; "" when nothing is wrong with it.
std::string HostPreferencesProblem(const __CFString* application, const __CFString* user,
                                   const __CFString* host);
