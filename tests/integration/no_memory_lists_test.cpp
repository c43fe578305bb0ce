#include <gtest/gtest.h>

#include <filesystem>

#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "util/owned_ref.h"

// Property lists and preferences of one thread while an allocation fails.

namespace {

constexpr CFPropertyListFormat kXML = kCFPropertyListXMLFormat_v1_0;
constexpr CFPropertyListFormat kBinary = kCFPropertyListBinaryFormat_v1_0;

OSStatus Fill(VLTDictionary& dictionary, int first) {
  static constexpr unsigned char kBytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  VLTDictionary inner;
  OSStatus err = inner.setCString("name", "a value inside that is long enough to need a block");
  for (int i = 0; err == 0 && i < 12; i++) {
    const std::string key = "key " + std::to_string(i);
    err = dictionary.setInteger(key.c_str(), first + i);
  }
  if (err == 0) err = dictionary.setDouble("real", 1.5);
  if (err == 0) err = dictionary.setData("data", kBytes, sizeof kBytes);
  if (err == 0) err = dictionary.setCString("text", "text");
  if (err == 0) err = dictionary.setDictionary("inner", inner);
  return err;
}

CFURLRef NewURL(const std::string& path) {
  return CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault,
                                                 reinterpret_cast<const UInt8*>(path.data()),
                                                 static_cast<CFIndex>(path.size()), false);
}

class ListsWithoutMemory : public testing::Test {
 protected:
  const ScratchFolder folder;
  const std::string path = folder.Path("list.plist");
  OpenDescriptorCheck noLeaks;
};

TEST_F(ListsWithoutMemory, SettingLeavesAValueOldOrNew) {
  VLTDictionary dictionary;
  ASSERT_EQ(0, dictionary.setCString("text", "old"));
  bool isNew = false;
  const auto set = [&] {
    const OSStatus err = dictionary.setCString("text", isNew ? "old" : "new");
    if (err == 0) isNew = !isNew;
    return err;
  };
  Sweep("set in a dictionary", set, {memFullErr}, [&](OSStatus) {
    char text[8] = "";
    UInt32 length = 0;
    EXPECT_EQ(0, dictionary.getCString("text", text, sizeof text, length));
    EXPECT_STREQ(isNew ? "new" : "old", text);
  });
}

TEST_F(ListsWithoutMemory, SavingAndLoadingReplaceAllOrNothing) {
  VLTDictionary dictionary;
  ASSERT_EQ(0, Fill(dictionary, 100));
  for (const CFPropertyListFormat format : {kXML, kBinary}) {
    SCOPED_TRACE(format);
    ASSERT_EQ(0, VLTDictionary().save(path.c_str(), kXML));
    const std::string before = ReadFile(path);
    const OwnedRef<CFURLRef> url = NewURL(path);
    Sweep(
        "save", [&] { return dictionary.save(url, format); }, {memFullErr, fnfErr},
        [&](OSStatus err) {
          EXPECT_EQ(1u, EntriesOf(folder.Path()));
          if (err != 0) return;
          VLTDictionary read;
          int value = 0;
          EXPECT_EQ(0, read.load(path.c_str(), false));
          EXPECT_EQ(dictionary.getCount(), read.getCount());
          EXPECT_EQ(0, read.getInteger("key 11", value));
          EXPECT_EQ(111, value);
          EXPECT_EQ(0, VLTDictionary().save(path.c_str(), kXML));
        });
    EXPECT_EQ(before, ReadFile(path));
    ASSERT_EQ(0, dictionary.save(url, format));
    const auto load = [&] {
      VLTDictionary loaded;
      if (const OSStatus set = loaded.setInteger("old", 1); set != 0) return set;
      const OSStatus err = loaded.load(url, false);
      EXPECT_EQ(err == 0 ? dictionary.getCount() : 1, loaded.getCount());
      return err;
    };
    Sweep("load", load, {memFullErr, fnfErr});
  }
  const auto saveToMemory = [&] {
    char* bytes = nullptr;
    UInt32 length = 0;
    const OSStatus err = dictionary.save(&bytes, &length, kXML);
    EXPECT_TRUE(err != 0 || length > 500u);
    VLTDictionaryBase::PtrFree(bytes);
    return err;
  };
  Sweep("save to memory", saveToMemory, {memFullErr, fnfErr});
}

