#include <CoreFoundation/CFURL.h>
#include <CoreServices/Aliases.h>
#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/permissions.h"
#include "tests/support/scratch_folder.h"

// File specs and file references: from paths and back, and after changes on the disk.

namespace {

using PString = std::vector<unsigned char>;

PString P(const std::string& text) {
  PString bytes(1, static_cast<unsigned char>(text.size()));
  bytes.insert(bytes.end(), text.begin(), text.end());
  return bytes;
}

std::string NameOf(const FSSpec& spec) {
  return std::string(reinterpret_cast<const char*>(spec.name) + 1, spec.name[0]);
}

OSStatus RefOfPath(const std::string& path, FSRef* ref) {
  return FSPathMakeRef(reinterpret_cast<const UInt8*>(path.c_str()), ref, nullptr);
}

OSErr SpecOfPath(const std::string& path, FSSpec* spec) {
  FSRef ref;
  const OSStatus err = RefOfPath(path, &ref);
  if (err != noErr) return static_cast<OSErr>(err);
  return FSGetCatalogInfo(&ref, kFSCatInfoNone, nullptr, nullptr, spec, nullptr);
}

// Returns the path of a file reference, or its error.
std::string PathOfRef(const FSRef& ref) {
  UInt8 path[5000];
  const OSStatus err = FSRefMakePath(&ref, path, sizeof path);
  return err == noErr ? reinterpret_cast<char*>(path) : std::to_string(err);
}

std::string PathOfSpec(const FSSpec& spec) {
  FSRef ref;
  const OSErr err = FSpMakeFSRef(&spec, &ref);
  return err == noErr ? PathOfRef(ref) : std::to_string(err);
}

SInt32 NumberOf(const std::string& path) {
  FSSpec spec = {};
  CInfoPBRec block = {};
  EXPECT_EQ(noErr, SpecOfPath(path, &spec)) << path;
  block.hFileInfo.ioNamePtr = spec.name;
  block.hFileInfo.ioVRefNum = spec.vRefNum;
  block.hFileInfo.ioDirID = spec.parID;
  EXPECT_EQ(noErr, PBGetCatInfoSync(&block)) << path;
  EXPECT_TRUE(block.hFileInfo.ioFlAttrib & kioFlAttribDirMask) << path;
  return block.dirInfo.ioDrDirID;
}

OSErr MakeSpec(SInt32 folder, const std::string& name, FSSpec* spec) {
  return FSMakeFSSpec(kHostVolume, folder, P(name).data(), spec);
}

class FileRecords : public testing::Test {
 protected:
  const ScratchFolder scratch;
};

TEST_F(FileRecords, PathsLeadToReferencesAndSpecsAndBack) {
  const std::string tooLong(64, 'n');
  scratch.File("folder/file");
  scratch.File("folder/\xff: \x01");
  scratch.File("folder/" + tooLong);
  scratch.File(tooLong + "/file");
  const std::string justFits(63, 'n');
  scratch.File("fresh/" + justFits);
  scratch.Link("link", "folder/file");
  scratch.Link("loop", "loop2");
  scratch.Link("loop2", "loop");
  const std::string root = scratch.Path() + "/";
  const struct {
    std::string path;
    OSStatus err;      // of making the reference
    std::string back;  // what the reference gives
    OSErr specErr;
  } rows[] = {
      {"/", 0, "/", 0},
      {root + "folder/", 0, root + "folder", 0},
      {root + "folder/../link", 0, root + "folder/file", 0},
      {root + "folder/file", 0, root + "folder/file", 0},
      {root + "folder/.", 0, root + "folder", 0},  // the folder is known by now
      {root + "folder/..", 0, scratch.Path(), 0},
      {root + "folder/./file", 0, root + "folder/file", 0},
      {root + "folder//file", 0, root + "folder/file", 0},
      {root + "fresh/" + justFits, 0, root + "fresh/" + justFits, 0},
      {root + "folder/\xff: \x01", 0, root + "folder/\xff: \x01", 0},
      {root + "folder/" + tooLong, 0, root + "folder/" + tooLong, bdNamErr},
      {root + tooLong + "/file", 0, root + tooLong + "/file", 0},
      {root + "loop", fnfErr, "", 0},
      {root + "folder/file/", dirNFErr, "", 0},
      {root + std::string(256, 'n'), bdNamErr, "", 0},
      {root + std::string(5000, '/') + "folder", 0, root + "folder", 0},
  };
  const OpenDescriptorCheck noLeaks;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.path));
    FSRef ref;
    ASSERT_EQ(row.err, RefOfPath(row.path, &ref));
    if (row.err != noErr) continue;
    EXPECT_EQ(row.back, PathOfRef(ref));
    FSSpec spec;
    ASSERT_EQ(row.specErr, SpecOfPath(row.path, &spec));
    if (row.specErr != noErr) continue;
    EXPECT_EQ(row.back, PathOfSpec(spec));
  }
}

