#pragma once

#include <CoreServices/MacTypes.h>

// The File Manager: files and folders by file spec (FSSpec) or file reference (FSRef) instead of by
// path. Both are plain bytes that may be copied; they are valid only in the process that made them
// and in its forked children.
//
// A name in a file spec has 1 to 63 bytes of any value but "/" and NUL, and is not "." or "..". An
// item with a longer name has no file spec (bdNamErr), only a file reference. A folder has a number
// (directory id), which never changes and is never used for another folder: after the folder was
// deleted, moved or replaced the number gives fnfErr. A number that was never given out, or is not
// that of a folder, gives dirNFErr. There is one volume, the whole tree that the process sees.
// Symbolic links count as alias files: only FSPathMakeRef and ResolveAliasFile follow them.
//
// The functions return 0 or
//   fnfErr           there is no such item, or a chain of links is endless
//   dirNFErr         a folder on the way is missing or is not a folder
//   nsvErr           there is no such volume
//   bdNamErr         the name is malformed or too long
//   afpAccessDenied  this process may not do that
//   paramErr         an argument is null or has no meaning
//   errFSBadFSRef    this process has not made the reference
//   wPrErr, dskFulErr, tmfoErr, ioErr, memFullErr
//                    the disk is read-only or full; no file descriptors; an I/O error; no memory
// and store outputs on success only, unless stated otherwise. Any thread; one thread at a time may
// use a file spec or a file reference.

#pragma pack(push, 2)
struct FSSpec {
  SInt16 vRefNum;
  SInt32 parID;  // directory id of the folder that the item is in
  Str63 name;    // empty for the folder parID itself
};
#pragma pack(pop)
static_assert(sizeof(FSSpec) == 70);
using FSSpecPtr = FSSpec*;

// Refers to an item that existed when it was made. Compare two with FSCompareFSRefs, not their
// bytes.
struct FSRef {
  UInt8 hidden[80];
};
static_assert(sizeof(FSRef) == 80);
using FSRefPtr = FSRef*;

enum : SInt16 { kHostVolume = -100 };  // the one volume; 0, the default volume, is the same

// Directory ids that are always there. 0 is the default one: the working directory.
enum : SInt32 {
  fsRtParID = 1,  // the folder that holds the root, and nothing else
  fsRtDirID = 2,  // the root
};

struct HFSUniStr255 {
  UInt16 length;
  UniChar unicode[255];
};

using TextEncoding = UInt32;

using FSCatalogInfoBitmap = UInt32;
enum : FSCatalogInfoBitmap { kFSCatInfoNone = 0 };
struct FSCatalogInfo;  // none of its fields is supplied

#pragma GCC visibility push(default)
extern "C" {

// Makes the file spec of the item `name` in folder `dirID`; an empty or null name means the folder
// itself. If the folder exists but the item does not, returns fnfErr and sets `out`.
OSErr FSMakeFSSpec(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, FSSpec* out);
OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* ref);  // fnfErr if there is no such item

// Makes the reference of an item in a folder. `name` is UTF-16, on disk it is UTF-8. The encoding
// hint is not used.
OSErr FSMakeFSRefUnicode(const FSRef* parent, UniCharCount nameLength, const UniChar* name,
                         TextEncoding encodingHint, FSRef* ref);

// Makes the reference of the item at a NUL-terminated path, which may be relative to the working
// directory. Follows all links, also that of the last component. `isDirectory` may be null.
OSStatus FSPathMakeRef(const UInt8* path, FSRef* ref, Boolean* isDirectory);

// Stores the item's absolute path with a NUL; there is no slash at the end unless the path is "/".
// `max` includes the NUL. If it is too small, returns pathTooLongErr and leaves `path` unchanged.
// Returns fnfErr if the item does not exist any more.
OSStatus FSRefMakePath(const FSRef* ref, UInt8* path, UInt32 max);

// Stores an item's name, file spec and the reference of its folder; each output may be null.
// `which` must be kFSCatInfoNone, and `info` is not written. If only the file spec is wanted, the
// disk is not read, and the item may be gone. A name that is not UTF-8 is decoded as Mac Roman.
OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap which, FSCatalogInfo* info,
                       HFSUniStr255* name, FSSpec* spec, FSRef* parent);

OSErr FSCompareFSRefs(const FSRef* a,
                      const FSRef* b);  // 0 for the same item, else errFSRefsDifferent

// Makes a folder (mode 0777 less the umask) or an empty file (0666 less the umask). Creator, type
// and script are not stored. Returns dupFNErr if there is an item of that name, also a link.
// `createdDirID` may be null.
OSErr FSpDirCreate(const FSSpec* spec, ScriptCode script, SInt32* createdDirID);
OSErr FSpCreate(const FSSpec* spec, OSType creator, OSType type, ScriptCode script);

// Deletes a file, a link or an empty folder. Returns fBsyErr for a folder that is not empty.
OSErr FSpDelete(const FSSpec* spec);

}  // extern "C"
#pragma GCC visibility pop

// Parameter blocks. With pointers of 32 bits every field has its documented offset; wider pointers
// move the fields after them.
#pragma pack(push, 2)

struct Point {
  SInt16 v;
  SInt16 h;
};

struct FInfo {
  OSType fdType;
  OSType fdCreator;
  UInt16 fdFlags;
  Point fdLocation;
  SInt16 fdFldr;
};

// Desktop information that is not kept: zeros.
struct FXInfo {
  UInt8 reserved[16];
};
struct DInfo {
  UInt8 reserved[16];
};
struct DXInfo {
  UInt8 reserved[16];
};

union HParamBlockRec;
union CInfoPBRec;
struct DTPBRec;
using HParmBlkPtr = HParamBlockRec*;
using CInfoPBPtr = CInfoPBRec*;
using DTPBPtr = DTPBRec*;

