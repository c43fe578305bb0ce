#pragma once

#include <CoreServices/CoreServices.h>

// Files, folders and processes. Results are the platform's statuses, outputs are stored on success
// only where nothing else is said. Nothing throws, logs or shows anything. Any thread, but for
// SetPermissions.

// The folder's own directory id. dirNFErr, with dirID untouched, when `folder` is no folder.
OSErr FSGetDirID(const FSSpec& folder, SInt32& dirID);

// The record of `subName` in the standard folder of a type. The item is made as a folder when it is
// missing, whatever `create` says: that is for the standard folder. kLocalDomain and kOnSystemDisk
// both name the machine's domain, whichever of them the system has. paramErr for a null `out`.
// `out` is set as soon as the standard folder is found.
OSErr GetFindFolderSpec(FSSpec* out, SInt16 domain, OSType folderType, ConstStr255Param subName,
                        bool create);
OSErr GetAppSupportSubFolder(FSSpec* out, SInt16 domain, ConstStr255Param subName);
OSErr GetRootSupportFolder(FSSpec* out, SInt16 domain);  // this package's folder there

// Moves `folder` to the item `name` inside it, which is made as a folder when it is missing; so
// repeated calls walk down a path. An existing item that is no folder is no error here: the next
// step gives dirNFErr. paramErr for a null or empty name. On failure `folder` is unchanged.
OSErr FindOrCreateSubDirectory(FSSpec& folder, unsigned char* name);

// Sets the permission bits of a file or folder, of what a symbolic link leads to: ask
// ResolveAliasFile first where strangers may put links. A platform status when the item has no
// path, else the value of errno, a positive number. One thread at a time: the path stands in a
// static buffer.
OSErr SetPermissions(FSSpec& item, int mode);

// Sizes in bytes of a file's forks, 0x7FFFFFFF for larger ones; either pointer may be null.
OSErr GetFileSize(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, SInt32* dataSize,
                  SInt32* resourceSize);
OSErr FSpGetFileSize(const FSSpec* file, SInt32* dataSize, SInt32* resourceSize);

// The application of a creator that was made last. `app` may be changed on failure.
OSErr FindAppOnVolume(OSType creator, SInt16 vRefNum, FSSpec* app);

// The path of an item, which need not exist if its folder does. `pathSize` counts the terminating
// zero; for an item that does not exist there must be one byte more, else paramErr. For an existing
// one the platform says when it does not fit.
OSErr FSSpecToPath(const FSSpec* item, char* path, UInt32 pathSize);
OSErr PathToFSSpec(const char* path, FSSpec* out);  // must exist; paramErr for null or empty

// The serial number of this process; the platform's status.
OSErr GetCurrentPSN(ProcessSerialNumber* psn);

// The number that means no process, from which enumeration starts.
void FirstPSN(ProcessSerialNumber* psn);

// The first process, or the next one after `psn`, whose application has this signature and type.
// procNotFound when there is none (left); `psn` is then the number that means no process.
OSErr FindPSN(ProcessSerialNumber* psn, OSType signature, OSType type);
OSErr FindNextPSN(ProcessSerialNumber* psn, OSType signature, OSType type);
