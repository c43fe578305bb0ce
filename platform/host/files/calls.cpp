#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/host/base/guard.h"
#include "platform/host/base/text_codec.h"
#include "platform/host/files/items.h"
#include "platform/host/files/status.h"

namespace {

OSErr StatItem(const std::string& path, struct stat* info) {
  return lstat(path.c_str(), info) == 0 ? OSErr{noErr} : HostFileStatus(errno);
}

OSErr PathOfRef(const FSRef* ref, HostItem* item, std::string* path) {
  if (ref == nullptr) return paramErr;
  struct stat info;
  return HostResolveRef(*ref, item, path, &info);
}

// Makes the file spec of a reference without a look at the disk. The item may be gone; the file
// spec's next use finds out.
OSErr SpecOfRef(const FSRef* ref, FSSpec* spec) {
  if (ref == nullptr) return paramErr;
  HostItem item;
  const OSErr err = HostItemOfRef(*ref, &item);
  return err == noErr ? HostSpecOfItem(item, spec) : err;
}

// Decodes a name as UTF-8, or else as Mac Roman.
void DecodeName(std::string_view name, HFSUniStr255* out) {
  const auto* bytes = reinterpret_cast<const UInt8*>(name.data());
  size_t units = 0;
  if (!HostDecodeText(kCFStringEncodingUTF8, bytes, name.size(), false, out->unicode, &units)) {
    HostDecodeText(kCFStringEncodingMacRoman, bytes, name.size(), false, out->unicode, &units);
  }
  out->length = static_cast<UInt16>(units);
}

OSErr EncodeName(const UniChar* units, UniCharCount count, std::string* name) {
  char bytes[256];
  size_t used = 0;
  const HostTextView text = {nullptr, units, count};
  const size_t taken = HostEncodeText(kCFStringEncodingUTF8, text, 0,
                                      reinterpret_cast<UInt8*>(bytes), sizeof bytes, &used);
  name->assign(bytes, used);
  const bool isName = taken == count && used > 0 && used <= 255 && *name != "." && *name != ".." &&
                      name->find('/') == std::string::npos && name->find('\0') == std::string::npos;
  return isName ? OSErr{noErr} : OSErr{bdNamErr};
}

// Opens the folder in which an item lies. Only items with a name can be made or deleted.
OSErr OpenFolderOf(const FSSpec* spec, HostItem* item, HostOpenFile* folder) {
  if (spec == nullptr) return paramErr;
  OSErr err = HostItemOfSpec(*spec, item);
  if (err != noErr) return err;
  if (item->folder == fsRtParID) return item->name == "/" ? OSErr{dupFNErr} : OSErr{dirNFErr};
  return item->name.empty() ? OSErr{bdNamErr} : HostOpenFolder(item->folder, folder);
}

}  // namespace

OSErr FSMakeFSSpec(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, FSSpec* out) {
  if (out == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    std::string path;
    struct stat info;
    FSSpec made;
    OSErr err = HostItemOfSpec(vRefNum, dirID, name, &item);
    if (err == noErr) err = HostSpecOfItem(item, &made);
    if (err == noErr) err = HostPathOfItem(item, &path);
    if (err != noErr) return err;
    err = StatItem(path, &info);
    if (err == noErr || err == fnfErr) *out = made;
    return err;
  });
}

OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* ref) {
  if (spec == nullptr || ref == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    std::string path;
    struct stat info;
    OSErr err = HostItemOfSpec(*spec, &item);
    if (err == noErr) err = HostLookAtItem(item, &path, &info);
    if (err == noErr) HostRefOfItem(item, ref, &info);
    return err;
  });
}

OSErr FSMakeFSRefUnicode(const FSRef* parent, UniCharCount nameLength, const UniChar* name,
                         TextEncoding, FSRef* ref) {
  if (name == nullptr || ref == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    std::string path, child;
    struct stat info;
    OSErr err = PathOfRef(parent, &item, &path);
    if (err == noErr) err = EncodeName(name, nameLength, &child);
    if (err == noErr) err = StatItem(path, &info);
    if (err == noErr && !S_ISDIR(info.st_mode)) err = dirNFErr;
    if (err == noErr) path = path == "/" ? path + child : path + "/" + child;
    if (err == noErr) err = StatItem(path, &info);
    if (err == noErr) err = HostItemOfPath(path, &item);
    if (err == noErr) HostRefOfItem(item, ref);
    return err;
  });
}

