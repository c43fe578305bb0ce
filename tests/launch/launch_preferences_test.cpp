#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "tests/launch/open_launch.h"
#include "util/ostype_text.h"

// The launch preferences, in real files of this test's own folders.

namespace {

constexpr char kDomain[] = "com.veltrane.common.1.1";

std::string PreferencesFile() {
  const std::string folder = std::string(std::getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences";
  std::filesystem::create_directories(folder);
  return folder + "/" + kDomain + ".plist";
}

// Replaces the preferences of any user: the dictionary under "test" gets `content`.
void StorePreferences(const std::string& content, mode_t mode = 0644) {
  const std::string path = PreferencesFile();
  const std::string beside = path + ".new";
  std::ofstream(beside) << "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
                        << "<key>test</key>" << content << "</dict></plist>";
  chmod(beside.c_str(), mode);
  ASSERT_EQ(0, rename(beside.c_str(), path.c_str()));
}

void StoreKeys(const std::string& keys) { StorePreferences("<dict>" + keys + "</dict>"); }

// Launching by bundle identifier is off, so that a key can be seen to switch it on.
VLTLaunchSpec TestSpec() {
  return {.launchIfNotFound = false,
          .launchRetrySleepInterval = 1,
          .launchRetries = 20,
          .signature = FourCC('t', 'e', 's', 't'),
          .bundleID = "com.test",
          .executablePath = nullptr,
          .portName = "test.port",
          .prefsDomain = kDomain,
          .prefsKey = "test",
          .reserved = 0,
          .launchBySignature = true,
          .launchByBundleID = false,
          .findBySignature = false,
          .findByPortName = true};
}

std::string PathOf(OpenLaunch& launch) {
  char path[1024] = "";
  if (!launch.executableValid) return "none";
  return VLTLaunch::FileSpecToPath(launch.executable, path, sizeof path) == 0 ? path : "lost";
}

std::vector<std::string> StateOf(OpenLaunch& launch) {
  char signature[16];
  const auto text = [](const char* value) {
    return std::string(value != nullptr ? value : "null");
  };
  return {
      "start " + std::to_string(launch.launchIfNotFound),
      "retries " + std::to_string(launch.launchRetries),
      "sleep " + std::to_string(launch.launchRetrySleepInterval),
      "signature " + text(OSTypeToCString(launch.getSignature(), signature, sizeof signature)),
      "bySignature " + std::to_string(launch.launchBySignature),
      "bundle " + text(launch.bundleID),
      "byBundle " + std::to_string(launch.launchByBundleID),
      "executable " + PathOf(launch),
      "port " + text(launch.portName),
      "findPort " + std::to_string(launch.findByPortName),
      "findSignature " + std::to_string(launch.findBySignature),
  };
}

// Returns `state` with `changes` in place of the entries that begin with the same word.
std::vector<std::string> Changed(std::vector<std::string> state,
                                 const std::vector<std::string>& changes) {
  for (const std::string& change : changes) {
    const std::string word = change.substr(0, change.find(' ') + 1);
    for (std::string& entry : state) {
      if (entry.starts_with(word)) entry = change;
    }
  }
  return state;
}

std::string Key(const std::string& name, const std::string& value) {
  return "<key>" + name + "</key>" + value;
}

std::string Text(const std::string& name, const std::string& value) {
  return Key(name, "<string>" + value + "</string>");
}

TEST(LaunchPreferences, EachKeyChangesItsValueAndAWrongTypeIsAnError) {
  const std::string number = "<integer>1</integer>";
  const std::string port = Text("portName", "other.port");
  const std::string ones(300, '1');
  const std::tuple<std::string, OSStatus, std::vector<std::string>> rows[] = {
      {"", 0, {}},
      {Key("launchIfNotFound", "<true/>"), 0, {"start 1"}},
      {Key("launchIfNotFound", number), paramErr, {}},
      {Key("launchRetries", "<integer>3</integer>"), 0, {"retries 3"}},
      {Key("launchRetrySleepInterval", "<integer>-4</integer>"), 0, {"sleep -4"}},
      {Text("signature", "'CmoN'"), 0, {"signature 'CmoN'"}},
      {Text("signature", "12345") + port, 0, {"signature 12345", "port other.port"}},
      {Text("signature", "toolong") + port, 0, {"port other.port"}},
      {Text("signature", ones) + port, 0, {"port other.port"}},
      {Key("signature", number) + port, paramErr, {}},
      {Text("signature", "0"), 0, {"signature 0", "bySignature 0"}},
      {Key("launchBySignature", "<false/>"), 0, {"bySignature 0"}},
      {Text("bundleID", "com.other"), 0, {"bundle com.other", "byBundle 1"}},
      {Key("bundleID", number) + port, 0, {"port other.port"}},
      {Text("executablePath", "/usr"), 0, {"executable /usr"}},
      {Text("executablePath", "/usr/nothing/here") + port, 0, {"port other.port"}},
      {Text("executablePath", "/usr\xe2\x86\x92"), 0, {}},  // cut: /usr
      {Text("portName", "ab\xe2\x86\x92") + Text("bundleID", "ab\xe2\x86\x92"), 0, {}},
      {Text("portName", ""), 0, {}},
      {Key("portName", number), 0, {}},
      {Key("findByPortName", "<false/>"), 0, {"findPort 0", "retries 0"}},
      {Key("findBySignature", "<true/>"), 0, {"findSignature 1"}},
      {Key("findByPortName", "<false/>") + Key("findBySignature", "<true/>"),
       0,
       {"findPort 0", "findSignature 1"}},
      // Values read before a wrong one stay. The order is fixed, not the file's.
      {port + Key("launchBySignature", number) + Key("launchRetries", "<integer>7</integer>"),
       paramErr,
       {"retries 7"}},
  };
  OpenLaunch fresh(TestSpec());
  StoreKeys("");
  ASSERT_EQ(0, fresh.prepare());
  const std::vector<std::string> usual = StateOf(fresh);
  for (const auto& [keys, err, changes] : rows) {
    SCOPED_TRACE(keys);
    StoreKeys(keys);
    OpenLaunch launch(TestSpec());
    EXPECT_EQ(err, launch.prepare());
    EXPECT_EQ(Changed(usual, changes), StateOf(launch));
    EXPECT_EQ(err, launch.prepare());  // a mistake is one every time
  }
}

// Returns the bytes in use of the heap (0 under a sanitizer).
size_t HeapInUse() { return mallinfo2().uordblks; }

TEST(LaunchPreferences, TextsThatAreReplacedAreFreed) {
  const std::string large(20'000, 'n');
  VLTLaunchSpec spec = TestSpec();
  spec.bundleID = spec.portName = spec.executablePath = large.c_str();
  const std::string wrongType = Key("findByPortName", "<string>x</string>");
  for (const std::string& keys :
       {Text("bundleID", "com.other") + Text("portName", "other.port"),
        Text("bundleID", "com.other") + Text("portName", "other.port") + wrongType,
        Text("bundleID", "") + Text("executablePath", "/" + large), std::string()}) {
    SCOPED_TRACE(keys.substr(0, 200));
    StoreKeys(keys);
    size_t before = 0;
    for (int round = 0; round < 12; round++) {
      if (round == 2) before = HeapInUse();  // caches are filled by now
      OpenLaunch launch(spec);
      launch.prepare();
      launch.setPortName("short");
      launch.setPortName(large.c_str());
      FSRef ref;
      EXPECT_EQ(procNotFound, VLTLaunch::getFileRefFromBundleID(large.c_str(), ref));
    }
    EXPECT_LT(HeapInUse(), before + 5 * large.size());
  }
}

TEST(LaunchPreferences, AreReadOnce) {
  StoreKeys(Text("portName", "first"));
  OpenLaunch launch(TestSpec());
  EXPECT_EQ(0, launch.prepare());
  StoreKeys(Text("portName", "second"));
  EXPECT_EQ(0, launch.prepare());
  EXPECT_STREQ("first", launch.portName);
  launch.setPortName("mine");
  EXPECT_EQ(0, launch.prepare());
  EXPECT_STREQ("mine", launch.portName);
}

TEST(LaunchPreferences, AValueThatIsNotADictionaryIsAnErrorOnce) {
  StorePreferences("<string>no dictionary</string>");
  OpenLaunch launch(TestSpec());
  EXPECT_EQ(paramErr, launch.prepare());
  StoreKeys(Text("portName", "second"));
  EXPECT_EQ(0, launch.prepare());
  EXPECT_STREQ("test.port", launch.portName);
}

TEST(LaunchPreferences, AFileThatOthersMayWriteOrThatIsDamagedIsIgnored) {
  for (const mode_t mode : {mode_t{0664}, mode_t{0646}}) {
    StorePreferences("<dict>" + Text("executablePath", "/usr") + "</dict>", mode);
    OpenLaunch launch(TestSpec());
    EXPECT_EQ(0, launch.prepare());
    EXPECT_EQ("none", PathOf(launch));
  }
  std::ofstream(PreferencesFile()) << "no property list";
  chmod(PreferencesFile().c_str(), 0644);
  OpenLaunch launch(TestSpec());
  EXPECT_EQ(0, launch.prepare());
  std::filesystem::remove(PreferencesFile());
  EXPECT_EQ(0, OpenLaunch(TestSpec()).prepare());
}

TEST(LaunchPreferences, ACommitIsReadBackAndNeedsDomainAndKey) {
  std::filesystem::remove(PreferencesFile());
  OpenLaunch launch(TestSpec());
  VLTDictionary dict;
  EXPECT_EQ(errAEDescNotFound, launch.getLaunchPrefsDict(dict));
  dict.setInteger("launchRetries", 5);
  EXPECT_EQ(0, launch.commitPrefs(dict));
  VLTDictionary stored;
  EXPECT_EQ(0, launch.getLaunchPrefsDict(stored));
  EXPECT_EQ(1, stored.getCount());
  OpenLaunch other(TestSpec());
  EXPECT_EQ(0, other.prepare());
  EXPECT_EQ(5, other.launchRetries);

  for (const bool withoutKey : {true, false}) {
    VLTLaunchSpec spec = TestSpec();
    (withoutKey ? spec.prefsKey : spec.prefsDomain) = "";
    OpenLaunch none(spec);
    EXPECT_EQ(errAEDescNotFound, none.getLaunchPrefsDict(stored));
    EXPECT_EQ(errAEDescNotFound, none.commitPrefs(dict));
    EXPECT_EQ(0, none.prepare());
    EXPECT_EQ(20, none.launchRetries);
  }
}

// Writes a key and returns the given result.
class SavingLaunch : public OpenLaunch {
 public:
  explicit SavingLaunch(OSStatus theResult) : OpenLaunch(TestSpec()), result(theResult) {}
  OSStatus setPreferences(VLTPreferences& preferences) override {
    preferences.setInteger("saved", 1);
    return result;
  }

 private:
  OSStatus result;
};

TEST(LaunchPreferences, AreNotReadAgainAfterASaveThatSucceeded) {
  StoreKeys(Key("launchRetries", "<integer>5</integer>"));
  SavingLaunch failing(ioErr);
  EXPECT_EQ(ioErr, failing.savePreferences());
  EXPECT_EQ(0, failing.prepare());
  EXPECT_EQ(5, failing.launchRetries);
  SavingLaunch launch(0);
  EXPECT_EQ(0, launch.savePreferences());
  EXPECT_EQ(0, launch.prepare());
  EXPECT_EQ(20, launch.launchRetries);
  std::ostringstream file;
  file << std::ifstream(PreferencesFile()).rdbuf();
  EXPECT_NE(std::string::npos, file.str().find("saved"));
}

}  // namespace
