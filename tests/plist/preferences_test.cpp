#include "plist/preferences.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/host/preferences/read.h"
#include "plist/dictionary.h"
#include "tests/support/observed_syncs.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/permissions.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/session_directory.h"
#include "util/owned_ref.h"

namespace {

constexpr char kDomain[] = "com.veltrane.test";

std::string UserFolder() {
  return std::string(std::getenv("XDG_CONFIG_HOME")) + "/veltrane/preferences/";
}
std::string SharedFolder() {
  return std::string(std::getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences/";
}

// Returns a list with one number.
std::string ListOf(const char* key, int number) {
  return "<plist><dict><key>" + std::string(key) + "</key><integer>" + std::to_string(number) +
         "</integer></dict></plist>";
}

const CFStringRef kDomainString = CFSTR("com.veltrane.test");

CFStringRef Ref(const StackCFString& string) {
  return static_cast<CFStringRef>(static_cast<CFTypeRef>(string));
}

struct OpenPreferences : VLTPreferences {
  using VLTPreferences::_get;
  using VLTPreferences::VLTPreferences;
};

// Reads without leaving a reference.
int IntegerOf(const char* key, CFStringRef user = kCFPreferencesCurrentUser) {
  const OwnedRef<CFPropertyListRef> value =
      CFPreferencesCopyValue(Ref(StackCFString(key)), kDomainString, user, kCFPreferencesAnyHost);
  int number = -1;
  if (value != nullptr) {
    CFNumberGetValue(static_cast<CFNumberRef>(CFPropertyListRef{value}), kCFNumberIntType, &number);
  }
  return number;
}

class Preferences : public testing::Test {
 protected:
  Preferences() {
    std::filesystem::remove_all(UserFolder());
    std::filesystem::remove_all(SharedFolder());
    ClearTestLog();
  }

  // Overwrites the file in place, like an editor.
  void WriteByHand(const std::string& text) {
    std::filesystem::create_directories(UserFolder());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
    chmod(path.c_str(), 0600);
  }

  void ExpectLeftAlone(const std::string& text, mode_t mode, uid_t owner, const char* said);

  const std::string good = ListOf("n", 1);
  OpenDescriptorCheck noLeaks;
  OpenPreferences preferences{kDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost};
  const std::string path = UserFolder() + kDomain + ".plist";
};

TEST_F(Preferences, EachDomainHasItsFile) {
  const std::tuple<const char*, CFStringRef, CFStringRef, std::string, mode_t> rows[] = {
      {kDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost, path, 0600},
      {kDomain, kCFPreferencesCurrentUser, kCFPreferencesCurrentHost,
       UserFolder() + "ByHost/" + kDomain + ".plist", 0600},
      {kDomain, kCFPreferencesAnyUser, kCFPreferencesCurrentHost,
       SharedFolder() + kDomain + ".plist", 0644},
      {nullptr, kCFPreferencesCurrentUser, kCFPreferencesAnyHost,
       UserFolder() + "preferences_test.plist", 0600},
      {"kCFPreferencesAnyApplication", kCFPreferencesCurrentUser, kCFPreferencesAnyHost,
       UserFolder() + ".GlobalPreferences.plist", 0600},
  };
  const mode_t mask = umask(077);
  for (const auto& [application, user, host, path, mode] : rows) {
    SCOPED_TRACE(path);
    VLTPreferences domain(application, user, host);
    domain.setInteger("n", 5);
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(0, domain.commit());
    EXPECT_EQ(mode, ModeOf(path));
  }
  umask(mask);
  // The values of any user on any host are in the same file.
  EXPECT_EQ(5, IntegerOf("n", kCFPreferencesAnyUser));
}

TEST_F(Preferences, NamesThatCannotBeFileNamesAreRefused) {
  const std::string tooLong(201, 'n');
  for (const char* name : {"", "..", "a..b", "../x", "a/b", "/etc/x", tooLong.c_str()}) {
    VLTPreferences domain(name, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
    EXPECT_EQ(0, domain.setInteger("n", 1)) << name;
    EXPECT_EQ(paramErr, domain.commit()) << name;
    int value = 7;
    EXPECT_EQ(errAEDescNotFound, domain.getInteger("n", value)) << name;
  }
  VLTPreferences elsewhere(kDomain, CFSTR("somebody"), kCFPreferencesAnyHost);
  EXPECT_EQ(paramErr, elsewhere.commit());
  // A NUL does not end a name early.
  const UniChar units[] = {'a', 0, 'b'};
  const OwnedRef<CFStringRef> cut = CFStringCreateWithCharacters(nullptr, units, 3);
  CFPreferencesSetAppValue(CFSTR("n"), kCFBooleanTrue, cut);
  EXPECT_FALSE(CFPreferencesSynchronize(cut, kCFPreferencesCurrentUser, kCFPreferencesAnyHost));
  EXPECT_FALSE(std::filesystem::exists(UserFolder()));
  VLTPreferences longest(tooLong.substr(1).c_str(), kCFPreferencesCurrentUser,
                         kCFPreferencesAnyHost);
  longest.setInteger("n", 1);
  EXPECT_EQ(0, longest.commit());
}

TEST_F(Preferences, GettersTellAbsentFromWrongTypeAndNullRemoves) {
  int number = 7;
  EXPECT_EQ(errAEDescNotFound, preferences.getInteger("n", number));
  EXPECT_EQ(0, preferences.remove("n"));
  preferences.setCString("text", "seven");
  EXPECT_EQ(paramErr, preferences.getInteger("text", number));
  EXPECT_EQ(7, number);
  // Reports whether there is a value, and stores none.
  const void* value = this;
  EXPECT_EQ(0, preferences._get(CFSTR("text"), value));
  EXPECT_EQ(this, value);
  EXPECT_EQ(paramErr, preferences._get(CFSTR("none"), value));
  // A null value removes the key, unlike in a dictionary.
  EXPECT_EQ(0, preferences.setCString("text", nullptr));
  EXPECT_EQ(nullptr, preferences.getKeys());
  EXPECT_EQ(0, preferences.commit());
  EXPECT_FALSE(std::filesystem::exists(path));  // nothing has changed
}

TEST_F(Preferences, LoadingMergesOrReplacesAndSavingGivesAllEntries) {
  VLTDictionary list, read;
  EXPECT_EQ(paramErr, preferences.save("/dev/null", kCFPropertyListXMLFormat_v1_0));  // empty
  preferences.setInteger("old", 1);
  preferences.setInteger("both", 1);
  list.setInteger("both", 2);
  list.setInteger("new", 2);
  CFDataRef data = nullptr;
  ASSERT_EQ(0, list.saveAsXML(data));
  EXPECT_EQ(0, preferences.loadFromXML(data, true));
  CFRelease(data);
  ASSERT_EQ(0, preferences.saveAsXML(data));
  EXPECT_EQ(0, read.loadFromXML(data, false));
  EXPECT_EQ(3, read.getCount());
  EXPECT_EQ(0, preferences.commit());
  EXPECT_EQ(0, preferences.loadFromXML(data, false));
  CFRelease(data);
  const CFArrayRef keys = preferences.getKeys();
  EXPECT_EQ(3, CFArrayGetCount(keys));
  preferences.setMultiple(nullptr, keys);
  CFRelease(keys);
  EXPECT_EQ(nullptr, preferences.getKeys());
  const CFDictionaryRef none = preferences.getMultiple(nullptr);
  EXPECT_EQ(0, CFDictionaryGetCount(none));
  CFRelease(none);
  EXPECT_EQ(-1, IntegerOf("both"));  // removed in this process, though the file still has it
  EXPECT_NE(std::string::npos, ReadFile(path).find("both"));
}

TEST_F(Preferences, ChangesOfOthersAreSeenAndOwnChangesWinUntilTheyAreWritten) {
  WriteByHand(ListOf("n", 1));
  EXPECT_EQ(1, IntegerOf("n"));
  // The files have the same size and possibly the same times.
  for (int i = 1; i < 100; i++) {
    WriteByHand(ListOf("n", i % 9));
    EXPECT_EQ(i % 9, IntegerOf("n"));
  }
  preferences.setInteger("n", 50);
  preferences.setInteger("mine", 51);
  WriteByHand(
      "<!-- mine --><plist><dict><key>n</key><integer>3</integer>"
      "<key>theirs</key><integer>4</integer></dict></plist>");
  EXPECT_EQ(50, IntegerOf("n"));
  EXPECT_EQ(4, IntegerOf("theirs"));
  EXPECT_EQ(0, preferences.commit());
  EXPECT_EQ(4, IntegerOf("theirs"));
  EXPECT_EQ(51, IntegerOf("mine"));
  WriteByHand(ListOf("n", 8));
  EXPECT_EQ(8, IntegerOf("n"));
  EXPECT_EQ(-1, IntegerOf("mine"));
  std::filesystem::remove(path);
  EXPECT_EQ(-1, IntegerOf("n"));
  EXPECT_EQ("", TestLogText());
}

TEST_F(Preferences, ReadsLeaveReferencesToOneObjectForEachValue) {
  CFStringRef first = nullptr, again = nullptr;
  preferences.setCString("s", "one");
  ASSERT_EQ(0, preferences.commit());
  EXPECT_EQ(0, preferences.getString("s", first));
  const CFIndex count = CFGetRetainCount(first);
  EXPECT_EQ(0, preferences.getString("s", again));
  EXPECT_EQ(first, again);
  EXPECT_EQ(count + 1, CFGetRetainCount(first));
  // Values that alternate stay the same two objects, although their references are leaked.
  CFStringRef second = nullptr;
  for (int i = 0; i < 200; i++) {
    preferences.setCString("s", i % 2 == 0 ? "two" : "one");
    if (i % 3 == 0) {
      ASSERT_EQ(0, preferences.commit());
    }
    CFStringRef now = nullptr;
    EXPECT_EQ(0, preferences.getString("s", now));
    if (i == 0) second = now;
    EXPECT_EQ(i % 2 == 0 ? second : first, now);
  }
  // The same holds for a value that is replaced before it was written.
  CFStringRef unwritten = nullptr;
  preferences.setCString("s", "three");
  EXPECT_EQ(0, preferences.getString("s", unwritten));
  preferences.setCString("s", "four");
  preferences.setCString("s", "three");
  EXPECT_EQ(0, preferences.getString("s", again));
  EXPECT_EQ(unwritten, again);
}

// A value that is the same is not written again and keeps its object.
TEST(PreferenceValues, AreTheSameOnlyIfTheyAreBitForBit) {
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"<array><integer>1</integer></array>", "<array><integer>1</integer></array>", true},
      {"<array><integer>1</integer></array>", "<array><real>1</real></array>", false},
      {"<array><real>0</real></array>", "<array><real>-0</real></array>", false},
      {"<array><real>nan</real></array>", "<array><real>nan</real></array>", true},
      {"<array><true/></array>", "<array><integer>1</integer></array>", false},
      {"('\\Ud800')", "('\\Ud800')", true},
      {"('\\Ud800')", "('\\Ud801')", false},
      {"{a = b; c = (d); }", "{c = (d); a = b; }", true},
      {"{a = b; }", "{a = c; }", false},
      {"{a = b; }", "{c = b; }", false},
      {"{a = b; }", "{a = b; c = d; }", false},
      {"((a), b)", "((a, b))", false},
      {"()", "{}", false},
  };
  const auto listOf = [](const char* text) {
    const OwnedRef<CFDataRef> data = CFDataCreate(nullptr, reinterpret_cast<const UInt8*>(text),
                                                  static_cast<CFIndex>(std::strlen(text)));
    return OwnedRef<CFTypeRef>(CFPropertyListCreateFromXMLData(nullptr, data, 0, nullptr));
  };
  for (const auto& [left, right, isSame] : rows) {
    const OwnedRef<CFTypeRef> a = listOf(left), b = listOf(right);
    EXPECT_EQ(isSame, HostIsSamePreference(a, b)) << left << " " << right;
    EXPECT_EQ(isSame, HostIsSamePreference(b, a)) << right << " " << left;
  }
}

TEST_F(Preferences, AValueThatIsEqualButNotTheSameIsWritten) {
  EXPECT_EQ(0, preferences.commit());  // nothing but the value below is to be written
  WriteByHand(ListOf("n", 1));
  preferences.setDouble("n", 1);
  EXPECT_EQ(0, preferences.commit());
  EXPECT_NE(std::string::npos, ReadFile(path).find("<real>1</real>"));
  preferences.setDouble("n", 1);
  const auto before = std::filesystem::last_write_time(path);
  EXPECT_EQ(0, preferences.commit());
  EXPECT_EQ(before, std::filesystem::last_write_time(path));
}

TEST_F(Preferences, ACommitSyncsTheNewFileThenReplacesTheOldOneThenSyncsTheFolder) {
  const std::string config = std::getenv("XDG_CONFIG_HOME"), made = config + "/veltrane";
  const std::string folder = made + "/preferences";
  using States = std::vector<std::string>;
  int number = 0;
  const auto commit = [&](size_t failing, int error) {
    preferences.setInteger("n", ++number);
    States states;  // what is synced, and whether the file has the new value by then
    ObserveSyncs([&, failing, error](const std::string& synced) {
      const std::string value = "<integer>" + std::to_string(number) + "<";
      const bool isNew = ReadFile(path).find(value) != std::string::npos;
      states.push_back(std::filesystem::relative(synced, config).native() + (isNew ? " new" : ""));
      return states.size() == failing ? error : 0;
    });
    const OSStatus err = preferences.commit();
    ObserveSyncs(nullptr);
    EXPECT_EQ(number, IntegerOf("n"));
    return std::pair(err, states);
  };
  const std::string newFile = std::string("veltrane/preferences/.") + kDomain + ".plist.new";
  const std::string inPlace = "veltrane/preferences new";
  std::filesystem::remove_all(made);
  EXPECT_EQ(std::pair(OSStatus{0}, States{".", "veltrane", newFile, inPlace}), commit(0, 0));
  EXPECT_EQ(std::pair(OSStatus{0}, States{newFile, inPlace}), commit(0, 0));
  EXPECT_EQ(std::pair(OSStatus{0}, States{newFile, newFile, inPlace}), commit(1, EINTR));
  EXPECT_EQ(std::pair(OSStatus{0}, States{newFile, inPlace, inPlace}), commit(2, EINTR));
  EXPECT_EQ(std::pair(OSStatus{0}, States{newFile, inPlace}), commit(2, EINVAL));
}

TEST_F(Preferences, ACommitWhoseSyncFailsReturnsAnErrorAndTheNextOneTriesAgain) {
  for (const int failing : {1, 2}) {
    WriteByHand(ListOf("n", 1));
    preferences.setInteger("n", 2);
    int syncs = 0;
    ObserveSyncs([&](const std::string&) { return ++syncs == failing ? EIO : 0; });
    EXPECT_EQ(paramErr, preferences.commit());
    ObserveSyncs(nullptr);
    EXPECT_EQ(failing == 2, ReadFile(path) != ListOf("n", 1));
    EXPECT_EQ(2, IntegerOf("n"));
    EXPECT_EQ(0, preferences.commit());
    EXPECT_EQ(2, IntegerOf("n"));
    EXPECT_FALSE(std::filesystem::exists(UserFolder() + "." + kDomain + ".plist.new"));
  }
}

// The file's times at the end of the commit are those of the other process's change.
TEST_F(Preferences, AChangeByAnotherDuringACommitsSyncIsSeen) {
  WriteByHand(ListOf("n", 1));
  ASSERT_TRUE(WaitUntilTimesTell(path));
  preferences.setInteger("n", 2);
  ObserveSyncs([&](const std::string& synced) {
    if (std::filesystem::is_directory(synced)) WriteByHand(ListOf("n", 3));
    return 0;
  });
  EXPECT_EQ(0, preferences.commit());
  ObserveSyncs(nullptr);
  EXPECT_EQ(3, IntegerOf("n"));
}

TEST_F(Preferences, AValueSetDuringACommitsSyncIsKeptForTheNextCommit) {
  preferences.setInteger("n", 1);
  preferences.setInteger("gone", 1);
  ObserveSyncs([&](const std::string&) {
    preferences.setInteger("n", 2);
    preferences.remove("gone");
    return 0;
  });
  EXPECT_EQ(0, preferences.commit());
  ObserveSyncs(nullptr);
  EXPECT_EQ(2, IntegerOf("n"));
  EXPECT_EQ(-1, IntegerOf("gone"));
  EXPECT_NE(std::string::npos, ReadFile(path).find("<key>gone</key>"));
  EXPECT_EQ(0, preferences.commit());
  EXPECT_EQ(std::string::npos, ReadFile(path).find("<key>gone</key>"));
}

TEST_F(Preferences, ValuesThatXMLCannotHoldMakeTheFileBinary) {
  const UniChar half[] = {0xD800};
  // `start`: of the file.
  const std::pair<CFTypeRef, const char*> rows[] = {
      {CFDateCreate(nullptr, -1), "<?xml"},
      {CFDateCreate(nullptr, -0.25), "bplist00"},
      {CFStringCreateWithCharacters(nullptr, half, 1), "bplist00"},
      {CFDateCreate(nullptr, 1), "<?xml"},  // XML again when it can
  };
  for (const auto& [value, start] : rows) {
    CFPreferencesSetValue(CFSTR("value"), value, kDomainString, kCFPreferencesCurrentUser,
                          kCFPreferencesAnyHost);
    preferences.setInteger("other", 1);
    EXPECT_EQ(0, preferences.commit());
    EXPECT_EQ(0u, ReadFile(path).find(start));
    VLTDictionary file;
    EXPECT_EQ(0, file.load(path.c_str(), false));
    const CFTypeRef list = static_cast<const void*>(file);
    EXPECT_TRUE(
        CFEqual(value, CFDictionaryGetValue(static_cast<CFDictionaryRef>(list), CFSTR("value"))));
    CFRelease(value);
  }
}

// Expects that a file with `text`, of this mode and owner, is neither read nor written, and that
// `said` is logged once.
void Preferences::ExpectLeftAlone(const std::string& text, mode_t mode, uid_t owner,
                                  const char* said) {
  SCOPED_TRACE(said);
  ClearTestLog();
  WriteByHand(text);
  ASSERT_EQ(0, chown(path.c_str(), owner, getegid()));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
  for (int i = 0; i < 3; i++) EXPECT_EQ(-1, IntegerOf("n"));
  preferences.setInteger("mine", 5);
  EXPECT_EQ(paramErr, preferences.commit());
  EXPECT_EQ(5, IntegerOf("mine"));
  EXPECT_EQ(text, ReadFile(path));
  const std::string log = TestLogText();
  EXPECT_NE(std::string::npos, log.find(said)) << log;
  EXPECT_EQ(1, std::count(log.begin(), log.end(), '\n')) << log;

  ASSERT_EQ(0, chown(path.c_str(), geteuid(), getegid()));
  WriteByHand(good);
  EXPECT_EQ(0, preferences.commit());
  EXPECT_EQ(1, IntegerOf("n"));
  EXPECT_EQ(5, IntegerOf("mine"));
  preferences.remove("mine");
  EXPECT_EQ(0, preferences.commit());
}

TEST_F(Preferences, FilesThatCannotBeTrustedOrReadAreLeftAlone) {
  const std::tuple<std::string, mode_t, const char*> rows[] = {
      {good, 0620, "its group or others may write it"},
      {"<plist><dict>", 0600, "line 1"},
      {"", 0600, "neither read nor written"},
      {"<plist><array/></plist>", 0600, "is not a dictionary"},
  };
  for (const auto& [text, mode, said] : rows) ExpectLeftAlone(text, mode, geteuid(), said);

  std::filesystem::remove(path);
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));  // neither waited for nor replaced
  EXPECT_EQ(-1, IntegerOf("n"));
  preferences.setInteger("mine", 5);
  EXPECT_EQ(paramErr, preferences.commit());
  EXPECT_TRUE(std::filesystem::is_fifo(path));
  std::filesystem::remove(path);
  WriteByHand(good);
  std::filesystem::resize_file(path, (64 << 20) + 1);
  EXPECT_EQ(-1, IntegerOf("n"));
  EXPECT_EQ(paramErr, preferences.commit());
  EXPECT_NE(std::string::npos, TestLogText().find("64 MiB"));
  std::filesystem::remove(path);
  EXPECT_EQ(0, preferences.commit());
}

