#include "platform/host/applications/bundle.h"

#include <CoreServices/Files.h>
#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"

namespace {

constexpr OSType kNone = FourCC('?', '?', '?', '?');
constexpr OSType kApplication = FourCC('A', 'P', 'P', 'L');

TEST(Bundle, HasTheValuesOfItsDescriptionOrDefaults) {
  const ScratchFolder scratch;
  const std::string head = "<plist version=\"1.0\">", tail = "</plist>";
  const auto entry = [](const std::string& key, const std::string& value) {
    return "<key>" + key + "</key>" + value;
  };
  const std::tuple<std::string, bool, const char*, OSType, OSType, const char*> rows[] = {
      {"<dict>" + entry("CFBundleIdentifier", "<string>com.x</string>") +
           entry("CFBundleSignature", "<string>SmoN</string>") +
           entry("CFBundlePackageType", "<string>BNDL</string>") +
           entry("CFBundleExecutable", "<string>run</string>") + "</dict>",
       true, "com.x", FourCC('S', 'm', 'o', 'N'), FourCC('B', 'N', 'D', 'L'), "run"},
      {"<dict/>", true, "", kNone, kApplication, "X"},
      {"<dict>" + entry("CFBundleSignature", "<string>long!</string>") +
           entry("CFBundleIdentifier", "<integer>5</integer>") +
           entry("CFBundleExecutable", "<string>../../bin/sh</string>") + "</dict>",
       true, "", kNone, kApplication, ""},
      {"<dict>" + entry("CFBundleSignature", "<string>\xc3\xa4xyz</string>") +
           entry("CFBundleExecutable", "<string>..</string>") + "</dict>",
       true, "", FourCC('\x8a', 'x', 'y', 'z'), kApplication, ""},
      {"<array/>", false, "", 0, 0, ""},
      {"junk", false, "", 0, 0, ""},
      {"<dict/>" + std::string(1 << 20, ' '), false, "", 0, 0, ""},
  };
  const OpenDescriptorCheck noLeaks;
  for (const auto& [text, isBundle, identifier, signature, type, executable] : rows) {
    SCOPED_TRACE(text.substr(0, 200));
    scratch.File("X.app/Contents/Info.plist", head + text + tail);
    HostBundle bundle;
    ASSERT_EQ(isBundle, HostReadBundle(scratch.Path("X.app/"), &bundle));
    if (!isBundle) continue;
    EXPECT_EQ(scratch.Path("X.app"), bundle.path);
    EXPECT_EQ(identifier, bundle.identifier);
    EXPECT_EQ(signature, bundle.signature);
    EXPECT_EQ(type, bundle.packageType);
    EXPECT_EQ(executable, bundle.executable);
  }
  std::filesystem::remove(scratch.Path("X.app/Contents/Info.plist"));
  HostBundle bundle;
  ASSERT_EQ(0, mkfifo(scratch.Path("X.app/Contents/Info.plist").c_str(), 0600));
  EXPECT_FALSE(HostReadBundle(scratch.Path("X.app"), &bundle));
  EXPECT_FALSE(HostReadBundle(scratch.Path(), &bundle));
}

TEST(Bundle, IsFoundByItsProgramsPath) {
  const ScratchFolder scratch;
  const std::string app = MakeTestBundle(scratch, "X.app", {.executable = "run"});
  const std::tuple<std::string, bool> rows[] = {{app + "/Contents/Linux/run", true},
                                                {app + "/Contents/Linux/run (deleted)", true},
                                                {app + "/Contents/Linux/sub/run", false},
                                                {"/.app/Contents/Linux/run", false}};
  for (const auto& [program, found] : rows) {
    HostBundle bundle;
    EXPECT_EQ(found, HostBundleOfProgram(program, &bundle)) << program;
    if (found) {
      EXPECT_EQ(app + "/Contents/Linux/run", bundle.Program());
    }
  }
}

// Applications in the folders that are searched.
class Applications : public testing::Test {
 protected:
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    for (const HostBundle& bundle : HostListApplications()) {
      names.push_back(bundle.path.substr(scratch.Path().size() + 1));
    }
    return names;
  }