TEST_F(FileRecords, RelativePathsAndTheDefaultFolderAreTheWorkingFolder) {
  scratch.File("folder/file");
  const std::string before = std::filesystem::current_path();
  std::filesystem::current_path(scratch.Path("folder"));
  FSRef ref;
  FSSpec spec;
  EXPECT_EQ(noErr, RefOfPath("file", &ref));
  EXPECT_EQ(scratch.Path("folder/file"), PathOfRef(ref));
  EXPECT_EQ(noErr, FSMakeFSSpec(0, 0, P("file").data(), &spec));
  EXPECT_EQ(scratch.Path("folder/file"), PathOfSpec(spec));
  EXPECT_EQ(kHostVolume, +spec.vRefNum);
  std::filesystem::remove_all(scratch.Path("folder"));
  EXPECT_EQ(fnfErr, FSMakeFSSpec(0, 0, P("file").data(), &spec));
  std::filesystem::current_path(before);
}

TEST_F(FileRecords, SpecsAreMadeForItemsAndForMissingNamesOnly) {
  scratch.File("folder/file");
  scratch.Link("folder/nowhere", "missing");
  const SInt32 folder = NumberOf(scratch.Path("folder"));
  const SInt32 tooHigh = folder + 1000000;
  const struct {
    SInt16 volume;
    SInt32 folder;
    std::string name;
    OSErr err;
    std::string stored;  // the name; "" when nothing is stored
  } rows[] = {
      {kHostVolume, folder, "", noErr, "folder"},
      {kHostVolume, folder, "nowhere", noErr, "nowhere"},  // the link itself is there
      {kHostVolume, folder, "missing", fnfErr, "missing"},
      {kHostVolume, fsRtParID, "/", noErr, "/"},
      {kHostVolume, fsRtParID, "tmp", fnfErr, ""},
      {kHostVolume, fsRtParID, "", dirNFErr, ""},
      {kHostVolume, folder, "..", bdNamErr, ""},
      {kHostVolume, folder, "a/b", bdNamErr, ""},
      {kHostVolume, folder, std::string("a\0b", 3), bdNamErr, ""},
      {kHostVolume, folder, std::string(63, 'n'), fnfErr, std::string(63, 'n')},
      {kHostVolume, folder, std::string(64, 'n'), bdNamErr, ""},
      {kHostVolume, tooHigh, "file", dirNFErr, ""},
      {kHostVolume, folder + 1, "file", dirNFErr, ""},  // the next number to be given out
      {kHostVolume, -7, "file", dirNFErr, ""},
      {-101, folder, "file", nsvErr, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.name));
    FSSpec spec = {};
    EXPECT_EQ(row.err, FSMakeFSSpec(row.volume, row.folder, P(row.name).data(), &spec));
    EXPECT_EQ(row.stored, NameOf(spec));
    EXPECT_EQ(row.stored.empty() ? 0 : kHostVolume, +spec.vRefNum);
  }
}

