#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "plist/dictionary.h"
#include "plist/file_replacement.h"
#include "tests/support/observed_syncs.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"

namespace {

constexpr CFPropertyListFormat kXML = kCFPropertyListXMLFormat_v1_0;
constexpr CFPropertyListFormat kBinary = kCFPropertyListBinaryFormat_v1_0;

class DictionaryFiles : public testing::Test {
 protected:
  // Writes a list like an editor.
  void Write(const std::string& text) const { folder.File("list.plist", text); }

  const ScratchFolder folder;
  const std::string path = folder.Path("list.plist");
  OpenDescriptorCheck noLeaks;
};

CFURLRef NewURL(const std::string& path) {
  return CFURLCreateFromFileSystemRepresentation(kCFAllocatorDefault,
                                                 reinterpret_cast<const UInt8*>(path.data()),
                                                 static_cast<CFIndex>(path.size()), false);
}

int IntegerOf(VLTDictionary& dictionary, const char* key) {
  int value = -1;
  dictionary.getInteger(key, value);
  return value;
}

TEST_F(DictionaryFiles, LoadingReplacesOrMergesOnlyWhatItCouldRead) {
  VLTDictionary dictionary;
  dictionary.setInteger("old", 1);
  dictionary.setInteger("both", 1);
  EXPECT_EQ(fnfErr, dictionary.load(folder.Path("absent").c_str(), false));
  EXPECT_EQ(fnfErr, dictionary.load("/dev/zero", false));  // never ends
  EXPECT_EQ(paramErr, dictionary.load("", false));
  EXPECT_EQ(paramErr, dictionary.load(static_cast<const char*>(nullptr), false));
  Write("<plist><dict><key>cut</key>");
  EXPECT_EQ(fnfErr, dictionary.load(path.c_str(), false));
  EXPECT_EQ(2, dictionary.getCount());

  Write("<plist><dict><key>both</key><integer>2</integer></dict></plist>");
  EXPECT_EQ(0, dictionary.load(path.c_str(), true));
  EXPECT_EQ(1, IntegerOf(dictionary, "old"));
  EXPECT_EQ(2, IntegerOf(dictionary, "both"));
  EXPECT_EQ(0, dictionary.load(path.c_str(), false));
  EXPECT_EQ(1, dictionary.getCount());

  // A root of another kind is success, and has no entries.
  Write("<plist><array/></plist>");
  EXPECT_EQ(0, dictionary.load(path.c_str(), true));
  EXPECT_EQ(1, dictionary.getCount());
  EXPECT_EQ(0, dictionary.load(path.c_str(), false));
  EXPECT_EQ(0, dictionary.getCount());
}

TEST_F(DictionaryFiles, LoadingAndSavingThroughAnFSRefDoNothingWhenTheFileExists) {
  Write("<plist><dict><key>n</key><integer>2</integer></dict></plist>");
  const std::string before = ReadFile(path);
  FSRef ref;
  ASSERT_EQ(0, FSPathMakeRef(reinterpret_cast<const UInt8*>(path.c_str()), &ref, nullptr));
  VLTDictionary dictionary;
  EXPECT_EQ(0, dictionary.load(&ref, false));
  EXPECT_EQ(0, dictionary.getCount());
  EXPECT_EQ(0, dictionary.save(&ref, kXML));
  EXPECT_EQ(before, ReadFile(path));
  FSRef forged = {};
  EXPECT_EQ(fnfErr, dictionary.load(&forged, false));
  EXPECT_EQ(fnfErr, dictionary.save(&forged, kXML));
}

TEST_F(DictionaryFiles, OnlyAURLIsSavedInAnotherFormThanXML) {
  VLTDictionary dictionary, loaded;
  dictionary.setInteger("n", 5);
  EXPECT_EQ(0, dictionary.save(path.c_str(), kBinary));
  EXPECT_EQ(0u, ReadFile(path).find("<?xml"));
  const CFURLRef url = NewURL(path);
  EXPECT_EQ(0, dictionary.save(url, kBinary));
  EXPECT_EQ(0u, ReadFile(path).find("bplist00"));
  EXPECT_EQ(0, loaded.load(url, false));
  EXPECT_EQ(5, IntegerOf(loaded, "n"));
  EXPECT_EQ(fnfErr, dictionary.save(url, kCFPropertyListOpenStepFormat));
  EXPECT_EQ(0u, ReadFile(path).find("bplist00"));  // the old file stays
  EXPECT_EQ(fnfErr, dictionary.save(static_cast<CFURLRef>(nullptr), kXML));
  CFRelease(url);
}

TEST_F(DictionaryFiles, MemoryTakesTextOnlyAndGivesBackTheSameEntries) {
  VLTDictionary dictionary, loaded;
  dictionary.setCString("text", "\x8A");  // a with two dots
  char* buffer = nullptr;
  UInt32 length = 7;
  EXPECT_EQ(paramErr, dictionary.save(nullptr, &length, kXML));
  EXPECT_EQ(0, dictionary.save(&buffer, &length, kBinary));  // not text: nothing comes back
  EXPECT_EQ(nullptr, buffer);
  EXPECT_EQ(7u, length);
  ASSERT_EQ(0, dictionary.save(&buffer, &length, kXML));
  EXPECT_NE(std::string::npos, std::string(buffer, length).find("\xC3\xA4"));
  EXPECT_EQ(0, loaded.load(buffer, length, false));
  EXPECT_EQ(1, loaded.getCount());
  CFDataRef data = nullptr;
  ASSERT_EQ(0, dictionary.saveAsXML(data));
  EXPECT_EQ(std::string(buffer, length),
            std::string(reinterpret_cast<const char*>(CFDataGetBytePtr(data)),
                        static_cast<size_t>(CFDataGetLength(data))));
  EXPECT_EQ(0, loaded.loadFromXML(data, false));
  auto* const bytes = reinterpret_cast<unsigned char*>(buffer);
  EXPECT_EQ(0, loaded.loadFromXML(bytes, static_cast<SInt32>(length), false));
  EXPECT_EQ(paramErr, loaded.loadFromXML(bytes, 0, false));
  EXPECT_EQ(memFullErr, loaded.loadFromXML(bytes, -1, false));
  EXPECT_EQ(fnfErr, loaded.loadFromXML(bytes, static_cast<SInt32>(length) - 9, false));
  EXPECT_EQ(paramErr, loaded.loadFromXML(static_cast<CFDataRef>(nullptr), false));
  EXPECT_EQ(1, loaded.getCount());
  CFRelease(data);
  VLTDictionaryBase::PtrFree(buffer);

  // A list that contains itself cannot be written.
  dictionary.setDictionary("self", dictionary);
  EXPECT_EQ(fnfErr, dictionary.save(&buffer, &length, kXML));
  EXPECT_EQ(fnfErr, dictionary.saveAsXML(data));
  dictionary.remove("self");
}

TEST_F(DictionaryFiles, SavingReplacesTheTargetOfALinkAndKeepsItsMode) {
  VLTDictionary dictionary;
  dictionary.setInteger("n", 5);
  Write("old");
  chmod(path.c_str(), 0640);
  const std::string link = folder.Link("link", "list.plist");
  EXPECT_EQ(0, dictionary.save(link.c_str(), kXML));
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(0640u, ModeOf(path));
  EXPECT_EQ(0u, ReadFile(path).find("<?xml"));
  EXPECT_EQ(2u, EntriesOf(folder.Path()));

  // A new file has the usual mode, and a name of bytes.
  const mode_t mask = umask(027);
  const std::string utf8 = folder.Path("Gr\xC3\xBC\xC3\x9F");
  EXPECT_EQ(0, dictionary.save(utf8.c_str(), kXML));
  umask(mask);
  EXPECT_EQ(0640u, ModeOf(utf8));

  const std::string dangling = folder.Link("dangling", "later.plist");
  EXPECT_EQ(0, dictionary.save(dangling.c_str(), kXML));
  EXPECT_TRUE(std::filesystem::exists(folder.Path("later.plist")));

  // A device is written to and not replaced.
  EXPECT_EQ(0, dictionary.save("/dev/null", kXML));
  EXPECT_EQ(fnfErr, dictionary.save("/dev/full", kXML));
  EXPECT_FALSE(std::filesystem::is_regular_file("/dev/null"));
  EXPECT_EQ(fnfErr, dictionary.save(folder.Path("none/x").c_str(), kXML));
  EXPECT_EQ(fnfErr, dictionary.save(folder.Path().c_str(), kXML));
  EXPECT_EQ(5u, EntriesOf(folder.Path()));
}

TEST_F(DictionaryFiles, SavingRemovesWhatAKilledSaveHasLeftAndNothingElse) {
  VLTDictionary dictionary;
  const auto make = [&](const char* name, const char* inside) {
    std::filesystem::create_directory(folder.Path(name));
    folder.File(std::string(name) + "/" + inside, "x");
  };
  make(".vlt-AAAAAA", "new");
  std::filesystem::create_directory(folder.Path(".vlt-BBBBBB"));
  make(".vlt-CCCCCC", "other");
  make(".vlt-longer7", "new");
  folder.File(".vlt-DDDDDD", "x");
  const CFURLRef url = NewURL(folder.Path("live.plist"));
  const VLTFileReplacement live(url);
  EXPECT_EQ(0, live.Error());
  EXPECT_EQ(0, dictionary.save(path.c_str(), kXML));
  EXPECT_FALSE(std::filesystem::exists(folder.Path(".vlt-AAAAAA")));
  EXPECT_FALSE(std::filesystem::exists(folder.Path(".vlt-BBBBBB")));
  EXPECT_EQ(5u, EntriesOf(folder.Path()));  // three other folders, the live one, the file
  CFRelease(url);
}

TEST_F(DictionaryFiles, SavingSyncsTheNewFileThenReplacesTheOldOneThenSyncsTheFolder) {
  VLTDictionary dictionary;
  dictionary.setInteger("n", 5);
  const auto save = [&](size_t failing, int error) {
    Write("old");
    std::vector<std::string> states;  // of the file, at each sync
    ObserveSyncs([&, failing, error](const std::string& synced) {
      states.push_back((synced == folder.Path() ? "folder " : "file ") +
                       ReadFile(path).substr(0, 5));
      return states.size() == failing ? error : 0;
    });
    const OSStatus err = dictionary.save(path.c_str(), kXML);
    ObserveSyncs(nullptr);
    EXPECT_EQ(1u, EntriesOf(folder.Path()));
    return std::pair(err, states);
  };
  using States = std::vector<std::string>;
  const States once = {"file old", "folder <?xml"};
  EXPECT_EQ(std::pair(OSStatus{0}, once), save(0, 0));
  // An interrupted sync is repeated; EINVAL means that the file system cannot sync.
  EXPECT_EQ(std::pair(OSStatus{0}, States{"file old", "file old", "folder <?xml"}), save(1, EINTR));
  EXPECT_EQ(std::pair(OSStatus{0}, States{"file old", "folder <?xml", "folder <?xml"}),
            save(2, EINTR));
  EXPECT_EQ(std::pair(OSStatus{0}, once), save(2, EINVAL));
  EXPECT_EQ(std::pair(OSStatus{fnfErr}, States{"file old"}), save(1, EIO));
  EXPECT_EQ("old", ReadFile(path));
  EXPECT_EQ(std::pair(OSStatus{fnfErr}, once), save(2, EIO));
}

}  // namespace
