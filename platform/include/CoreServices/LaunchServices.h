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

// The application that has the bundle identifier, else the creator signature, else the file name
// (with its extension). A criterion of 0 or null is not given; letter case does not count in texts.
// Of several matches the highest version wins, then the folder that is searched first, then the
// path.
//
// outRef, outURL  either may be null; the URL is the caller's to release. Unchanged on failure
// Result          0; kLSApplicationNotFoundErr; paramErr when no criterion is given
OSStatus LSFindApplicationForInfo(OSType creator, CFStringRef bundleID, CFStringRef name,
                                  FSRef* outRef, CFURLRef* outURL);

// Opens an application: the folder of a bundle, or a plain executable file. Returns when the
// program has claimed its first port, entered its event loop or ended, after two seconds at the
// latest; a program that ends soon is not an error. One that runs already is left as it is.
//
// The program gets our environment and nothing else: no descriptor but 0 to 2, on /dev/null, a
// session of its own, no blocked or ignored signal. It is nobody's child: the caller gets no
// SIGCHLD and waits for nobody.
//
// outLaunched  may be null; what was opened
// Result       0; kLSLaunchInProgressErr when somebody is opening the same application: it was
//              waited for in the same way; kLSNotAnApplicationErr (neither bundle nor executable);
//              kLSNoExecutableErr (the bundle's program is missing or cannot be executed);
//              kLSAppInTrashErr; kLSServerCommunicationErr when the session's
//              directory cannot be used; the File Manager's errors; kLSUnknownErr when no process
//              could be made
OSStatus LSOpenFSRef(const FSRef* application, FSRef* outLaunched);

}  // extern "C"
#pragma GCC visibility pop