TEST_F(FileRecords, NumbersAndReferencesBecomeInvalidWhenTheirItemIsReplaced) {
  for (const char* name : {"deleted", "moved", "replaced", "linked", "filed", "way/inner"}) {
    scratch.File(std::string(name) + "/file");
  }
  struct Row {
    const char* name;
    FSSpec file = {};
    FSRef folderRef = {};
    FSRef fileRef = {};
    SInt32 number = 0;
  } rows[] = {{"deleted"}, {"moved"}, {"replaced"}, {"linked"}, {"filed"}, {"way/inner"}};
  for (Row& row : rows) {
    const std::string path = scratch.Path(row.name);
    row.number = NumberOf(path);
    EXPECT_EQ(row.number, NumberOf(path)) << row.name;
    ASSERT_EQ(noErr, SpecOfPath(path + "/file", &row.file));
    ASSERT_EQ(noErr, RefOfPath(path, &row.folderRef));
    ASSERT_EQ(noErr, RefOfPath(path + "/file", &row.fileRef));
  }
  std::filesystem::rename(scratch.Path("replaced"), scratch.Path("kept"));
  scratch.File("replaced/file");
  std::filesystem::rename(scratch.Path("linked"), scratch.Path("elsewhere"));
  scratch.Link("linked", "elsewhere");
  std::filesystem::rename(scratch.Path("filed"), scratch.Path("kept2"));
  scratch.File("filed");
  std::filesystem::rename(scratch.Path("way"), scratch.Path("kept3"));
  scratch.File("way");  // a file where a folder on the way was
  std::filesystem::remove_all(scratch.Path("deleted"));
  std::filesystem::rename(scratch.Path("moved"), scratch.Path("away"));

  const OpenDescriptorCheck noLeaks;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FSSpec spec = {};
    FSRef ref;
    EXPECT_EQ(fnfErr, MakeSpec(row.number, "file", &spec));
    EXPECT_EQ(fnfErr, FSpMakeFSRef(&row.file, &ref));
    // The same file under the same path is valid.
    const bool isSame = std::string(row.name) == "linked";
    EXPECT_EQ(isSame ? scratch.Path("linked/file") : "-43", PathOfRef(row.fileRef));
    spec = row.file;
    spec.name[1] = 'n';
    EXPECT_EQ(fnfErr, FSpDirCreate(&spec, smSystemScript, nullptr));
    EXPECT_EQ(fnfErr, FSpDelete(&row.file));
  }
  // The spec of a reference is made without the disk; all else needs it.
  FSSpec lost;
  HFSUniStr255 name;
  EXPECT_EQ(noErr, FSGetCatalogInfo(&rows[0].fileRef, 0, nullptr, nullptr, &lost, nullptr));
  EXPECT_EQ(0, std::memcmp(&lost, &rows[0].file, sizeof lost));
  EXPECT_EQ(fnfErr, FSGetCatalogInfo(&rows[0].fileRef, 0, nullptr, &name, &lost, nullptr));
  // The reference of a folder leads to the present folder of its name.
  EXPECT_EQ(scratch.Path("replaced"), PathOfRef(rows[2].folderRef));
  EXPECT_NE(rows[2].number, NumberOf(scratch.Path("replaced")));
  FSSpec again = {};
  EXPECT_EQ(noErr, SpecOfPath(scratch.Path("replaced/file"), &again));
  EXPECT_EQ(scratch.Path("replaced/file"), PathOfSpec(again));
  EXPECT_TRUE(std::filesystem::exists(scratch.Path("elsewhere/file")));
}

// File systems give the inode number of a removed folder to the next one that is made.
TEST_F(FileRecords, ANewFolderUnderTheOldInodeNumberIsAnotherFolder) {
  scratch.File("f/file");
  const SInt32 number = NumberOf(scratch.Path("f"));
  FSSpec spec = {};
  ASSERT_EQ(noErr, SpecOfPath(scratch.Path("f/file"), &spec));
  std::filesystem::remove_all(scratch.Path("f"));
  scratch.File("f/file");
  FSSpec again = {};
  EXPECT_EQ(fnfErr, MakeSpec(number, "file", &again));
  EXPECT_EQ(fnfErr, FSpDelete(&spec));
  EXPECT_EQ("-43", PathOfSpec(spec));
  EXPECT_NE(number, NumberOf(scratch.Path("f")));
  ASSERT_EQ(noErr, SpecOfPath(scratch.Path("f/file"), &again));
  EXPECT_EQ(scratch.Path("f/file"), PathOfSpec(again));
}

