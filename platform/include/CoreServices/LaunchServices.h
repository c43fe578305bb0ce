#pragma once

#include <CoreFoundation/CFString.h>
#include <CoreFoundation/CFURL.h>
#include <CoreServices/Files.h>
#include <CoreServices/MacTypes.h>

// Finding and opening applications. Any thread; both calls read the disk, and opening waits for the
// program, so neither belongs where nothing may block.

enum : OSType { kLSUnknownCreator = 0 };

#pragma GCC visibility push(default)
extern "C" {

// Finds the application that has the bundle identifier, else the creator signature, else the file
// name (with its extension). A criterion that is 0 or null is not used. Letter case does not count
// in texts. If there are several matches, the highest version decides, then the folder that is
// searched first, then the path.
//
// outRef, outURL  either may be null; the URL is the caller's to release. Unchanged on failure
// Result          0; kLSApplicationNotFoundErr; paramErr when no criterion is given
OSStatus LSFindApplicationForInfo(OSType creator, CFStringRef bundleID, CFStringRef name,
                                  FSRef* outRef, CFURLRef* outURL);

// Opens an application: the folder of a bundle, or an executable file. Returns when the program has
// claimed its first port, entered its event loop or ended, but after two seconds at the latest. A
// program that ends soon is not an error. An application that runs already is left as it is.
//
// The program inherits the caller's environment and nothing else. Its file descriptor 0 is on
// /dev/null, and 1 and 2 are on its log. It has a POSIX session of its own and no blocked or
// ignored signal. It is not a child of the caller, which gets no SIGCHLD and has nothing to wait
// for, unless the caller is its nearest subreaper.
//
// outLaunched  null, or receives the application
// Result       0; kLSLaunchInProgressErr if another process opens the same application (this call
//              has waited for that); kLSNotAnApplicationErr (neither bundle nor executable);
//              kLSNoExecutableErr (the bundle's program is missing or cannot be executed);
//              kLSAppInTrashErr; kLSServerCommunicationErr if the session directory cannot be used,
//              or if the application has ended too often soon after its start; kLSUnknownErr if no
//              process could be created; memFullErr; the File Manager's errors
OSStatus LSOpenFSRef(const FSRef* application, FSRef* outLaunched);

}  // extern "C"
#pragma GCC visibility pop
