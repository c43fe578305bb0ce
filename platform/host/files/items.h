#pragma once

#include <CoreServices/Files.h>
#include <sys/stat.h>

#include <string>
#include <string_view>

#include "platform/host/base/open_file.h"

// This room is the File, Folder and Alias Manager.
//
// The items that file specs and file references refer to. A table of this process, with a lock,
// gives folders their numbers. A number belongs to a path and to the folder (device, inode number
// and birth time) that was there when the number was given out. Each use of the number checks that
// the path still leads to that folder, so a number never comes to mean another folder. Entries are
// never removed. Any thread.

// An item is a name in a numbered folder. The root is { fsRtParID, "/" }. An item whose name is too
// long for a file spec has a number of its own, and no name here.
struct HostItem {
  SInt32 folder = 0;
  std::string name;
};

// Finds the item of a file spec. An empty name stands for the folder itself, which must exist.
// Otherwise does not look whether the item or its folder exists.
OSErr HostItemOfSpec(SInt16 volume, SInt32 folder, ConstStr255Param name, HostItem* item);
inline OSErr HostItemOfSpec(const FSSpec& spec, HostItem* item) {
  return HostItemOfSpec(spec.vRefNum, spec.parID, spec.name, item);
}
// Finds the item of a file reference. Returns errFSBadFSRef for one that this process has not made.
OSErr HostItemOfRef(const FSRef& ref, HostItem* item);
// Also finds the item's path and status. Fails if the item does not exist.
OSErr HostResolveRef(const FSRef& ref, HostItem* item, std::string* path, struct stat* info);

// Finds the item at an absolute path without "." and "..", and without links except for its last
// component, as realpath returns it.
OSErr HostItemOfPath(const std::string& path, HostItem* item);
// Finds the existing item at the end of any path, with all links followed. `info` receives the
// status of the item and may be null.
OSErr HostItemAtEndOf(const char* path, HostItem* item, struct stat* info = nullptr);

// Makes the item's file spec. Returns bdNamErr if its name is too long for one.
OSErr HostSpecOfItem(const HostItem& item, FSSpec* spec);
// Makes the item's file reference. `info` is the item's status, or null if the caller does not know
// it; with it the reference is resolved faster.
void HostRefOfItem(const HostItem& item, FSRef* ref, const struct stat* info = nullptr);

// Returns the item's path. Checks that the folder exists, but not that the item does.
OSErr HostPathOfItem(const HostItem& item, std::string* path);
// Also returns the item's status. If the item does not exist, returns fnfErr and sets `path`.
OSErr HostLookAtItem(const HostItem& item, std::string* path, struct stat* info);
// Finds the folder in which an item lies, as an item. Returns dirNFErr for the root.
OSErr HostFolderOfItem(const HostItem& item, HostItem* folder);

// Returns the number of the folder at a path as for HostItemOfPath, and gives it one if it has
// none. Returns dirNFErr if there is something else.
OSErr HostNumberOfFolder(const std::string& path, SInt32* number);
// Returns the path of a numbered folder. Returns fnfErr if that folder is not there any more.
OSErr HostPathOfFolder(SInt32 number, std::string* path);
// Opens a numbered folder (O_PATH), for calls relative to it.
OSErr HostOpenFolder(SInt32 number, HostOpenFile* folder);

// Whether a name fits into a file spec: 1 to 63 bytes without "/" and NUL, not "." or "..".
bool HostIsSpecName(std::string_view name);

// Stores the first `most` bytes of a name as a Pascal string: a length byte, then the bytes. `out`
// has room for most + 1 bytes; `most` is at most 255.
void HostGiveName(std::string_view name, size_t most, StringPtr out);