TEST_F(FileRecords, KnownPathsFollowWhatHasChanged) {
  scratch.File("a/b/file");
  scratch.File("a/b/other");
  FSRef before, after;
  ASSERT_EQ(noErr, RefOfPath(scratch.Path("a/b/file"), &before));
  ASSERT_EQ(noErr, RefOfPath(scratch.Path("a/b/file"), &after));
  EXPECT_EQ(scratch.Path("a/b/file"), PathOfRef(after));
  // The file becomes a link.
  std::filesystem::remove(scratch.Path("a/b/file"));
  scratch.Link("a/b/file", "other");
  ASSERT_EQ(noErr, RefOfPath(scratch.Path("a/b/file"), &after));
  EXPECT_EQ(scratch.Path("a/b/other"), PathOfRef(after));
  EXPECT_EQ(scratch.Path("a/b/file"), PathOfRef(before));  // the link, which has its name
  // Its folder becomes one.
  std::filesystem::rename(scratch.Path("a/b"), scratch.Path("a/c"));
  scratch.Link("a/b", "d");
  EXPECT_EQ(fnfErr, RefOfPath(scratch.Path("a/b/other"), &after));
  scratch.File("a/d/other");
  ASSERT_EQ(noErr, RefOfPath(scratch.Path("a/b/other"), &after));
  EXPECT_EQ(scratch.Path("a/d/other"), PathOfRef(after));
  EXPECT_EQ("-43", PathOfRef(before));
}

TEST_F(FileRecords, ThreadsAgreeOnNumbers) {
  constexpr int kThreads = 4, kFolders = 50;
  for (int i = 0; i < kFolders; ++i) scratch.File("f" + std::to_string(i) + "/file");
  std::vector<FSSpec> specs[kThreads];
  std::vector<std::thread> threads;
  for (auto& own : specs) {
    threads.emplace_back([&own, this] {
      for (int i = 0; i < kFolders; ++i) {
        const std::string path = scratch.Path("f" + std::to_string(i) + "/file");
        FSSpec spec = {};
        EXPECT_EQ(noErr, SpecOfPath(path, &spec));
        EXPECT_EQ(path, PathOfSpec(spec));
        own.push_back(spec);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& own : specs) {
    ASSERT_EQ(static_cast<size_t>(kFolders), own.size());
    EXPECT_EQ(0, std::memcmp(own.data(), specs[0].data(), kFolders * sizeof(FSSpec)));
  }
}

TEST_F(FileRecords, ForgedReferencesAreRefused) {
  const std::string path = scratch.File("file");
  FSRef good, forged = {};
  ASSERT_EQ(noErr, RefOfPath(path, &good));
  FSSpec spec = {};
  std::memset(&forged, 0xFF, sizeof forged);
  EXPECT_EQ("-1401", PathOfRef(forged));
  EXPECT_EQ(errFSBadFSRef, FSCompareFSRefs(&good, &forged));
  EXPECT_EQ(errFSBadFSRef,
            FSGetCatalogInfo(&forged, kFSCatInfoNone, nullptr, nullptr, &spec, nullptr));
  // A reference of another process differs in some bytes that have no other meaning.
  int refused = 0;
  for (size_t at = 0; at < sizeof good; ++at) {
    forged = good;
    forged.hidden[at] ^= 0x55;
    if (PathOfRef(forged) == "-1401") ++refused;
  }
  EXPECT_GE(refused, 4);
  // With any byte changed it is refused or names a missing item, but never leads out of the folder.
  for (size_t at = 0; at < sizeof good; ++at) {
    for (const int value : {0x00, 0x2F, 0x2E, 0x40, 0xFF}) {
      forged = good;
      forged.hidden[at] = static_cast<UInt8>(value);
      const std::string found = PathOfRef(forged);
      if (found[0] == '/') {
        EXPECT_EQ(path, found) << at << " " << value;
      }
    }
  }
}

TEST_F(FileRecords, NamesAndParentsAreThoseOfTheItemAndBadNamesAreRefused) {
  const std::string longName(100, 'n');
  scratch.File("f\xc3\xa4/\xff");
  scratch.File(longName);
  const struct {
    std::string path, parent;
    UInt16 length;
    UniChar last;
    bool isFoundByName;
  } rows[] = {
      {scratch.Path("f\xc3\xa4"), scratch.Path(), 2, 0xE4, true},
      {scratch.Path("f\xc3\xa4/\xff"), scratch.Path("f\xc3\xa4"), 1, 0x02C7, false},  // Mac Roman
      {scratch.Path(longName), scratch.Path(), 100, 'n', true},
      {"/proc", "/", 4, 'c', true},
  };
  FSRef ref, parent, found;
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.path));
    HFSUniStr255 name;
    ASSERT_EQ(noErr, RefOfPath(row.path, &ref));
    ASSERT_EQ(noErr, FSGetCatalogInfo(&ref, 0, nullptr, &name, nullptr, &parent));
    EXPECT_EQ(row.length, name.length);
    EXPECT_EQ(row.last, name.unicode[row.length - 1]);
    EXPECT_EQ(row.parent, PathOfRef(parent));
    EXPECT_EQ(errFSRefsDifferent, FSCompareFSRefs(&ref, &parent));
    if (!row.isFoundByName) continue;
    ASSERT_EQ(noErr, FSMakeFSRefUnicode(&parent, name.length, name.unicode, 0, &found));
    EXPECT_EQ(noErr, FSCompareFSRefs(&ref, &found));
  }
  FSRef root;
  ASSERT_EQ(noErr, RefOfPath("/", &root));
  EXPECT_EQ(dirNFErr, FSGetCatalogInfo(&root, 0, nullptr, nullptr, nullptr, &parent));
  // Both have the inode number 1.
  ASSERT_EQ(noErr, RefOfPath("/proc", &ref));
  ASSERT_EQ(noErr, RefOfPath("/sys", &found));
  EXPECT_EQ(errFSRefsDifferent, FSCompareFSRefs(&ref, &found));
  // From here on a file and the folder around it.
  ASSERT_EQ(noErr, RefOfPath(scratch.Path(longName), &ref));
  ASSERT_EQ(noErr, RefOfPath(scratch.Path(), &parent));
  const UniChar dots[] = {'.', '.'}, slash[] = {'x', '/', 'y'}, none[] = {'z'};
  EXPECT_EQ(bdNamErr, FSMakeFSRefUnicode(&parent, 2, dots, 0, &found));
  EXPECT_EQ(bdNamErr, FSMakeFSRefUnicode(&parent, 3, slash, 0, &found));
  EXPECT_EQ(bdNamErr, FSMakeFSRefUnicode(&parent, 0, dots, 0, &found));
  EXPECT_EQ(fnfErr, FSMakeFSRefUnicode(&parent, 1, none, 0, &found));
  EXPECT_EQ(dirNFErr, FSMakeFSRefUnicode(&ref, 1, none, 0, &found));
}

