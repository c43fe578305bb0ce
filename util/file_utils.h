#pragma once

#include <CoreServices/CoreServices.h>

// Files, folders and processes. The results are the platform's statuses. Outputs are stored on
// success only, unless stated otherwise. Nothing throws, logs or shows anything. Any thread, except
// for SetPermissions.

// Stores the folder's own directory id. Returns dirNFErr if `folder` is not a folder.
OSErr FSGetDirID(const FSSpec& folder, SInt32& dirID);

// Stores the file spec of `subName` in the standard folder of a type. `create` creates a missing
// standard folder. Meant: a missing `subName` is created as a folder even without `create`, because
// callers rely on it. kLocalDomain and kOnSystemDisk both mean the machine's domain, whichever of
// them the system has. Returns paramErr for a null `out`. `out` is stored once the standard folder
// has been found, even if a later step fails.
OSErr GetFindFolderSpec(FSSpec* out, SInt16 domain, OSType folderType, ConstStr255Param subName,
                        bool create);
OSErr GetAppSupportSubFolder(FSSpec* out, SInt16 domain, ConstStr255Param subName);
OSErr GetRootSupportFolder(FSSpec* out, SInt16 domain);  // the package's folder in it

// Replaces `folder` by the item `name` inside it, so that repeated calls walk down a path. Creates
// a missing item as a folder. An existing item that is not a folder is not an error; the next step
// then returns dirNFErr. Returns paramErr for a null or empty name. A failure leaves `folder`
// unchanged.
OSErr FindOrCreateSubDirectory(FSSpec& folder, unsigned char* name);

// Sets the permission bits of a file or folder. Follows a symbolic link: call ResolveAliasFile
// first where other users may put links. Returns 0; a platform status if the item has no path;
// otherwise the value of errno, a positive number. One thread at a time, because the path is in a
// static buffer.
OSErr SetPermissions(FSSpec& item, int mode);

// Store the sizes of a file's forks in bytes, at most 0x7FFFFFFF. Either pointer may be null.
OSErr GetFileSize(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, SInt32* dataSize,
                  SInt32* resourceSize);
OSErr FSpGetFileSize(const FSSpec* file, SInt32* dataSize, SInt32* resourceSize);

// Stores the file spec of the newest application with this creator. A failure may change `app`.
OSErr FindAppOnVolume(OSType creator, SInt16 vRefNum, FSSpec* app);

// Stores the path of an item, which need not exist if its folder does. `pathSize` includes the NUL.
// Meant: for an item that does not exist it must be one byte larger than needed, else the result is
// paramErr, because callers rely on it. For an existing item a path that does not fit gives the
// platform's own error.
OSErr FSSpecToPath(const FSSpec* item, char* path, UInt32 pathSize);
// The item must exist. Returns paramErr for a null or empty path.
OSErr PathToFSSpec(const char* path, FSSpec* out);

// Stores the serial number of this process. Returns the platform's status.
OSErr GetCurrentPSN(ProcessSerialNumber* psn);

// Stores the serial number that means "no process", with which an enumeration starts.
void FirstPSN(ProcessSerialNumber* psn);

// Store the first process, or the next one after `psn`, whose application has this signature and
// type. Return procNotFound if there is no such process; `psn` then means "no process".
OSErr FindPSN(ProcessSerialNumber* psn, OSType signature, OSType type);
OSErr FindNextPSN(ProcessSerialNumber* psn, OSType signature, OSType type);
