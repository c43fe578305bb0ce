#include "util/file_utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/scratch_folder.h"
#include "util/app_error_utils.h"
#include "util/strings.h"

namespace {

FSSpec SpecOf(const std::string& path) {
  FSSpec spec = {};
  EXPECT_EQ(noErr, PathToFSSpec(path.c_str(), &spec)) << path;
  return spec;
}

std::string PathOf(const FSSpec& spec) {
  char path[4096];
  const OSErr err = FSSpecToPath(&spec, path, sizeof path);
  return err == noErr ? path : std::to_string(err);
}

// Returns the file spec of an item in a folder, whether or not the item exists.
FSSpec Below(const std::string& folder, const char* name) {
  FSSpec spec = SpecOf(folder);
  SInt32 number = 0;
  EXPECT_EQ(noErr, FSGetDirID(spec, number));
  spec.parID = number;
  cpstrcpy(spec.name, name, sizeof spec.name);
  return spec;
}

class FileUtils : public testing::Test {
 protected:
  const ScratchFolder scratch;
};

TEST_F(FileUtils, APathFitsItsBufferOrGivesAnError) {
  const std::string folder = scratch.Folder("folder");
  const std::string joined = folder + "/new";
  const FSSpec present = SpecOf(folder), absent = Below(folder, "new");
  const FSSpec inRoot = Below("/", "vlt-no-such-item"), bad = Below(folder, "..");
  const std::tuple<const FSSpec*, size_t, OSErr, std::string> rows[] = {
      {&present, folder.size(), pathTooLongErr, ""},
      {&present, folder.size() + 1, noErr, folder},
      // Meant: a byte more than needed is required, because callers rely on it.
      {&absent, joined.size() + 1, paramErr, ""},
      {&absent, joined.size() + 2, noErr, joined},
      // Meant: two slashes, because callers rely on it.
      {&inRoot, 100, noErr, "//vlt-no-such-item"},
      {&bad, 100, bdNamErr, ""},
  };
  for (const auto& [spec, size, err, expectedPath] : rows) {
    std::string path(size, '#');
    EXPECT_EQ(err, FSSpecToPath(spec, path.data(), static_cast<UInt32>(size)));
    if (err == noErr) {
      EXPECT_STREQ(expectedPath.c_str(), path.c_str());
    }
  }
  std::filesystem::remove(folder);
  EXPECT_EQ("-43", PathOf(absent));
}

TEST_F(FileUtils, StepsIntoFoldersWhichAreMadeWhenMissing) {
  scratch.File("file");
  const FSSpec start = SpecOf(scratch.Path());
  Str255 name;
  FSSpec at = start;
  EXPECT_EQ(noErr, FindOrCreateSubDirectory(at, cpstrcpy(name, "a", sizeof name)));
  EXPECT_EQ(noErr, FindOrCreateSubDirectory(at, cpstrcpy(name, "b", sizeof name)));
  EXPECT_EQ(scratch.Path("a/b"), PathOf(at));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.Path("a/b")));

  at = start;
  for (const char* bad : {"", "..", "a/b"}) {
    EXPECT_NE(noErr, FindOrCreateSubDirectory(at, cpstrcpy(name, bad, sizeof name))) << bad;
    EXPECT_EQ(0, std::memcmp(&start, &at, sizeof at)) << bad;
  }
  EXPECT_EQ(paramErr, FindOrCreateSubDirectory(at, nullptr));
  // A file is stepped into, and only the next step fails.
  EXPECT_EQ(noErr, FindOrCreateSubDirectory(at, cpstrcpy(name, "file", sizeof name)));
  EXPECT_EQ(dirNFErr, FindOrCreateSubDirectory(at, cpstrcpy(name, "x", sizeof name)));
  EXPECT_EQ(scratch.Path("file"), PathOf(at));
}

