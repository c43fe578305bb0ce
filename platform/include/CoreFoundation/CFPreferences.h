#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFPropertyList.h>
#include <CoreFoundation/CFString.h>

// Preferences: a table of property-list values for each application, user scope and host scope,
// kept in files. Any thread.
//
// Application identifiers, and the six constants, are compared by their characters. Another user or
// host scope, or an identifier that is no name of a file ("", one with "/", ".." or a NUL, more
// than 200 bytes of UTF-8), has no values and cannot be written.
//
// The file is the truth: a read asks whether it has changed, so what another process has
// synchronised is seen at the next read. What was set here and not synchronised yet hides what the
// file has under that key. Only property-list values can be set; they are copied.
//
// A file that cannot be trusted (group or others may write it, its owner is neither root nor the
// effective user) or read (not a property list of a dictionary, more than 64 MiB) has no values and
// is never written; the log says so once for each state of the file.
//
// A read that fails for such a reason, or because memory or file descriptors run short, finds no
// value. If the program then sets that key and the file has another value for it after all, the
// file's value stays: a default must not replace what the user has chosen.

#pragma GCC visibility push(default)
extern "C" {

extern const CFStringRef kCFPreferencesAnyApplication;
extern const CFStringRef kCFPreferencesCurrentApplication;  // the program's identifier, or name
extern const CFStringRef kCFPreferencesAnyHost;
extern const CFStringRef kCFPreferencesCurrentHost;
extern const CFStringRef kCFPreferencesAnyUser;
extern const CFStringRef kCFPreferencesCurrentUser;

// The value in exactly this domain: the object that the cache holds, retained, so the caller
// releases it and nobody changes it. Null when absent.
CFPropertyListRef CFPreferencesCopyValue(CFStringRef key, CFStringRef application, CFStringRef user,
                                         CFStringRef host);

// The domain's keys in no particular order, null when it has none; the caller releases it.
CFArrayRef CFPreferencesCopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host);

// The values of `keys` (null: of all), absent ones left out. Null only if there is no memory, or if
// the file could not be read for a reason that may pass; the caller releases it.
CFDictionaryRef CFPreferencesCopyMultiple(CFArrayRef keys, CFStringRef application,
                                          CFStringRef user, CFStringRef host);

// Seen at once in this process, written by the next synchronising. A null value removes the key.
// One that is not a property list changes nothing, and makes the next synchronising fail.
void CFPreferencesSetValue(CFStringRef key, CFPropertyListRef value, CFStringRef application,
                           CFStringRef user, CFStringRef host);

// Removes `toRemove`, then sets `toSet`. Either may be null.
void CFPreferencesSetMultiple(CFDictionaryRef toSet, CFArrayRef toRemove, CFStringRef application,
                              CFStringRef user, CFStringRef host);

// Writes the keys that were changed here into the file, whose other entries stay as they are, and
// waits until it is on the disk; at most 30 s for other processes that do the same. False when that
// fails: the file is then the old or the new one, never a part, and the changes wait for the next
// time. Also false if the file's value of a key stayed because it could not be read before: that
// change is given up, and the others are written. With nothing to write, true.
Boolean CFPreferencesSynchronize(CFStringRef application, CFStringRef user, CFStringRef host);

// The first value of: the current user's for the application, on this host, then on any; for any
// application, on this host, then on any; then the same four of any user.
CFPropertyListRef CFPreferencesCopyAppValue(CFStringRef key, CFStringRef application);
// In the current user's domain of the application, on any host.
void CFPreferencesSetAppValue(CFStringRef key, CFPropertyListRef value, CFStringRef application);
// Every domain that CFPreferencesCopyAppValue reads; false when one fails.
Boolean CFPreferencesAppSynchronize(CFStringRef application);

}  // extern "C"
#pragma GCC visibility pop
