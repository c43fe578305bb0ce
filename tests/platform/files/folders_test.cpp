#include <CoreServices/Folders.h>
#include <CoreServices/Gestalt.h>
#include <CoreServices/MacErrors.h>
#include <Security/Security.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/permissions.h"
#include "tests/support/scratch_folder.h"

// Standard folders, system version and login session, which depend on the environment.

namespace {

std::string FolderPath(SInt16 volume, SInt32 number) {
  FSSpec spec;
  FSRef ref;
  UInt8 path[4096];
  OSStatus err = FSMakeFSSpec(volume, number, nullptr, &spec);
  if (err == noErr) err = FSpMakeFSRef(&spec, &ref);
  if (err == noErr) err = FSRefMakePath(&ref, path, sizeof path);
  return err == noErr ? reinterpret_cast<char*>(path) : std::to_string(err);
}

TEST(Folders, EachDomainAndTypeHasItsFolderWhichIsMadeIfWanted) {
  const ScratchFolder scratch;
  const ScopedVariable local("VLTHOST_LOCAL_ROOT", scratch.Path("local").c_str());
  const ScopedVariable data("XDG_DATA_HOME", scratch.Path("data").c_str());
  const std::string shared = "relative:" + scratch.Path("share1/") + "::" + scratch.Path("share2");
  const ScopedVariable dirs("XDG_DATA_DIRS", shared.c_str());
  const ScopedVariable home("HOME", scratch.Folder("home").c_str());
  const struct {
    SInt16 domain;
    OSType type;
    const char* path;  // in the scratch folder; null: fnfErr
  } rows[] = {{kLocalDomain, kDomainLibraryFolderType, "local/Library"},
              {kLocalDomain, kPreferencesFolderType, "local/Library/Preferences"},
              {kLocalDomain, kApplicationsFolderType, "share1/veltrane/Applications"},
              {kUserDomain, kDomainTopLevelFolderType, "data/veltrane"},
              {kUserDomain, kCurrentUserFolderType, "home"},
              {kLocalDomain, FourCC('n', 'o', 'n', 'e'), nullptr},
              {kNetworkDomain, kDomainLibraryFolderType, nullptr}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path != nullptr ? row.path : "none");
    SInt16 volume = 7;
    SInt32 number = 7;
    FSRef ref;
    if (row.path == nullptr || !std::filesystem::exists(scratch.Path(row.path))) {
      EXPECT_EQ(fnfErr, FindFolder(row.domain, row.type, kDontCreateFolder, &volume, &number));
      EXPECT_EQ(7, volume);
    }
    const OSErr err = FindFolder(row.domain, row.type, kCreateFolder, &volume, &number);
    EXPECT_EQ(row.path != nullptr ? noErr : fnfErr, err);
    if (row.path == nullptr) continue;
    EXPECT_EQ(scratch.Path(row.path), FolderPath(volume, number));
    EXPECT_EQ(noErr, FSFindFolder(row.domain, row.type, kDontCreateFolder, &ref));
  }
}

TEST(Folders, AFolderThatSeveralMakeAtOnceIsFoundByAll) {
  constexpr int kThreads = 4;
  for (int round = 0; round < 100; ++round) {
    const ScratchFolder scratch;
    const ScopedVariable local("VLTHOST_LOCAL_ROOT", scratch.Path("local").c_str());
    std::atomic<int> arrived{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        FSRef ref;
        for (++arrived; arrived < kThreads;) std::this_thread::yield();
        EXPECT_EQ(noErr, FSFindFolder(kLocalDomain, kPreferencesFolderType, true, &ref));
      });
    }
    for (std::thread& thread : threads) thread.join();
  }
}

TEST(Folders, FoldersThatRootMakesInAUsersFolderBelongToTheUser) {
  SKIP_IF(NoOtherUsers());
  constexpr uid_t kUser = 65534;
  const OpenDescriptorCheck noLeaks;
  const ScratchFolder scratch;
  const ScopedVariable data("XDG_DATA_HOME", scratch.Folder("data").c_str());
  ASSERT_EQ(0, chown(scratch.Path("data").c_str(), kUser, kUser));
  FSRef ref;
  EXPECT_EQ(noErr, FSFindFolder(kUserDomain, kPreferencesFolderType, true, &ref));
  for (const char* name :
       {"data/veltrane", "data/veltrane/Library", "data/veltrane/Library/Preferences"}) {
    struct stat info = {};
    EXPECT_EQ(0, stat(scratch.Path(name).c_str(), &info)) << name;
    EXPECT_EQ(kUser, info.st_uid) << name;
    EXPECT_EQ(kUser, info.st_gid) << name;
  }
}