OSStatus FSPathMakeRef(const UInt8* path, FSRef* ref, Boolean* isDirectory) {
  if (path == nullptr || ref == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    struct stat info;
    const OSErr err = HostItemAtEndOf(reinterpret_cast<const char*>(path), &item, &info);
    if (err != noErr) return err;
    if (isDirectory != nullptr) *isDirectory = S_ISDIR(info.st_mode);
    HostRefOfItem(item, ref, &info);
    return noErr;
  });
}

OSStatus FSRefMakePath(const FSRef* ref, UInt8* path, UInt32 max) {
  if (path == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    std::string real;
    const OSErr err = PathOfRef(ref, &item, &real);
    if (err != noErr) return err;
    if (real.size() >= max) return pathTooLongErr;
    std::memcpy(path, real.c_str(), real.size() + 1);
    return noErr;
  });
}

OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap which, FSCatalogInfo*,
                       HFSUniStr255* name, FSSpec* spec, FSRef* parent) {
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    if (which != kFSCatInfoNone) return paramErr;
    const bool wantsSpecOnly = spec != nullptr && name == nullptr && parent == nullptr;
    if (wantsSpecOnly) return SpecOfRef(ref, spec);
    HostItem item, folder;
    std::string path;
    FSSpec made;
    OSErr err = PathOfRef(ref, &item, &path);
    if (err == noErr && spec != nullptr) err = HostSpecOfItem(item, &made);
    if (err == noErr && parent != nullptr) err = HostFolderOfItem(item, &folder);
    if (err != noErr) return err;
    if (spec != nullptr) *spec = made;
    if (parent != nullptr) HostRefOfItem(folder, parent);
    if (name != nullptr) {
      DecodeName(path == "/" ? path : std::string_view(path).substr(path.rfind('/') + 1), name);
    }
    return noErr;
  });
}

OSErr FSCompareFSRefs(const FSRef* a, const FSRef* b) {
  if (a == nullptr || b == nullptr) return paramErr;
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem first, second;
    OSErr err = HostItemOfRef(*a, &first);
    if (err == noErr) err = HostItemOfRef(*b, &second);
    if (err != noErr) return err;
    if (first.folder == second.folder && first.name == second.name) return noErr;
    std::string path;
    struct stat left, right;
    err = HostResolveRef(*a, &first, &path, &left);
    if (err == noErr) err = HostResolveRef(*b, &second, &path, &right);
    if (err != noErr) return err;
    const bool isSame = left.st_dev == right.st_dev && left.st_ino == right.st_ino;
    return isSame ? OSErr{noErr} : OSErr{errFSRefsDifferent};
  });
}

OSErr FSpDirCreate(const FSSpec* spec, ScriptCode, SInt32* createdDirID) {
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    HostOpenFile folder;
    std::string path;
    OSErr err = OpenFolderOf(spec, &item, &folder);
    if (err == noErr) err = HostPathOfItem(item, &path);
    if (err != noErr) return err;
    if (mkdirat(folder.Get(), item.name.c_str(), 0777) != 0) return HostFileStatus(errno);
    if (createdDirID == nullptr) return noErr;
    err = HostGuard(OSErr{memFullErr}, [&] { return HostNumberOfFolder(path, createdDirID); });
    if (err == memFullErr) unlinkat(folder.Get(), item.name.c_str(), AT_REMOVEDIR);
    return err;
  });
}

OSErr FSpCreate(const FSSpec* spec, OSType, OSType, ScriptCode) {
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    HostOpenFile folder;
    const OSErr err = OpenFolderOf(spec, &item, &folder);
    if (err != noErr) return err;
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const HostOpenFile file(openat(folder.Get(), item.name.c_str(), flags, 0666));
    return file.IsOpen() ? OSErr{noErr} : HostFileStatus(errno);
  });
}

OSErr FSpDelete(const FSSpec* spec) {
  return HostGuard(OSErr{memFullErr}, [&]() -> OSErr {
    HostItem item;
    HostOpenFile folder;
    const OSErr err = OpenFolderOf(spec, &item, &folder);
    if (err != noErr) return err == dupFNErr ? OSErr{fBsyErr} : err;  // the root
    int result = unlinkat(folder.Get(), item.name.c_str(), 0);
    if (result != 0 && errno == EISDIR) {
      result = unlinkat(folder.Get(), item.name.c_str(), AT_REMOVEDIR);
    }
    return result == 0 ? OSErr{noErr} : HostFileStatus(errno);
  });
}
