#pragma once

#include <CoreServices/Files.h>
#include <sys/stat.h>

#include <string>
#include <string_view>

// What the File Manager's records stand for. One table of the process, locked, gives folders their
// numbers. A number belongs to a path and to the folder (device, inode number and birth time) that
// was there when the number was given out. Each use of the number checks that the path still leads
// to that folder, so a number never comes to mean another folder. Entries are never removed. Any
// thread.

// An item: a name in a numbered folder. The root is { fsRtParID, "/" }. An item whose name is too
// long for a record has a number of its own, and no name here.
struct HostItem {
  SInt32 folder = 0;
  std::string name;
};

// Of a record. An empty name is the folder itself, which must be there; else neither the item nor
// its folder is asked for yet.
OSErr HostItemOfSpec(SInt16 volume, SInt32 folder, ConstStr255Param name, HostItem* item);
inline OSErr HostItemOfSpec(const FSSpec& spec, HostItem* item) {
  return HostItemOfSpec(spec.vRefNum, spec.parID, spec.name, item);
}
// Of a reference that this process made.
OSErr HostItemOfRef(const FSRef& ref, HostItem* item);
// The same with its path and what is there: an item that is there, or a failure.
OSErr HostResolveRef(const FSRef& ref, HostItem* item, std::string* path, struct stat* info);

// Of a path that is absolute and has neither links (but for its last component) nor "." and "..",
// as realpath gives it.
OSErr HostItemOfPath(const std::string& path, HostItem* item);
// Of any path to what is there: links are followed, the last one too. `info`, what lstat tells of
// it, may be null.
OSErr HostItemAtEndOf(const char* path, HostItem* item, struct stat* info = nullptr);

// bdNamErr when the item has no record.
OSErr HostSpecOfItem(const HostItem& item, FSSpec* spec);
// `info` is what is there now, when the caller knows: the reference is resolved faster then.
void HostRefOfItem(const HostItem& item, FSRef* ref, const struct stat* info = nullptr);

// Its path. Makes sure of the folder, but not of the item.
OSErr HostPathOfItem(const HostItem& item, std::string* path);
// The same with what is there. When nothing is, fnfErr, and the path says where it would be.
OSErr HostLookAtItem(const HostItem& item, std::string* path, struct stat* info);
// The item that is the folder it lies in; dirNFErr for the root.
OSErr HostFolderOfItem(const HostItem& item, HostItem* folder);

// The number of the folder at a path as for HostItemOfPath; dirNFErr for what is no folder.
OSErr HostNumberOfFolder(const std::string& path, SInt32* number);
// The path of a numbered folder, which is there.
OSErr HostPathOfFolder(SInt32 number, std::string* path);
// A descriptor of it (O_PATH, the caller closes it), for calls relative to it.
OSErr HostOpenFolder(SInt32 number, int* descriptor);

// 1 to 63 bytes without "/" and NUL, not "." or "..".
bool HostIsRecordName(std::string_view name);

// Stores the first `most` bytes of a name as a Pascal string: a length byte, then the bytes. `out`
// has room for most + 1 bytes; `most` is at most 255.
void HostGiveName(std::string_view name, size_t most, StringPtr out);