// Preferences of the current user, in a folder of the test's.
class PreferencesWithoutMemory : public ListsWithoutMemory {
 protected:
  const ScopedVariable config{"XDG_CONFIG_HOME", folder.Path().c_str()};
};

const char* const kApplication = "com.example.memory";

TEST_F(PreferencesWithoutMemory, AReadAfterOneThatFailedFindsTheValue) {
  VLTPreferences preferences(kApplication, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  int value = 0;
  const auto read = [&] { return preferences.getInteger("number", value); };
  const auto change = [&](int number) {
    folder.File("veltrane/preferences/com.example.memory.plist",
                "<plist><dict><key>number</key><integer>" + std::to_string(number) +
                    "</integer></dict></plist>");
  };
  std::filesystem::create_directories(folder.Path("veltrane/preferences"));
  int number = 1;
  change(number);
  Sweep("read a preference", read, {memFullErr, fnfErr}, [&](OSStatus) {
    EXPECT_EQ(0, read());
    EXPECT_EQ(number, value);
    change(number = 3 - number);
  });
}

// Each round reads a file for the first time.
TEST_F(PreferencesWithoutMemory, ADefaultAfterAReadThatFailedOverwritesNothing) {
  std::filesystem::create_directories(folder.Path("veltrane/preferences"));
  int rounds = 0, unread = 0;
  for (const auto kind : {AllocationFailure::kOne, AllocationFailure::kAllFromThere}) {
    for (const bool asksForAll : {false, true}) {
      bool hasFailed = true;
      for (int number = 1; hasFailed; number++) {
        SCOPED_TRACE(testing::Message() << "allocation " << number << ", all " << asksForAll);
        const std::string name = "com.example.first" + std::to_string(rounds++);
        folder.File("veltrane/preferences/" + name + ".plist",
                    "<plist><dict><key>number</key><integer>5</integer></dict></plist>");
        VLTPreferences preferences(name.c_str(), kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
        const StackCFString domain(name.c_str());
        const auto application = static_cast<CFStringRef>(static_cast<CFTypeRef>(domain));
        const CFStringRef key = CFSTR("number");
        ArmAllocationFailure(number, kind);
        const CFTypeRef found =
            asksForAll ? CFTypeRef{preferences.getKeys()}
                       : CFPreferencesCopyValue(key, application, kCFPreferencesCurrentUser,
                                                kCFPreferencesAnyHost);
        hasFailed = FailedAllocations() > 0;
        DisarmAllocationFailure();
        EXPECT_TRUE(hasFailed || found != nullptr);
        EXPECT_EQ(0, preferences.setInteger("number", 9));
        const OSStatus err = preferences.commit();
        EXPECT_TRUE(err == 0 ? found != nullptr : hasFailed && err == paramErr) << err;
        int value = 0;
        EXPECT_EQ(0, preferences.getInteger("number", value));
        EXPECT_EQ(err == 0 ? 9 : 5, value);
        unread += found == nullptr;
        if (found != nullptr) CFRelease(found);
      }
    }
  }
  EXPECT_LT(8, unread);
}

TEST_F(PreferencesWithoutMemory, ACommitKeepsTheOtherValuesAndReportsALostOne) {
  const auto change = [](const char* text, bool isFirst) {
    VLTPreferences preferences(kApplication, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
    OSStatus err = isFirst ? preferences.setInteger("kept", 5) : 0;
    if (err == 0) err = preferences.setCString("changed", text);
    return err == 0 ? preferences.commit() : err;
  };
  ASSERT_EQ(0, change("at first", true));
  int number = 0;
  const auto work = [&] {
    return change(number++ % 2 == 0 ? "some longer text" : "another text", false);
  };
  Sweep("set and commit", work, {memFullErr, fnfErr, paramErr}, [&](OSStatus err) {
    VLTPreferences preferences(kApplication, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
    int kept = 0;
    EXPECT_EQ(0, preferences.getInteger("kept", kept));
    EXPECT_EQ(5, kept);
    char text[32] = "";
    UInt32 length = 0;
    EXPECT_EQ(0, preferences.getCString("changed", text, sizeof text, length));
    EXPECT_NE(0u, length);
    // A value that was lost is reported by the next commit that gets as far.
    EXPECT_TRUE(err == 0 || preferences.commit() == 0 || preferences.commit() == 0);
  });
}

}  // namespace
