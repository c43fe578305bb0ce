#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/host/base/file_lock.h"
#include "platform/host/base/open_file.h"
#include "platform/host/preferences/introspect.h"
#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "tests/support/child_process.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Commits of preferences and saves of dictionaries while each system call in turn fails or is the
// process's last one (tests/support/interposed_calls.h).

namespace {

constexpr char kDomain[] = "com.veltrane.faults";
constexpr char kFileName[] = "com.veltrane.faults.plist";

VLTPreferences& Domain() {
  static VLTPreferences preferences(kDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  return preferences;
}

std::string SavedPath() { return std::string(std::getenv("HOME")) + "/saved.plist"; }

// Commits or saves, as its first argument says, with a fault in one system call: kind, number and
// errno. Reports the outcome and the number of calls.
TEST_ROLE(Changer) {
  const std::string what = role.Argument(0);
  const auto fault = static_cast<CallFault>(role.NumberArgument(1));
  const int number = role.NumberArgument(2);
  VLTDictionary dictionary;
  dictionary.setInteger("n", 2);
  Domain().setInteger("old", 3);
  Domain().setInteger("new", 2);
  ArmCallFault(fault, number, role.NumberArgument(3));
  const bool isSaved = what == "save";
  const bool ok = isSaved ? dictionary.save(SavedPath().c_str(), kCFPropertyListXMLFormat_v1_0) == 0
                          : Domain().commit() == 0;
  const int calls = CallsSinceArmed();
  ArmCallFault(CallFault::kNone, 0);
  role.Tell(ok ? "ok" : "failed");
  role.Tell(std::to_string(calls));
  return kRoleDone;
}

// Reads a value until the file's times are reliable, then so many times between two lines.
TEST_ROLE(Reader) {
  const auto end = std::chrono::steady_clock::now() + 100ms;
  int value = 0;
  while (std::chrono::steady_clock::now() < end) Domain().getInteger("old", value);
  ArmCallFault(CallFault::kNone, 0);
  role.Tell("begin");
  for (int i = 0; i < role.NumberArgument(0); i++) Domain().getInteger("old", value);
  role.Tell("end");
  role.Tell(std::to_string(CallsSinceArmed() - 2));
  return value == 1 ? kRoleDone : RoleFailed();
}

// Returns why the last commit failed.
std::string ProblemOfDomain() {
  const StackCFString domain(kDomain);
  return HostPreferencesProblem(static_cast<CFStringRef>(static_cast<CFTypeRef>(domain)),
                                kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
}

// Runs this program in a role that reports to standard output.
ProgramResult RunRole(const std::string& role, const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {std::filesystem::read_symlink("/proc/self/exe"),
                                    "--role=" + role, "--port-name=", "--pipes=1,0"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  return RunProgram(words, 60s);
}

ProgramResult Change(const std::string& what, CallFault fault = CallFault::kNone, int number = 0,
                     int error = 0) {
  return RunRole("Changer", {what, std::to_string(static_cast<int>(fault)), std::to_string(number),
                             std::to_string(error)});
}

// Returns the first line of a report. CallsOf returns the number in the second line.
std::string Said(const ProgramResult& result) {
  return result.output.substr(0, result.output.find('\n'));
}
int CallsOf(const ProgramResult& result) {
  return std::atoi(result.output.substr(result.output.find('\n') + 1).c_str());
}

class PreferencesFaults : public testing::Test {
 protected:
  PreferencesFaults() {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    WriteOld();
  }

  std::string Path(const std::string& name) const { return folder + "/" + name; }

  // Writes a file with an unusual mode, reached through a link and without a lock file.
  void WriteOld() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    std::filesystem::remove(Path(".real.plist.lock"), ignored);
    std::filesystem::create_symlink("real.plist", path, ignored);
    std::ofstream(real) << "<plist><dict><key>old</key><integer>1</integer>"
                           "<key>kept</key><string>&lt;x&gt;</string></dict></plist>";
    ASSERT_EQ(0, chmod(real.c_str(), 0640));
  }

  // Returns the contents of the file, "old" or "new", or what is wrong with it.
  std::string StateOfFile() const {
    VLTDictionary list;
    if (list.load(path.c_str(), false) != 0) return "it cannot be read";
    UInt32 length = 0;
    if (list.getCString("kept", nullptr, 0, length) != 0) return "a key is lost";
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || (info.st_mode & 07777) != 0640) return "its mode is lost";
    if (!std::filesystem::is_symlink(path)) return "the link is lost";
    int old = 0, added = 0;
    list.getInteger("old", old);
    const bool isAdded = list.getInteger("new", added) == 0;
    if (old == 1 && !isAdded) return "old";
    return old == 3 && added == 2 ? "new" : "a mixture";
  }

  void ExpectNextInFile() const {
    VLTDictionary list;
    int found = 0;
    EXPECT_EQ(0, list.load(path.c_str(), false));
    EXPECT_EQ(0, list.getInteger("next", found));
    EXPECT_EQ(next, found);
  }

  // After a commit that met a fault.
  void ExpectWhole(const ProgramResult& result) {
    const std::string said = Said(result), state = StateOfFile();
    EXPECT_TRUE(state == "old" || state == "new") << state;
    if (said == "ok") {
      EXPECT_EQ("new", state);
    } else if (said == "failed") {
      EXPECT_FALSE(std::filesystem::exists(Path(".real.plist.new")));
    } else {
      EXPECT_EQ(-SIGKILL, result.status) << result.errors;
    }
    // The next commit works, and removes the temporary file of a killed one.
    Domain().setInteger("next", ++next);
    EXPECT_EQ(0, Domain().commit());
    ExpectNextInFile();
    EXPECT_FALSE(std::filesystem::exists(Path(".real.plist.new")));
    WriteOld();
  }

  const std::string folder = std::string(std::getenv("XDG_CONFIG_HOME")) + "/veltrane/preferences";
  const std::string path = Path(kFileName);
  const std::string real = Path("real.plist");
  int next = 0;
};

constexpr struct {
  CallFault fault;
  int error;
} kFaults[] = {{CallFault::kKill, 0},      {CallFault::kError, ENOSPC}, {CallFault::kError, EIO},
               {CallFault::kError, EROFS}, {CallFault::kError, EINTR},  {CallFault::kShortWrite, 0},
               {CallFault::kInterrupt, 0}};

bool MustSucceed(CallFault fault) {
  return fault == CallFault::kShortWrite || fault == CallFault::kInterrupt;
}

TEST_F(PreferencesFaults,
       InterruptedCallsAndShortWritesSucceedAndOtherFaultsLeaveTheOldOrTheNewFile) {
  OpenDescriptorCheck noLeaks;
  const ProgramResult plain = Change("commit");
  ASSERT_EQ("ok", Said(plain)) << plain.errors;
  const int calls = CallsOf(plain);
  ASSERT_GE(calls, 15);
  WriteOld();
  int killed = 0;
  for (const auto& row : kFaults) {
    for (int number = 1; number <= calls; number++) {
      SCOPED_TRACE(testing::Message() << "call " << number << ", errno " << row.error);
      const ProgramResult result = Change("commit", row.fault, number, row.error);
      killed += Said(result).empty();
      EXPECT_TRUE(!MustSucceed(row.fault) || Said(result) == "ok") << result.errors;
      ExpectWhole(result);
      if (HasFailure()) return;
    }
  }
  EXPECT_EQ(calls, killed);
}

// Returns whether a save has left its temporary folder.
bool LeavesFolder() {
  const auto home = std::filesystem::directory_iterator(std::getenv("HOME"));
  return std::any_of(begin(home), end(home), [](const auto& entry) {
    return entry.path().filename().native().starts_with(".vlt-");
  });
}

// Saves a file; the number in it is 1 in the old one and 2 in the new one.
ProgramResult SaveWith(CallFault fault, int call, int error, int* number) {
  VLTDictionary dictionary;
  dictionary.setInteger("n", 1);
  EXPECT_EQ(0, dictionary.save(SavedPath().c_str(), kCFPropertyListXMLFormat_v1_0));
  const ProgramResult result = Change("save", fault, call, error);
  EXPECT_EQ(0, dictionary.load(SavedPath().c_str(), false));
  EXPECT_EQ(0, dictionary.getInteger("n", *number));
  return result;
}

TEST(SavingFaults, TheFileIsTheOldOrTheNewOne) {
  int found = 0;
  const ProgramResult plain = SaveWith(CallFault::kNone, 0, 0, &found);
  ASSERT_EQ("ok", Said(plain)) << plain.errors;
  EXPECT_EQ(2, found);
  const int calls = CallsOf(plain);
  ASSERT_GE(calls, 4);
  for (const auto& row : kFaults) {
    for (int number = 1; number <= calls; number++) {
      SCOPED_TRACE(testing::Message() << "call " << number << ", errno " << row.error);
      const std::string said = Said(SaveWith(row.fault, number, row.error, &found));
      EXPECT_EQ(row.fault == CallFault::kKill, said.empty());
      EXPECT_TRUE(said == "ok" ? found == 2 : found >= 1) << said;
      EXPECT_TRUE(!MustSucceed(row.fault) || said == "ok");
      EXPECT_TRUE(said.empty() || !LeavesFolder()) << said;
    }
  }
}

TEST(SavingFaults, ANewFileWhoseCloseFailsDoesNotReplaceTheOldOne) {
  int failures = 0;
  for (int number = 1, closes = number; number <= closes; number++) {
    SCOPED_TRACE(number);
    VLTDictionary dictionary;
    dictionary.setInteger("n", 1);
    EXPECT_EQ(0, dictionary.save(SavedPath().c_str(), kCFPropertyListXMLFormat_v1_0));
    dictionary.setInteger("n", 2);
    ArmCloseFault(number);
    const OSStatus err = dictionary.save(SavedPath().c_str(), kCFPropertyListXMLFormat_v1_0);
    closes = CallsSinceArmed();
    ArmCallFault(CallFault::kNone, 0);
    int found = 0;
    EXPECT_EQ(0, dictionary.load(SavedPath().c_str(), false));
    EXPECT_EQ(0, dictionary.getInteger("n", found));
    EXPECT_EQ(err == 0 ? 2 : 1, found);
    failures += err != 0;
  }
  EXPECT_LE(1, failures);
}

// A program that finds nothing because its read failed, and commits its default, must not overwrite
// the user's value. The next read finds that value, and a value that is set then is written.
TEST_F(PreferencesFaults,
       AReadThatFailsForAPassingReasonIsTriedAgainAndItsDefaultOverwritesNothing) {
  const OpenDescriptorCheck noLeaks;
  int failures = 0;
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
    for (const bool asksForAll : {false, true}) {
      for (int number = 1, calls = number; number <= calls; number++) {
        SCOPED_TRACE(testing::Message()
                     << "call " << number << ", errno " << error << ", all " << asksForAll);
        const std::string name = "com.veltrane.fault" + std::to_string(failures++);
        VLTPreferences domain(name.c_str(), kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
        const std::string file = Path(name + ".plist");
        std::ofstream(file) << "<plist><dict><key>old</key><integer>1</integer></dict></plist>";
        ASSERT_EQ(0, chmod(file.c_str(), 0600));
        ASSERT_TRUE(WaitUntilTimesTell(file));
        int value = 0;
        ArmCallFault(CallFault::kError, number, error);
        const CFArrayRef keys = asksForAll ? domain.getKeys() : nullptr;
        const bool isFound = asksForAll ? keys != nullptr : domain.getInteger("old", value) == 0;
        calls = CallsSinceArmed();
        ArmCallFault(CallFault::kNone, 0);
        if (keys != nullptr) CFRelease(keys);
        domain.setInteger("old", 5);
        domain.setInteger("new", 6);
        EXPECT_EQ(isFound ? 0 : paramErr, domain.commit());
        const std::string kept = isFound ? "<integer>5</integer>" : "<integer>1</integer>";
        EXPECT_NE(std::string::npos, ReadFile(file).find(kept));
        // A value that is set after the refused commit is written, whether it was read or not.
        EXPECT_EQ(0, asksForAll ? domain.getInteger("old", value) : 0);
        EXPECT_NE(std::string::npos, ReadFile(file).find("<integer>6</integer>"));
        domain.setInteger("old", 7);
        EXPECT_EQ(0, domain.commit());
        EXPECT_NE(std::string::npos, ReadFile(file).find("<integer>7</integer>"));
      }
    }
  }
}

TEST_F(PreferencesFaults, ALockThatIsNotGivenBackIsGivenUpAndNothingChanged) {
  const HostOpenFile lock(
      open(Path(".real.plist.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_TRUE(lock.IsOpen());
  ASSERT_TRUE(HostTryLockByte(lock.Get(), 0));
  Domain().setInteger("old", 3);
  Domain().setInteger("new", 2);
  const int before = LeaptSeconds();
  LeapClock(1);
  EXPECT_EQ(paramErr, Domain().commit());
  LeapClock(0);
  EXPECT_LE(30, LeaptSeconds() - before);
  EXPECT_EQ("old", StateOfFile());
  EXPECT_NE(std::string::npos, ProblemOfDomain().find("waiting for its lock: Connection timed out"))
      << ProblemOfDomain();
  HostUnlockByte(lock.Get(), 0);
  EXPECT_EQ(0, Domain().commit());
  EXPECT_EQ("new", StateOfFile());
}

TEST_F(PreferencesFaults, AFolderThatCannotBeMadeSaysWhy) {
  const std::string parent = std::filesystem::path(folder).parent_path();
  int failures = 0;
  for (int number = 1, calls = number; number <= calls; number++) {
    std::filesystem::remove_all(parent);
    Domain().setInteger("next", ++next);
    ArmCallFault(CallFault::kError, number, EROFS);
    const bool ok = Domain().commit() == 0;
    calls = CallsSinceArmed();
    ArmCallFault(CallFault::kNone, 0);
    if (!ok) {
      failures++;
      const std::string problem = ProblemOfDomain();
      EXPECT_NE(std::string::npos, problem.find("Read-only file system")) << number << problem;
      EXPECT_EQ(0, Domain().commit());
    }
    ExpectNextInFile();
  }
  EXPECT_LT(5, failures);
}

TEST_F(PreferencesFaults, AReadOfWhatIsKnownIsOneCall) {
  const int reads = 500;
  const ProgramResult result = RunRole("Reader", {std::to_string(reads)});
  EXPECT_EQ("begin\nend\n" + std::to_string(reads) + "\n", result.output);
}

}  // namespace