class OtherUsersPreferences : public Preferences {
 protected:
  static constexpr uid_t kOther = 12345;

  void SetUp() override {
    SKIP_IF(NoOtherUsers());
    std::filesystem::remove_all(config / "veltrane");
    for (auto folder = config; folder != "/tmp"; folder = folder.parent_path()) {
      EXPECT_EQ(0, chmod(folder.c_str(), 0755));
    }
  }
  void TearDown() override {
    std::filesystem::remove_all(config / "veltrane");
    EXPECT_EQ(0, chown(config.c_str(), geteuid(), getegid()));
  }

  static void Become(uid_t user) {
    EXPECT_EQ(0, seteuid(0));
    EXPECT_EQ(0, setegid(user));
    EXPECT_EQ(0, seteuid(user));
  }

  const std::filesystem::path config = std::getenv("XDG_CONFIG_HOME");
};

TEST_F(OtherUsersPreferences, AreNeitherReadNorWritten) {
  ExpectLeftAlone(good, 0600, kOther, "another user owns it");
}

TEST_F(OtherUsersPreferences, AValueReadAsOneUserIsNotGivenToAnother) {
  const std::tuple<uid_t, mode_t, int, int> rows[] = {
      {kOther, 0600, -1, 1}, {0, 0644, 1, 1}, {0, 0600, 1, -1}};
  for (const auto& [owner, mode, byRoot, byOther] : rows) {
    WriteByHand(ListOf("n", 1));
    ASSERT_EQ(0, chmod(path.c_str(), mode));
    ASSERT_EQ(0, chown(path.c_str(), owner, 0));
    for (auto folder = config / "veltrane/preferences"; folder != config;
         folder = folder.parent_path()) {
      ASSERT_EQ(0, chmod(folder.c_str(), 0755));
    }
    for (int i = 0; i < 2; i++) {
      EXPECT_EQ(byRoot, IntegerOf("n"));
      Become(kOther);
      EXPECT_EQ(byOther, IntegerOf("n"));
      Become(0);
    }
  }
}