TEST_F(FileUtils, AFolderThatSeveralMakeAtOnceIsFoundByAll) {
  constexpr int kThreads = 4, kFolders = 300;
  const FSSpec start = SpecOf(scratch.Path());
  std::atomic<int> arrived[kFolders] = {};
  const auto makeAll = [&] {
    for (int i = 0; i < kFolders; ++i) {
      FSSpec at = start;
      Str255 name;
      cpstrcpy(name, std::to_string(i).c_str(), sizeof name);
      for (++arrived[i]; arrived[i] < kThreads;) std::this_thread::yield();
      EXPECT_EQ(noErr, FindOrCreateSubDirectory(at, name));
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(makeAll);
  for (std::thread& thread : threads) thread.join();
}

TEST_F(FileUtils, StandardFoldersAreFoundByEitherSystemsDomain) {
  const std::tuple<const char*, SInt16, const char*> rows[] = {
      {"0x1040", kLocalDomain, "local/Library/Application Support/Veltrane"},
      {"none", kLocalDomain, "local/Library/Application Support/Veltrane"},
      {"0x1040", kUserDomain, "data/veltrane/Library/Application Support/Veltrane"},
  };
  for (const auto& [release, domain, path] : rows) {
    SCOPED_TRACE(path);
    const ScratchFolder own;
    const ScopedVariable local("VLTHOST_LOCAL_ROOT", own.Path("local").c_str());
    const ScopedVariable data("XDG_DATA_HOME", own.Path("data").c_str());
    const ScopedVariable version("VLTHOST_GESTALT_SYSV", release);
    FSSpec spec = {};
    EXPECT_EQ(noErr, GetRootSupportFolder(&spec, domain));
    EXPECT_EQ(own.Path(path), PathOf(spec));
    EXPECT_TRUE(std::filesystem::is_directory(own.Path(path)));
  }
  const ScopedVariable local("VLTHOST_LOCAL_ROOT", scratch.Path("local").c_str());
  const unsigned char name[] = "\003sub";
  FSSpec spec = {};
  EXPECT_EQ(fnfErr, GetFindFolderSpec(&spec, kLocalDomain, kDomainLibraryFolderType, name, false));
  scratch.Folder("local/Library");
  // Meant: `create` applies to the parent folder only, because callers rely on it.
  EXPECT_EQ(noErr, GetFindFolderSpec(&spec, kLocalDomain, kDomainLibraryFolderType, name, false));
  EXPECT_TRUE(std::filesystem::is_directory(scratch.Path("local/Library/sub")));
}

TEST_F(FileUtils, SettingPermissionsFollowsALink) {
  scratch.File("target");
  ASSERT_EQ(0, chmod(scratch.Path("target").c_str(), 0600));
  scratch.Link("link", "target");
  FSSpec link = Below(scratch.Path(), "link"), absent = Below(scratch.Path(), "absent");
  EXPECT_EQ(noErr, SetPermissions(link, 0640));
  EXPECT_EQ(0640u, ModeOf(scratch.Path("target")));
  EXPECT_EQ(ENOENT, SetPermissions(absent, 0777));
  absent.parID = 3;
  EXPECT_EQ(dirNFErr, SetPermissions(absent, 0777));
}

// The folder for log files, below a library of the test's own.
class LogFileDir : public FileUtils {
 protected:
  OSErr Get(std::string& path, std::string& subPath, SInt16 domain = 0) {
    return VLTAppErrorUtils::GetLogFileDirPath(path.data(), static_cast<UInt32>(path.size()),
                                               subPath.data(), domain);
  }

  const ScopedVariable local{"VLTHOST_LOCAL_ROOT", scratch.Path("local").c_str()};
  const ScopedVariable data{"XDG_DATA_HOME", scratch.Path("data").c_str()};
  const std::string logs = scratch.Path("local/Library/Logs");
};

TEST_F(LogFileDir, CreatesFoldersThatEveryoneMayWrite) {
  std::string path(4096, '#'), subPath = "A/B";
  EXPECT_EQ(noErr, Get(path, subPath));
  EXPECT_EQ(std::string("A\0B", 3), subPath);
  EXPECT_EQ(logs + "/A/B", path.c_str());
  EXPECT_EQ(0777u, ModeOf(logs + "/A"));
  EXPECT_EQ(0777u, ModeOf(logs + "/A/B"));
  EXPECT_NE(0777u, ModeOf(logs));

  const std::tuple<const char*, SInt16, std::string> rows[] = {
      {"", 0, logs},
      {"//A///B/", kLocalDomain, logs + "/A/B"},
      {"D/E", kUserDomain, scratch.Path("data/veltrane/Library/Logs/D/E")},
  };
  for (const auto& [givenPath, domain, expectedPath] : rows) {
    subPath = givenPath;
    EXPECT_EQ(noErr, Get(path, subPath, domain)) << givenPath;
    EXPECT_EQ(expectedPath, path.c_str());
    EXPECT_TRUE(std::filesystem::is_directory(expectedPath));
  }
}

TEST_F(LogFileDir, FailuresLeaveAUsableFolder) {
  scratch.Folder("outside");
  std::filesystem::create_directories(logs);
  std::filesystem::create_symlink(scratch.Path("outside"), logs + "/link");
  ASSERT_EQ(0, chmod(scratch.Path("outside").c_str(), 0700));
  const std::tuple<std::string, size_t, SInt16, OSErr, const char*> rows[] = {
      {"../x", 4096, 0, bdNamErr, "/Library/Logs"},
      {std::string(64, 'n'), 4096, 0, bdNamErr, "/Library/Logs"},
      {"link/x", 4096, 0, dirNFErr, "/Library/Logs"},
      {"A", 4096, kNetworkDomain, fnfErr, "/Library/Logs"},
      {"A", 5, 0, pathTooLongErr, "/Lib"},
  };
  for (const auto& [givenPath, size, domain, err, expectedPath] : rows) {
    SCOPED_TRACE(givenPath);
    std::string path(size, '#'), subPath = givenPath;
    EXPECT_EQ(err, Get(path, subPath, domain));
    EXPECT_STREQ(expectedPath, path.c_str());
  }
  EXPECT_EQ(0700u, ModeOf(scratch.Path("outside")));
  EXPECT_TRUE(std::filesystem::is_empty(scratch.Path("outside")));
  EXPECT_FALSE(std::filesystem::exists(scratch.Path("local/Library/x")));
}

}  // namespace