TEST_F(FileRecords, AddressesLeadToReferencesAndBack) {
  scratch.File("folder/\xff\xc3");
  FSRef ref = {}, back;
  EXPECT_EQ(nullptr, CFURLCreateFromFSRef(nullptr, &ref));
  EXPECT_FALSE(CFURLGetFSRef(nullptr, &back));
  for (const char* name : {"folder/\xff\xc3", "folder"}) {
    ASSERT_EQ(noErr, RefOfPath(scratch.Path(name), &ref));
    const CFURLRef url = CFURLCreateFromFSRef(nullptr, &ref);
    ASSERT_NE(nullptr, url);
    EXPECT_EQ(std::string(name) == "folder", CFURLHasDirectoryPath(url));
    EXPECT_TRUE(CFURLGetFSRef(url, &back));
    EXPECT_EQ(scratch.Path(name), PathOfRef(back));
    std::filesystem::remove_all(scratch.Path(name));
    EXPECT_FALSE(CFURLGetFSRef(url, &back));
    CFRelease(url);
  }
}

TEST_F(FileRecords, ItemsAreMadeOnceAndAFolderIsDeletedOnlyWhenEmpty) {
  scratch.Link("link", "/nowhere");
  const SInt32 root = NumberOf(scratch.Path());
  FSSpec folder, file, link;
  SInt32 number = 0;
  const OpenDescriptorCheck noLeaks;
  ASSERT_EQ(fnfErr, MakeSpec(root, "folder", &folder));
  EXPECT_EQ(noErr, FSpDirCreate(&folder, smSystemScript, &number));
  EXPECT_EQ(number, NumberOf(scratch.Path("folder")));
  EXPECT_EQ(dupFNErr, FSpDirCreate(&folder, smSystemScript, nullptr));
  ASSERT_EQ(fnfErr, MakeSpec(number, "file", &file));
  EXPECT_EQ(noErr, FSpCreate(&file, 0, 0, smSystemScript));
  EXPECT_EQ(dupFNErr, FSpCreate(&file, 0, 0, smSystemScript));
  EXPECT_EQ(fBsyErr, FSpDelete(&folder));
  EXPECT_EQ(noErr, FSpDelete(&file));
  EXPECT_EQ(noErr, FSpDelete(&folder));
  EXPECT_FALSE(std::filesystem::exists(scratch.Path("folder")));
  // A link without a target exists, and nothing is made at its target.
  ASSERT_EQ(noErr, MakeSpec(root, "link", &link));
  EXPECT_EQ(dupFNErr, FSpCreate(&link, 0, 0, smSystemScript));
  EXPECT_EQ(dupFNErr, FSpDirCreate(&link, smSystemScript, nullptr));
  EXPECT_EQ(noErr, FSpDelete(&link));
}