TEST_F(OtherUsersPreferences, FilesThatRootMakesBelongToTheUserAndBothReadThem) {
  ASSERT_EQ(0, chown(config.c_str(), kOther, kOther));
  VLTPreferences onHost(kDomain, kCFPreferencesCurrentUser, kCFPreferencesCurrentHost);
  onHost.setInteger("n", 1);
  EXPECT_EQ(0, onHost.commit());
  preferences.setInteger("n", 1);
  EXPECT_EQ(0, preferences.commit());
  int entries = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(config / "veltrane")) {
    struct stat info;
    ASSERT_EQ(0, stat(entry.path().c_str(), &info));
    EXPECT_EQ(std::pair(kOther, gid_t{kOther}), std::pair(info.st_uid, info.st_gid)) << entry;
    entries++;
  }
  EXPECT_EQ(6, entries);  // two folders, two files and their locks
  for (int i = 2; i < 5; i += 2) {
    Become(kOther);
    EXPECT_EQ(i - 1, IntegerOf("n"));
    preferences.setInteger("n", i);
    EXPECT_EQ(0, preferences.commit());
    Become(0);
    WriteByHand(ListOf("n", i));  // so that it is read again
    EXPECT_EQ(i, IntegerOf("n"));
    preferences.setInteger("n", i + 1);
    EXPECT_EQ(0, preferences.commit());
  }
}

