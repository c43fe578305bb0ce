#pragma once

#include <CoreServices/Files.h>

// Where things belong. A domain is a tree of folders: the machine's (/var/lib/veltrane) or the
// user's (veltrane in the user's data folder). Any thread.

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

// The folder of a type in a domain, by volume and its own directory id, or by reference. It and the
// folders above it are made when they are missing and `create` is set. fnfErr when it is not there,
// and for domains and types that are not supplied; else as the File Manager says.
OSErr FindFolder(SInt16 domain, OSType type, Boolean create, SInt16* vRefNum, SInt32* dirID);
OSErr FSFindFolder(SInt16 domain, OSType type, Boolean create, FSRef* ref);

}  // extern "C"
#pragma GCC visibility pop