TEST(Folders, AFileOnTheWayIsAnErrorAndALinkIsFollowed) {
  const ScratchFolder scratch;
  scratch.File("file");
  scratch.Link("linked", "target");
  scratch.Folder("target");
  const std::tuple<const char*, OSErr> rows[] = {
      {"file/local", dirNFErr}, {"linked", noErr}, {"new/a/b", noErr}};
  for (const auto& [root, err] : rows) {
    SCOPED_TRACE(root);
    const ScopedVariable local("VLTHOST_LOCAL_ROOT", scratch.Path(root).c_str());
    SInt16 volume = 0;
    SInt32 number = 0;
    EXPECT_EQ(err, FindFolder(kLocalDomain, kDomainLibraryFolderType, true, &volume, &number));
  }
  EXPECT_TRUE(std::filesystem::is_directory(scratch.Path("target/Library")));
}

TEST(Folders, UsersFoldersHaveDefaults) {
  const ScratchFolder scratch;
  const ScopedVariable home("HOME", scratch.Path().c_str());
  for (const char* value : {static_cast<const char*>(nullptr), "", "relative"}) {
    const ScopedVariable data("XDG_DATA_HOME", value);
    SInt16 volume = 0;
    SInt32 number = 0;
    ASSERT_EQ(noErr, FindFolder(kUserDomain, kDomainTopLevelFolderType, true, &volume, &number));
    EXPECT_EQ(scratch.Path(".local/share/veltrane"), FolderPath(volume, number));
  }
}

TEST(Gestalt, TheSystemVersionIsTheVariablesOrTheDefault) {
  const std::tuple<const char*, OSErr, SInt32> rows[] = {{nullptr, noErr, 0x1040},
                                                         {"0x0922", noErr, 0x922},
                                                         {"4169", noErr, 0x1049},
                                                         {"0x10000", gestaltUndefSelectorErr, 7}};
  for (const auto& [value, err, expectedVersion] : rows) {
    const ScopedVariable version("VLTHOST_GESTALT_SYSV", value);
    SInt32 response = 7;
    EXPECT_EQ(err, Gestalt(gestaltSystemVersion, &response));
    EXPECT_EQ(expectedVersion, response);
  }
  SInt32 response = 7;
  EXPECT_EQ(gestaltUndefSelectorErr, Gestalt(FourCC('n', 'o', 'n', 'e'), &response));
}

TEST(SecuritySession, IsTheCallersOwnOnly) {
  const struct {
    const char *id, *bits, *display, *wayland;
    SecuritySessionId expectedId;  // 0: any
    SessionAttributeBits expectedBits;
  } rows[] = {{"0x1234ABCD", "0", ":0", nullptr, 0x1234ABCD, 0},
              {"5", "junk", nullptr, "wayland-0", 5, sessionHasGraphicAccess},
              {"010", "020", nullptr, nullptr, 10, 20},
              {"0xFFFFFFFF", "1", nullptr, nullptr, 0, sessionIsRoot},
              {"4294967296", "1", nullptr, nullptr, 0, sessionIsRoot}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.id);
    const ScopedVariable id("VLTHOST_SESSION_ID", row.id), bits("VLTHOST_SESSION_BITS", row.bits);
    const ScopedVariable display("DISPLAY", row.display), wayland("WAYLAND_DISPLAY", row.wayland);
    SecuritySessionId found = 0, again = 0;
    SessionAttributeBits attributes = 0xFFFF;
    EXPECT_EQ(errSessionSuccess, SessionGetInfo(callerSecuritySession, &found, &attributes));
    EXPECT_EQ(row.expectedBits, attributes);
    EXPECT_NE(callerSecuritySession, found);
    if (row.expectedId != 0) {
      EXPECT_EQ(row.expectedId, found);
    }
    EXPECT_EQ(errSessionSuccess, SessionGetInfo(found, &again, nullptr));
    EXPECT_EQ(found, again);
    EXPECT_EQ(errSessionInvalidId, SessionGetInfo(found + 1, &again, &attributes));
    EXPECT_EQ(errSessionInvalidId, SessionGetInfo(noSecuritySession, nullptr, nullptr));
  }
}

}  // namespace
