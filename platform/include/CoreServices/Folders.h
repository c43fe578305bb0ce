#pragma once

#include <CoreServices/Files.h>

// The Folder Manager. A domain is a tree of folders: that of the machine (/var/lib/veltrane) or of
// the user (veltrane in the user's data folder). Any thread.

enum : SInt16 {
  kOnSystemDisk = -32768,  // the machine's
  kOnAppropriateDisk = -32767,
  kSystemDomain = -32766,  // not supplied
  kLocalDomain = -32765,
  kNetworkDomain = -32764,  // not supplied
  kUserDomain = -32763,
  kClassicDomain = -32762,  // not supplied
};

enum : OSType {
  kDomainLibraryFolderType = FourCC('d', 'l', 'i', 'b'),
  kApplicationSupportFolderType = FourCC('a', 's', 'u', 'p'),
  kPreferencesFolderType = FourCC('p', 'r', 'e', 'f'),
  kDomainTopLevelFolderType = FourCC('d', 't', 'o', 'p'),
  kApplicationsFolderType = FourCC('a', 'p', 'p', 's'),
  kTemporaryFolderType = FourCC('t', 'e', 'm', 'p'),
  kCurrentUserFolderType = FourCC('c', 'u', 's', 'r'),
  kSystemFolderType = FourCC('m', 'a', 'c', 's'),  // not supplied
};

enum : Boolean { kDontCreateFolder = 0, kCreateFolder = 1 };

#pragma GCC visibility push(default)
extern "C" {

// Finds the folder of a type in a domain, and stores its volume and directory id, or its reference.
// If `create` is set, makes it and the folders above it if they are missing. Returns fnfErr if it
// does not exist and for unknown domains and types; otherwise the File Manager's errors.
OSErr FindFolder(SInt16 domain, OSType type, Boolean create, SInt16* vRefNum, SInt32* dirID);
OSErr FSFindFolder(SInt16 domain, OSType type, Boolean create, FSRef* ref);

}  // extern "C"
#pragma GCC visibility pop