  const ScratchFolder scratch;
  const ScopedVariable data{"XDG_DATA_HOME", scratch.Path("own").c_str()};
  const ScopedVariable dirs{"XDG_DATA_DIRS", (scratch.Path("b") + ":" + scratch.Path("a")).c_str()};
};

TEST_F(Applications, AreListedFolderByFolderWithoutHiddenDeepAndBrokenOnes) {
  EXPECT_TRUE(Names().empty());
  for (const char* name :
       {"a/veltrane/Applications/Z.app", "b/veltrane/Applications/Z.app",
        "own/veltrane/Applications/1/2/3/Deep.app", "own/veltrane/Applications/1/2/3/4/TooDeep.app",
        "own/veltrane/Applications/.hidden/H.app", "own/veltrane/Applications/C.app",
        "own/veltrane/Applications/C.app/Contents/Inner.app", "elsewhere/E.app"}) {
    MakeTestBundle(scratch, name, {});
  }
  scratch.Folder("a/veltrane/Applications/NoBundle.app");
  scratch.Link("a/veltrane/Applications/L.app", scratch.Path("elsewhere/E.app"));
  // The target of this link could not be opened.
  MakeTestBundle(scratch, "elsewhere/F.app", {});
  std::filesystem::rename(scratch.Path("elsewhere/F.app"), scratch.Path("elsewhere/plain"));
  scratch.Link("a/veltrane/Applications/M.app", scratch.Path("elsewhere/plain"));
  scratch.Link("a/veltrane/Applications/N.app", "N.app");
  scratch.Link("a/veltrane/Applications/folder", scratch.Path("elsewhere"));
  scratch.Link("a/veltrane/Applications/loop", ".");
  const OpenDescriptorCheck noLeaks;
  EXPECT_EQ(
      (std::vector<std::string>{"own/veltrane/Applications/1/2/3/Deep.app",
                                "own/veltrane/Applications/C.app", "b/veltrane/Applications/Z.app",
                                "a/veltrane/Applications/L.app", "a/veltrane/Applications/Z.app"}),
      Names());
}

TEST_F(Applications, AreFoundByCreatorNewestFirst) {
  MakeTestBundle(scratch, "a/veltrane/Applications/Old.app", {.signature = "CmoN"});
  MakeTestBundle(scratch, "own/veltrane/Applications/New.app", {.signature = "CmoN"});
  MakeTestBundle(scratch, "a/veltrane/Applications/" + std::string(60, 'n') + ".app",
                 {.signature = "CmoN"});
  MakeTestBundle(scratch, "own/veltrane/Applications/Tool.app",
                 {.signature = "CmoN", .packageType = "BNDL"});
  std::filesystem::last_write_time(
      scratch.Path("a/veltrane/Applications/Old.app"),
      std::filesystem::file_time_type::clock::now() - std::chrono::hours(48));
  const struct {
    OSType creator;
    SInt16 index;
    OSErr err;
    const char* name;
  } rows[] = {{FourCC('C', 'm', 'o', 'N'), 0, noErr, "New.app"},
              {FourCC('C', 'm', 'o', 'N'), 2, noErr, "Old.app"},
              {FourCC('C', 'm', 'o', 'N'), 3, afpItemNotFound, ""},
              {FourCC('C', 'm', 'o', 'N'), -1, paramErr, ""},
              {FourCC('c', 'm', 'o', 'n'), 0, afpItemNotFound, ""}};
  DTPBRec block = {};
  block.ioVRefNum = -7;
  EXPECT_EQ(nsvErr, PBDTGetPath(&block));
  EXPECT_EQ(rfNumErr, PBDTGetAPPLSync(&block));
  block.ioVRefNum = kHostVolume;
  ASSERT_EQ(noErr, PBDTGetPath(&block));
  for (const auto& row : rows) {
    Str63 name = {};
    block.ioNamePtr = name;
    block.ioFileCreator = row.creator;
    block.ioIndex = row.index;
    EXPECT_EQ(row.err, PBDTGetAPPLSync(&block)) << row.index;
    EXPECT_EQ(row.name, std::string(reinterpret_cast<char*>(name) + 1, name[0])) << row.index;
    FSSpec spec;
    if (row.err == noErr) {
      EXPECT_EQ(noErr, FSMakeFSSpec(kHostVolume, block.ioAPPLParID, name, &spec));
    }
  }
}

}  // namespace