TEST_F(FileRecords, TheCatalogueGivesKindSizesAndLockByNameOrIndex) {
  const std::string path = scratch.File("folder/b", "hello");
  scratch.File("folder/a");
  const std::string longest(63, 'n');
  chmod(scratch.File("folder/" + longest).c_str(), 0444);
  scratch.File("folder/" + longest + "n");  // too long for a spec, so it has no index
  const std::string huge = scratch.File("huge");
  ASSERT_EQ(0, truncate(huge.c_str(), off_t{3} << 30));
  const bool hasFork =
      setxattr(path.c_str(), "user.org.netatalk.ResourceFork", "fork!!!", 7, 0) == 0;
  ASSERT_TRUE(hasFork || errno == ENOTSUP);
  const SInt32 folder = NumberOf(scratch.Path("folder"));
  const OpenDescriptorCheck noLeaks;
  const struct {
    SInt16 index;
    SInt32 folder;
    std::string name;  // in
    OSErr err;
    std::string found;  // out
    bool isFolder;
    SInt32 data, resource;
  } rows[] = {{0, folder, "b", 0, "b", false, 5, hasFork ? 7 : 0},
              {0, NumberOf(scratch.Path()), "huge", 0, "huge", false, 0x7FFFFFFF, 0},
              {0, folder, "", 0, "", true, 0, 0},
              {-1, folder, "ignored", 0, "folder", true, 0, 0},
              {1, folder, "", 0, "a", false, 0, 0},
              {2, folder, "", 0, "b", false, 5, hasFork ? 7 : 0},
              {3, folder, "", 0, longest, false, 0, 0},
              {4, folder, "", fnfErr, "", false, 0, 0},
              {1, folder + 1000000, "", dirNFErr, "", false, 0, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.name) + " " + std::to_string(row.index));
    Str63 name = {};
    std::memcpy(name, P(row.name).data(), row.name.size() + 1);
    CInfoPBRec block = {};
    block.hFileInfo.ioNamePtr = name;
    block.hFileInfo.ioFDirIndex = row.index;
    block.hFileInfo.ioDirID = row.folder;
    EXPECT_EQ(row.err, PBGetCatInfoSync(&block));
    EXPECT_EQ(row.err, block.hFileInfo.ioResult);
    if (row.index == 0) {
      HParamBlockRec file = {};
      file.fileParam.ioNamePtr = name;
      file.fileParam.ioDirID = row.folder;
      EXPECT_EQ(row.err == noErr && row.isFolder ? OSErr{fnfErr} : row.err, PBHGetFInfoSync(&file));
      EXPECT_EQ(row.data, +file.fileParam.ioFlLgLen);
      EXPECT_EQ(row.resource, +file.fileParam.ioFlRLgLen);
      file.fileParam.ioFDirIndex = 1;  // this call knows no indexes
      EXPECT_EQ(paramErr, PBHGetFInfoSync(&file));
    }
    if (row.err != noErr) continue;
    EXPECT_EQ(row.found == longest, (block.hFileInfo.ioFlAttrib & kioFlAttribLockedMask) != 0);
    EXPECT_EQ(row.isFolder, (block.hFileInfo.ioFlAttrib & kioFlAttribDirMask) != 0);
    EXPECT_EQ(row.found, std::string(reinterpret_cast<char*>(name) + 1, name[0]));
    if (row.isFolder) {
      EXPECT_EQ(row.folder, +block.dirInfo.ioDrDirID);
      EXPECT_EQ(NumberOf(scratch.Path()), +block.dirInfo.ioDrParID);
    } else {
      EXPECT_EQ(row.data, +block.hFileInfo.ioFlLgLen);
      EXPECT_EQ(row.resource, +block.hFileInfo.ioFlRLgLen);
      EXPECT_EQ(row.folder, +block.hFileInfo.ioFlParID);
    }
  }
}

