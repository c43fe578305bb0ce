#include <gtest/gtest.h>

#include "launch/launch.h"
#include "tests/integration/launch_support.h"

// Which application is found and started, and when nothing is.

namespace {

constexpr OSType kSignature = FourCC('L', 'n', 'c', 'h');

std::string PathOf(const FSRef& ref) {
  UInt8 path[1024] = "";
  EXPECT_EQ(0, FSRefMakePath(&ref, path, sizeof path));
  return reinterpret_cast<char*>(path);
}

// Returns the path of the application that a look-up finds, or "".
std::string Find(OSType creator, const char* identifier, const char* name) {
  const auto string = [](const char* text) {
    return text == nullptr ? nullptr
                           : CFStringCreateWithCString(nullptr, text, kCFStringEncodingUTF8);
  };
  const CFStringRef identifierString = string(identifier), nameString = string(name);
  FSRef ref;
  CFURLRef url = nullptr;
  const OSStatus err = LSFindApplicationForInfo(creator, identifierString, nameString, &ref, &url);
  if (identifierString != nullptr) CFRelease(identifierString);
  if (nameString != nullptr) CFRelease(nameString);
  if (err != 0) {
    EXPECT_EQ(kLSApplicationNotFoundErr, err);
    EXPECT_EQ(nullptr, url);
    return "";
  }
  UInt8 bytes[1024] = "";
  EXPECT_TRUE(CFURLGetFileSystemRepresentation(url, true, bytes, sizeof bytes));
  CFRelease(url);
  EXPECT_EQ(PathOf(ref), reinterpret_cast<char*>(bytes));
  return PathOf(ref);
}

TEST(FindApplication, ByIdentifierThenSignatureThenName) {
  LaunchedApplications apps;
  const auto add = [&](const char* place, const char* identifier, const char* signature,
                       const char* version) {
    return MakeTestBundle(apps.Folder(), place, {identifier, signature, "APPL", "x", version});
  };
  const std::string own = "data/veltrane/Applications/", all = "share/veltrane/Applications/";
  const std::string first = add((own + "B.app").c_str(), "com.test.one", "One ", "1.9");
  const std::string newest = add((all + "A.app").c_str(), "com.TEST.one", "One ", "1.10");
  add((all + "C.app").c_str(), "com.test.one", "One ", "1.10");  // as new, but after A
  const std::string same = add((own + "deep/er/D.app").c_str(), "com.test.two", "Two ", "2");
  add((all + "D.app").c_str(), "com.test.two", "Two ", "2.0");
  add((own + "E.app").c_str(), "com.test.three", "Thre", "1.9");
  const std::string second = add((own + "F.app").c_str(), "com.test.three", "Thre", "2.1");
  add((own + "G.app").c_str(), "com.test.three", "Thre", "1.10.5");
  add("elsewhere/H.app", "com.test.far", "Far ", "1");
  apps.Folder().Link("data/veltrane/Applications/Link.app", apps.Folder().Path("elsewhere/H.app"));

  const struct {
    OSType creator;
    const char *identifier, *name;
    std::string found;
  } rows[] = {{0, "com.test.one", nullptr, newest},
              {FourCC('O', 'n', 'e', ' '), nullptr, nullptr, newest},
              {0, "com.test.two", nullptr, same},
              {0, "com.test.three", nullptr, second},
              {FourCC('O', 'n', 'e', ' '), "com.test.two", "b.app", same},
              {FourCC('T', 'w', 'o', ' '), "com.test.none", "b.app", same},
              {FourCC('X', 'X', 'X', 'X'), "com.test.none", "b.APP", first},
              {0, nullptr, "B", ""},
              {0, "com.test.on", nullptr, ""},
              {0, "com.test.far", nullptr, apps.Folder().Path("elsewhere/H.app")}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.found, Find(row.creator, row.identifier, row.name));
  }
  FSRef ref;
  EXPECT_EQ(paramErr, LSFindApplicationForInfo(0, nullptr, nullptr, &ref, nullptr));
}

// The ways of a launch specification, each with an application of its own.
class Ways {
 public:
  Ways() {
    for (const char* name : {"Path", "Identifier", "Signature"}) {
      const std::string identifier = std::string("com.test.") + name;
      const std::string signature = name[0] == 'S' ? "Lnch" : "none";
      paths.push_back(apps.AddBundle(std::string(name) + ".app",
                                     {identifier, signature, "APPL", "program", "1"},
                                     apps.NoteStep(name) + "claim " + port + "\nloop\n"));
    }
  }

  VLTLaunchSpec Spec() const {
    VLTLaunchSpec spec = {};
    spec.launchIfNotFound = true;
    spec.launchRetrySleepInterval = 1;
    spec.launchRetries = 1;
    spec.signature = kSignature;
    spec.bundleID = "com.test.identifier";
    spec.executablePath = paths[0].c_str();
    spec.portName = port.c_str();
    spec.launchBySignature = spec.launchByBundleID = spec.findByPortName = true;
    return spec;
  }

  // Returns the names of those that were started since the last call, and ends them.
  std::string Started() {
    std::string names;
    for (const char* name : {"Path", "Identifier", "Signature"}) {
      for (size_t i = apps.Starts(name).size(); i > 0; i--) names += name;
      apps.ForgetStarts(name);
    }
    if (!names.empty()) {
      EXPECT_TRUE(QuitAndWait(port));
    }
    return names;
  }

  LaunchedApplications apps;
  const std::string port = UniquePortName();
  std::vector<std::string> paths;
};

TEST(Launching, ByPathThenIdentifierThenSignature) {
  Ways ways;
  VLTLaunchSpec spec = ways.Spec();
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("Path", ways.Started());
  const std::string plain = ways.apps.Folder().Link(
      "link", ways.apps.AddProgram("bin/plain", "claim " + ways.port + "\nloop\n"));
  spec.executablePath = plain.c_str();
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_TRUE(QuitAndWait(ways.port));
  EXPECT_EQ("", ways.Started());
  spec.executablePath = "/nothing/here";
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("Identifier", ways.Started());
  spec.executablePath = "/etc/passwd";  // is there, but does not open
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("Identifier", ways.Started());
  spec.bundleID = "com.test.nobody";
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("Signature", ways.Started());
  spec.launchBySignature = false;
  EXPECT_EQ(procNotFound, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("", ways.Started());
}

TEST(Launching, NothingIsStartedByALookUpOrWhileTheDaemonRuns) {
  Ways ways;
  VLTLaunchSpec spec = ways.Spec();
  spec.launchIfNotFound = false;
  EXPECT_EQ(procNotFound, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ(procNotFound, VLTLaunch(ways.Spec()).find());
  EXPECT_EQ("", ways.Started());

  ASSERT_EQ(0, VLTLaunch(ways.Spec()).findAndLaunch());
  for (const bool start : {false, true}) {
    spec.launchIfNotFound = start;
    spec.executablePath = ways.paths[1].c_str();
    EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  }
  // By its signature in the process list: the one that was started by its path.
  spec.findByPortName = false;
  spec.findBySignature = true;
  spec.signature = FourCC('n', 'o', 'n', 'e');
  EXPECT_EQ(0, VLTLaunch(spec).findAndLaunch());
  EXPECT_EQ("Path", ways.Started());
}

}  // namespace