TEST_F(Preferences, ValuesThatNoFileCanHoldFailTheNextCommitOnly) {
  preferences.setInteger("n", 1);
  CFPreferencesSetValue(CFSTR("url"), kCFPreferencesAnyUser, kDomainString,
                        kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  EXPECT_EQ(0, preferences.commit());
  VLTDictionary nest;
  for (int i = 0; i < 600; i++) {
    VLTDictionary outer;
    outer.setDictionary("in", nest);
    nest = outer;
  }
  EXPECT_EQ(0, preferences.setDictionary("deep", nest));
  EXPECT_EQ(paramErr, preferences.commit());
  EXPECT_EQ(0, preferences.commit());
  // The other changes of that commit are written.
  preferences.setDictionary("deep", nest);
  preferences.setInteger("n", 2);
  EXPECT_EQ(paramErr, preferences.commit());
  EXPECT_NE(std::string::npos, ReadFile(path).find("<integer>2</integer>"));
  EXPECT_EQ(0, preferences.commit());
  // The stored value is a copy.
  VLTDictionary inner;
  inner.setInteger("n", 1);
  preferences.setDictionary("inner", inner);
  inner.setInteger("n", 2);
  VLTDictionary read;
  int n = 0;
  EXPECT_EQ(0, preferences.getDictionary("inner", read));
  EXPECT_EQ(0, read.getInteger("n", n));
  EXPECT_EQ(1, n);
}

TEST_F(Preferences, ApplicationValuesComeFromTheStrongestDomain) {
  const CFStringRef app = kDomainString;
  const struct {
    CFStringRef application, user, host;
  } weakestFirst[] = {
      {kCFPreferencesAnyApplication, kCFPreferencesAnyUser, kCFPreferencesAnyHost},
      {app, kCFPreferencesAnyUser, kCFPreferencesCurrentHost},
      {kCFPreferencesAnyApplication, kCFPreferencesCurrentUser, kCFPreferencesAnyHost},
      {kCFPreferencesAnyApplication, kCFPreferencesCurrentUser, kCFPreferencesCurrentHost},
      {app, kCFPreferencesCurrentUser, kCFPreferencesAnyHost},
      {app, kCFPreferencesCurrentUser, kCFPreferencesCurrentHost},
  };
  int rank = 0;
  for (const auto& row : weakestFirst) {
    const OwnedRef<CFNumberRef> number = CFNumberCreate(nullptr, kCFNumberIntType, &++rank);
    CFPreferencesSetValue(CFSTR("n"), number, row.application, row.user, row.host);
    EXPECT_TRUE(
        CFEqual(number, OwnedRef<CFPropertyListRef>(CFPreferencesCopyAppValue(CFSTR("n"), app))))
        << rank;
  }
  EXPECT_TRUE(CFPreferencesAppSynchronize(app));
  EXPECT_EQ(5, IntegerOf("n"));
  CFPreferencesSetAppValue(CFSTR("n"), kCFBooleanTrue, app);
  const CFPropertyListRef any =
      CFPreferencesCopyValue(CFSTR("n"), app, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  EXPECT_EQ(kCFBooleanTrue, any);
  for (const auto& row : weakestFirst) {
    CFPreferencesSetValue(CFSTR("n"), nullptr, row.application, row.user, row.host);
  }
  EXPECT_TRUE(CFPreferencesAppSynchronize(app));
}

TEST_F(Preferences, ThreadsOfOneProcessLoseNothing) {
  constexpr int kThreads = 4, kKeys = 15;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([t, &failures] {
      VLTPreferences own(kDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
      for (int i = 0; i < kKeys; i++) {
        const std::string key = std::to_string(t) + "." + std::to_string(i);
        own.setInteger(key.c_str(), i);
        if (own.commit() != 0 || IntegerOf(key.c_str()) != i) failures++;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
  const CFArrayRef keys = preferences.getKeys();
  EXPECT_EQ(kThreads * kKeys, CFArrayGetCount(keys));
  CFRelease(keys);
}

}  // namespace