TEST_F(FileRecords, AliasesAreResolvedStepByStepOrToTheEnd) {
  scratch.File("folder/file");
  scratch.Link("one", "folder/file");
  scratch.Link("two", "one");
  scratch.Link("up", "folder/../folder/");
  scratch.Link("dots", "folder/..");
  scratch.Link("absolute", scratch.Path("two"));
  scratch.Link("missing", "folder/none");
  scratch.Link("lost", "none/file");
  scratch.Link("long", "folder/" + std::string(64, 'n'));
  scratch.Link("loop", "loop2");
  scratch.Link("loop2", "loop");
  const SInt32 root = NumberOf(scratch.Path());
  const struct {
    const char* name;
    bool chains;
    OSErr err;
    std::string path;  // where it leads; "" if that is not checked
    bool isFolder, wasAliased;
  } rows[] = {{"one", true, 0, scratch.Path("folder/file"), false, true},
              {"two", false, 0, scratch.Path("one"), false, true},
              {"absolute", true, 0, scratch.Path("folder/file"), false, true},
              {"up", true, 0, scratch.Path("folder"), true, true},
              {"dots", true, 0, scratch.Path(), true, true},
              {"missing", true, fnfErr, "-43", false, false},
              {"lost", true, dirNFErr, "", false, false},
              {"long", true, bdNamErr, "", false, false},
              {"loop", true, fnfErr, scratch.Path("loop"), false, false},
              {"loop", false, 0, scratch.Path("loop2"), false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    FSSpec spec = {};
    MakeSpec(root, row.name, &spec);
    Boolean isFolder = false, wasAliased = false;
    EXPECT_EQ(row.err, ResolveAliasFile(&spec, row.chains, &isFolder, &wasAliased));
    if (!row.path.empty()) {
      EXPECT_EQ(row.path, PathOfSpec(spec));
    }
    EXPECT_EQ(row.isFolder, isFolder);
    EXPECT_EQ(row.wasAliased, wasAliased);
  }
  FSSpec spec = {};
  Boolean out = false;
  ASSERT_EQ(noErr, MakeSpec(root, "missing", &spec));
  EXPECT_EQ(fnfErr, ResolveAliasFile(&spec, true, &out, &out));
  EXPECT_EQ("none", NameOf(spec));
  EXPECT_EQ(NumberOf(scratch.Path("folder")), +spec.parID);
}

TEST_F(FileRecords, ItemsInAFolderThatMayNotBeSearchedAreDenied) {
  const uid_t own = geteuid();
  if (own == 0) SKIP_IF(NoOtherUsers());  // user 0 may search every folder
  const std::string path = scratch.File("closed/file");
  FSSpec spec = {};
  FSRef ref, found;
  ASSERT_EQ(noErr, SpecOfPath(path, &spec));
  ASSERT_EQ(noErr, RefOfPath(path, &ref));
  ASSERT_EQ(0, chmod(scratch.Path("closed").c_str(), 0));
  EXPECT_TRUE(own != 0 || seteuid(65534) == 0);
  EXPECT_EQ(afpAccessDenied, RefOfPath(path, &found));
  EXPECT_EQ(afpAccessDenied, FSpMakeFSRef(&spec, &found));
  EXPECT_EQ("-5000", PathOfRef(ref));
  EXPECT_EQ(afpAccessDenied, FSpDelete(&spec));
  EXPECT_EQ(0, seteuid(own));
  ASSERT_EQ(0, chmod(scratch.Path("closed").c_str(), 0755));
  EXPECT_EQ(path, PathOfRef(ref));
}

}  // namespace
