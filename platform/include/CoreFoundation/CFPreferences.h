#pragma once

#include <CoreFoundation/CFArray.h>
#include <CoreFoundation/CFDictionary.h>
#include <CoreFoundation/CFPropertyList.h>
#include <CoreFoundation/CFString.h>

// Preferences: a table of property-list values for each application, user scope and host scope,
// kept in files. Any thread.
//
// Application identifiers, and the six constants, are compared by their characters. Another user or
// host scope, or an identifier that cannot be a file name ("", one with "/", ".." or a NUL, more
// than 200 bytes of UTF-8), has no values and cannot be written.
//
// Each read checks whether the file has changed, so it returns values that another process has
// synchronised. A value that was set here and not synchronised yet hides the file's value. Only
// property-list values can be set; they are copied.
//
// A file that cannot be trusted (group or others may write it, its owner is neither root nor the
// effective user) or read (not a property list of a dictionary, more than 64 MiB) has no values and
// is never written. The log reports this once for each state of the file.
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

// Returns the value in exactly this domain, or null if there is none. It is the object in the
// cache, retained: the caller releases it and must not change it.
CFPropertyListRef CFPreferencesCopyValue(CFStringRef key, CFStringRef application, CFStringRef user,
                                         CFStringRef host);

// Returns the domain's keys in no particular order, or null if it has none. The caller releases the
// array.
CFArrayRef CFPreferencesCopyKeyList(CFStringRef application, CFStringRef user, CFStringRef host);

// Returns the values of those of `keys` that exist, or of all keys if `keys` is null. Returns null
// only without memory, or if the file could not be read for a reason that may pass. The caller
// releases the dictionary.
CFDictionaryRef CFPreferencesCopyMultiple(CFArrayRef keys, CFStringRef application,
                                          CFStringRef user, CFStringRef host);

// Sets a value, which this process sees at once and the next synchronising writes. A null value
// removes the key. A value that is not a property list changes nothing and makes the next
// synchronising fail.
void CFPreferencesSetValue(CFStringRef key, CFPropertyListRef value, CFStringRef application,
                           CFStringRef user, CFStringRef host);

// Removes `toRemove`, then sets `toSet`. Either may be null.
void CFPreferencesSetMultiple(CFDictionaryRef toSet, CFArrayRef toRemove, CFStringRef application,
                              CFStringRef user, CFStringRef host);

// Writes the keys that were changed here to the file, leaves its other entries as they are, and
// waits for the disk. Waits at most 30 s for other processes that do the same. Returns false if
// that fails: the file is then the old or the new one, never a mixture, and the changes stay for
// the next try. Also returns false if the file's value of a key stayed because it could not be read
// before; that change is given up, and the others are written. Returns true if there is nothing to
// write.
Boolean CFPreferencesSynchronize(CFStringRef application, CFStringRef user, CFStringRef host);

// Returns the first value found in these domains: of the current user, for the application, on this
// host, then on any host; for any application, on this host, then on any host; then the same four
// of any user.
CFPropertyListRef CFPreferencesCopyAppValue(CFStringRef key, CFStringRef application);
// Sets a value in the current user's domain of the application, on any host.
void CFPreferencesSetAppValue(CFStringRef key, CFPropertyListRef value, CFStringRef application);
// Synchronises every domain that CFPreferencesCopyAppValue reads. Returns false if one fails.
Boolean CFPreferencesAppSynchronize(CFStringRef application);

}  // extern "C"
#pragma GCC visibility pop
