#pragma once

#include <CoreServices/MacTypes.h>

// Files and folders by record instead of by path. Both kinds of record are plain bytes that may be
// copied, and mean something in the process that made them (and its forked children) only.
//
// Names are the raw bytes of the file system, 1 to 63 of them, without "/" and zero bytes; "." and
// ".." are no names. What is longer has no FSSpec (bdNamErr), only an FSRef. A folder is known by a
// number (directory id) that is given out once and stays; when the folder is deleted, moved or
// replaced by another one, the number gives fnfErr from then on. A number that was never given out
// is dirNFErr, one that names no folder too. There is one volume, the whole tree that the process
// sees. Symbolic links count as alias files: only FSPathMakeRef and ResolveAliasFile follow them.
//
// Statuses: fnfErr not there, also when a chain of links never ends; dirNFErr a folder on the way
// is missing or is none; nsvErr no such volume; bdNamErr a bad or too long name; afpAccessDenied
// not permitted; paramErr null or meaningless arguments; errFSBadFSRef a reference that this
// process did not make; wPrErr, dskFulErr, ioErr as the disk says. Outputs are stored on success
// only, where nothing else is said. Any thread; a record is the caller's.

#pragma pack(push, 2)
struct FSSpec {
  SInt16 vRefNum;
  SInt32 parID;  // directory id of the folder that the item is in
  Str63 name;    // empty: the folder parID itself
};
#pragma pack(pop)
static_assert(sizeof(FSSpec) == 70);
using FSSpecPtr = FSSpec*;

// Names an item that exists. Compare with FSCompareFSRefs, never the bytes.
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

// The record of `name` (an empty or null name: of the folder `dirID` itself) in folder `dirID`.
// fnfErr, with `out` set, when the folder is there but the item is not.
OSErr FSMakeFSSpec(SInt16 vRefNum, SInt32 dirID, ConstStr255Param name, FSSpec* out);
OSErr FSpMakeFSRef(const FSSpec* spec, FSRef* ref);  // fnfErr when the item does not exist

// `name` is UTF-16; on disk it is UTF-8. The encoding is a hint and not used.
OSErr FSMakeFSRefUnicode(const FSRef* parent, UniCharCount nameLength, const UniChar* name,
                         TextEncoding encodingHint, FSRef* ref);

// A zero-terminated path, relative ones against the working directory; links are followed, the last
// component's too. `isDirectory` may be null.
OSStatus FSPathMakeRef(const UInt8* path, FSRef* ref, Boolean* isDirectory);

// The absolute path with a zero at its end, without a slash at its end unless it is "/". `max`
// counts the zero: pathTooLongErr, with `path` unchanged, when it is too small. fnfErr when the
// item has gone.
OSStatus FSRefMakePath(const FSRef* ref, UInt8* path, UInt32 max);

// What is asked of an existing item; every output may be null. `which` must be kFSCatInfoNone and
// `info` is left alone. For the record alone the disk is not asked: it is that of the place where
// the item was, which may have gone. A name that is no UTF-8 is given by its Mac Roman characters.
OSErr FSGetCatalogInfo(const FSRef* ref, FSCatalogInfoBitmap which, FSCatalogInfo* info,
                       HFSUniStr255* name, FSSpec* spec, FSRef* parent);

OSErr FSCompareFSRefs(const FSRef* a, const FSRef* b);  // 0 the same item, errFSRefsDifferent

// Makes a folder (mode 0777 less the umask) or an empty file (0666 less the umask; creator, type
// and script are not kept). dupFNErr when something is there, a link too. `createdDirID` may be
// null.
OSErr FSpDirCreate(const FSSpec* spec, ScriptCode script, SInt32* createdDirID);
OSErr FSpCreate(const FSSpec* spec, OSType creator, OSType type, ScriptCode script);

// Deletes a file, a link or an empty folder; fBsyErr for a folder that is not empty.
OSErr FSpDelete(const FSSpec* spec);

}  // extern "C"
#pragma GCC visibility pop

// Parameter blocks. With pointers of 32 bits every field lies where the platform documents it;
// wider ones move what follows.
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

// The status is the result and in ioResult.

// What the catalogue tells of an item: ioFDirIndex 0, the item ioNamePtr in folder ioDirID (an
// empty or null name: the folder itself); > 0, the item of that number in the folder, by the order
// of the names' bytes; < 0, the folder itself. For the last two the name is returned through
// ioNamePtr, which may be null and else has room for 64 bytes. Set ioDirID before each call: it is
// overwritten.
OSErr PBGetCatInfoSync(CInfoPBPtr block);

// The same for files only (fnfErr for a folder), index 0: sizes, dates and attributes.
OSErr PBHGetFInfoSync(HParmBlkPtr block);

// The applications of a volume. PBDTGetPath gives ioDTRefNum for ioVRefNum. PBDTGetAPPLSync finds
// those of ioFileCreator in the application folders: ioIndex 0, the one that was made last; 1, 2
// and so on each in turn; afpItemNotFound when there is none (left). It stores the name (cut to 63
// bytes) through ioNamePtr, the folder's id in ioAPPLParID and the date in ioTagInfo.
OSErr PBDTGetPath(DTPBPtr block);
OSErr PBDTGetAPPLSync(DTPBPtr block);

}  // extern "C"
#pragma GCC visibility pop