// The head of every block. Only ioResult, ioNamePtr and ioVRefNum mean something here; calls are
// synchronous.
#define VLT_PARAM_BLOCK_HEAD \
  void* qLink;               \
  SInt16 qType;              \
  SInt16 ioTrap;             \
  Ptr ioCmdAddr;             \
  void* ioCompletion;        \
  OSErr ioResult;            \
  StringPtr ioNamePtr;       \
  SInt16 ioVRefNum

struct HFileInfo {
  VLT_PARAM_BLOCK_HEAD;
  SInt16 ioFRefNum;
  SInt8 ioFVersNum;
  SInt8 filler1;
  SInt16 ioFDirIndex;
  UInt8 ioFlAttrib;
  SInt8 ioACUser;
  FInfo ioFlFndrInfo;
  SInt32 ioDirID;
  UInt16 ioFlStBlk;
  SInt32 ioFlLgLen;  // bytes of the data fork; 0x7FFFFFFF when it has more
  SInt32 ioFlPyLen;  // bytes it takes on the disk, likewise
  UInt16 ioFlRStBlk;
  SInt32 ioFlRLgLen;  // bytes of the resource fork, 0 when there is none
  SInt32 ioFlRPyLen;
  UInt32 ioFlCrDat;  // seconds since 1904, local time
  UInt32 ioFlMdDat;
  UInt32 ioFlBkDat;
  FXInfo ioFlXFndrInfo;
  SInt32 ioFlParID;
  SInt32 ioFlClpSiz;
};

struct DirInfo {
  VLT_PARAM_BLOCK_HEAD;
  SInt16 ioFRefNum;
  SInt8 ioFVersNum;
  SInt8 filler1;
  SInt16 ioFDirIndex;
  UInt8 ioFlAttrib;
  SInt8 ioACUser;
  DInfo ioDrUsrWds;
  SInt32 ioDrDirID;  // the same word as ioDirID: the folder to look in, then the folder found
  UInt16 ioDrNmFls;  // how many items it holds, counted to 65535
  SInt16 filler3[9];
  UInt32 ioDrCrDat;
  UInt32 ioDrMdDat;
  UInt32 ioDrBkDat;
  DXInfo ioDrFndrInfo;
  SInt32 ioDrParID;
};

union CInfoPBRec {
  HFileInfo hFileInfo;
  DirInfo dirInfo;
};

struct HFileParam {
  VLT_PARAM_BLOCK_HEAD;
  SInt16 ioFRefNum;
  SInt8 ioFVersNum;
  SInt8 filler1;
  SInt16 ioFDirIndex;
  UInt8 ioFlAttrib;
  SInt8 ioFlVersNum;
  FInfo ioFlFndrInfo;
  SInt32 ioDirID;
  UInt16 ioFlStBlk;
  SInt32 ioFlLgLen;  // as HFileInfo
  SInt32 ioFlPyLen;
  UInt16 ioFlRStBlk;
  SInt32 ioFlRLgLen;
  SInt32 ioFlRPyLen;
  UInt32 ioFlCrDat;
  UInt32 ioFlMdDat;
};

union HParamBlockRec {
  HFileParam fileParam;
};

struct DTPBRec {
  VLT_PARAM_BLOCK_HEAD;
  SInt16 ioDTRefNum;
  SInt16 ioIndex;
  SInt32 ioTagInfo;
  Ptr ioDTBuffer;
  SInt32 ioDTReqCount;
  SInt32 ioDTActCount;
  SInt8 ioFiller1;
  SInt8 ioIconType;
  SInt16 ioFiller2;
  SInt32 ioDirID;
  OSType ioFileCreator;
  OSType ioFileType;
  SInt32 ioFiller3;
  SInt32 ioDTLgLen;
  SInt32 ioDTPyLen;
  SInt16 ioFiller4[14];
  SInt32 ioAPPLParID;
};

#undef VLT_PARAM_BLOCK_HEAD
#pragma pack(pop)

static_assert(sizeof(void*) != 4 || (sizeof(HFileInfo) == 108 && sizeof(DirInfo) == 104 &&
                                     sizeof(HFileParam) == 80 && sizeof(DTPBRec) == 104));

// Bits of ioFlAttrib.
enum : UInt8 {
  kioFlAttribLockedMask = 0x01,  // the caller may not write it
  kioFlAttribDirMask = 0x10,     // a folder
};

#pragma GCC visibility push(default)
extern "C" {

// These store their result in ioResult, too.

// Fills the block with sizes, dates and attributes of an item, which ioFDirIndex selects:
//   0    the item ioNamePtr in folder ioDirID; an empty or null name means the folder itself
//   > 0  the item with that index in the folder, in the order of the names' bytes
//   < 0  the folder itself
// In the last two cases the name is stored through ioNamePtr, which may be null and otherwise has
// room for 64 bytes. Set ioDirID before each call, because it is overwritten.
OSErr PBGetCatInfoSync(CInfoPBPtr block);

// Does the same for a file, with an index of 0. Returns fnfErr for a folder.
OSErr PBHGetFInfoSync(HParmBlkPtr block);

// The desktop database. PBDTGetPath stores the database of volume ioVRefNum in ioDTRefNum.
// PBDTGetAPPLSync finds the applications with the creator ioFileCreator in the application folders:
// with ioIndex 0 the one that was changed last, with 1, 2 and so on each of them. Returns
// afpItemNotFound if there is none (any more). Stores the name, cut to 63 bytes, through ioNamePtr,
// the folder's id in ioAPPLParID and the date in ioTagInfo.
OSErr PBDTGetPath(DTPBPtr block);
OSErr PBDTGetAPPLSync(DTPBPtr block);

}  // extern "C"
#pragma GCC visibility pop
