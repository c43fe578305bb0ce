#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
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
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Committing preferences, and saving dictionaries, while every single system call fails, or is the
// process's last one. The calls are made to fail by strace; where tracing is not permitted, by the
// layer of tests/support/interposed_calls.h inside the process.

namespace {

constexpr char kDomain[] = "com.veltrane.faults";
constexpr char kFileName[] = "com.veltrane.faults.plist";
constexpr char kStrace[] = "/usr/bin/strace";

VLTPreferences& Domain() {
  static VLTPreferences preferences(kDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
  return preferences;
}

std::string SavedPath() { return std::string(std::getenv("HOME")) + "/saved.plist"; }

// Changes what its first argument says, with a fault of the layer in this process: its kind, its
// number and its errno. Says how that went and how many calls it took.
TEST_ROLE(Changer) {
  const std::string what = role.Argument(0);
  const auto fault = static_cast<CallFault>(role.NumberArgument(1));
  const int number = role.NumberArgument(2);
  VLTDictionary dictionary;
  dictionary.setInteger("n", 2);
  Domain().setInteger("old", 3);
  Domain().setInteger("new", 2);
  const rlimit limit = {100, 100};  // bytes that a file may have
  signal(SIGXFSZ, SIG_IGN);
  if (what == "limited" && setrlimit(RLIMIT_FSIZE, &limit) != 0) return kRoleFailed;
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

// Reads a value until the file's times are old enough to be trusted, then so many times between two
// lines.
TEST_ROLE(Reader) {
  const auto end = std::chrono::steady_clock::now() + 100ms;
  int value = 0;
  while (std::chrono::steady_clock::now() < end) Domain().getInteger("old", value);
  ArmCallFault(CallFault::kNone, 0);
  role.Tell("begin");
  for (int i = 0; i < role.NumberArgument(0); i++) Domain().getInteger("old", value);
  role.Tell("end");
  role.Tell(std::to_string(CallsSinceArmed() - 2));
  return value == 1 ? kRoleDone : kRoleFailed;
}

// Why the last commit failed.
std::string ProblemOfDomain() {
  const StackCFString domain(kDomain);
  return HostPreferencesProblem(static_cast<CFStringRef>(static_cast<CFTypeRef>(domain)),
                                kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
}

// This program in a role that talks to its standard output, behind `launcher`.
ProgramResult RunRole(std::vector<std::string> launcher, const std::string& role,
                      const std::vector<std::string>& arguments = {}) {
  launcher.insert(launcher.end(), {std::filesystem::read_symlink("/proc/self/exe"),
                                   "--role=" + role, "--port-name=", "--pipes=1,0"});
  launcher.insert(launcher.end(), arguments.begin(), arguments.end());
  // Leaks cannot be looked for in a process that is traced.
  return RunProgram(launcher, 60s, {{"ASAN_OPTIONS", "detect_leaks=0"}});
}

ProgramResult Change(const std::string& what, CallFault fault = CallFault::kNone, int number = 0,
                     int error = 0, const std::vector<std::string>& launcher = {}) {
  return RunRole(launcher, "Changer",
                 {what, std::to_string(static_cast<int>(fault)), std::to_string(number),
                  std::to_string(error)});
}

// The first line, and the number in the second one.
std::string Said(const ProgramResult& result) {
  return result.output.substr(0, result.output.find('\n'));
}
int CallsOf(const ProgramResult& result) {
  return std::atoi(result.output.substr(result.output.find('\n') + 1).c_str());
}

bool MayTrace() {
  static const bool may = [] {
    const bool works = access(kStrace, X_OK) == 0 &&
                       RunProgram({kStrace, "-qq", "-o", "/dev/null", "/bin/true"}).status == 0;
    if (!works) printf("tracing is not permitted: calls fail by the layer inside the process\n");
    return works;
  }();
  return may;
}

class PreferencesFaults : public testing::Test {
 protected:
  PreferencesFaults() {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    WriteOld();
  }

  std::string Path(const std::string& name) const { return folder + "/" + name; }

  // A file with a mode of its own, behind a link; nobody has locked it yet.
  void WriteOld() {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    std::filesystem::remove(Path(".real.plist.lock"), ignored);
    std::filesystem::create_symlink("real.plist", path, ignored);
    std::ofstream(real) << "<plist><dict><key>old</key><integer>1</integer>"
                           "<key>kept</key><string>&lt;x&gt;</string></dict></plist>";
    ASSERT_EQ(0, chmod(real.c_str(), 0640));
  }

  // What the file says: "old", "new", or what is wrong with it.
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

  // The last number that was committed as "next".
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
    // The next one works, and clears what a dead one has left.
    Domain().setInteger("next", ++next);
    EXPECT_EQ(0, Domain().commit());
    ExpectNextInFile();
    EXPECT_FALSE(std::filesystem::exists(Path(".real.plist.new")));
    WriteOld();
  }

  // strace for the calls that concern the folder or one of its files.
  std::vector<std::string> Strace(const std::string& fault = "") const {
    std::vector<std::string> words = {kStrace, "-qq", "-f", "-o", log};
    for (const char* name : {"", kFileName, "real.plist", ".real.plist.lock", ".real.plist.new"}) {
      words.insert(words.end(), {"-P", name[0] != 0 ? Path(name) : folder});
    }
    if (!fault.empty()) words.insert(words.end(), {"-e", "inject=" + fault});
    return words;
  }

  // The calls of the log and how often each was made.
  std::map<std::string, int> CallsOfLog() const {
    std::map<std::string, int> calls;
    std::ifstream file(log);
    for (std::string line; std::getline(file, line);) {
      std::istringstream words(line);
      std::string pid, call;
      words >> pid >> call;
      const size_t bracket = call.find('(');
      if (bracket != std::string::npos) calls[call.substr(0, bracket)]++;
    }
    return calls;
  }

  const std::string folder = std::string(std::getenv("XDG_CONFIG_HOME")) + "/veltrane/preferences";
  const std::string path = Path(kFileName);
  const std::string real = Path("real.plist");
  const std::string log = std::string(std::getenv("HOME")) + "/strace.log";
  int next = 0;
};

constexpr struct {
  CallFault fault;
  int error;
} kFaults[] = {{CallFault::kKill, 0},      {CallFault::kError, ENOSPC}, {CallFault::kError, EIO},
               {CallFault::kError, EROFS}, {CallFault::kError, EINTR},  {CallFault::kShortWrite, 0},
               {CallFault::kInterrupt, 0}};

// Neither is a failure.
bool MustSucceed(CallFault fault) {
  return fault == CallFault::kShortWrite || fault == CallFault::kInterrupt;
}

TEST_F(PreferencesFaults, EveryCallOfACommitFailsOnceOrIsTheLast) {
  OpenDescriptorCheck noLeaks;
  if (!MayTrace()) return;  // the next test does the same without
  ProgramResult result = Change("commit", CallFault::kNone, 0, 0, Strace());
  ASSERT_EQ("ok", Said(result)) << result.errors;
  ASSERT_EQ("new", StateOfFile());
  const std::map<std::string, int> calls = CallsOfLog();
  for (const char* call : {"openat", "fcntl", "read", "write", "fsync", "fchmod"}) {
    EXPECT_TRUE(calls.contains(call)) << call;
  }
  WriteOld();
  int killed = 0, failed = 0;
  for (const auto& [call, count] : calls) {
    for (int number = 1; number <= count; number++) {
      for (const char* fault : {"signal=KILL", "error=ENOSPC", "error=EIO", "error=EROFS"}) {
        const std::string injected = call + ":" + fault + ":when=" + std::to_string(number);
        SCOPED_TRACE(injected);
        result = Change("commit", CallFault::kNone, 0, 0, Strace(injected));
        killed += Said(result).empty();
        failed += Said(result) == "failed";
        ExpectWhole(result);
        if (HasFailure()) return;
      }
    }
  }
  EXPECT_GE(killed, 10);
  EXPECT_GE(failed, 30);
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

// The clock that the kernel takes the times of files from.
timespec TimeOfFiles() {
  timespec now;
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now;
}
bool operator>(const timespec& a, const timespec& b) {
  return std::pair(a.tv_sec, a.tv_nsec) > std::pair(b.tv_sec, b.tv_nsec);
}

// Whether a save has left its temporary folder.
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

TEST_F(PreferencesFaults, AReadThatFailsForAPassingReasonIsTriedAgain) {
  const OpenDescriptorCheck noLeaks;
  for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
    for (int number = 1, calls = number; number <= calls; number++) {
      SCOPED_TRACE(testing::Message() << "call " << number << ", errno " << error);
      WriteOld();
      struct stat info;
      ASSERT_EQ(0, stat(real.c_str(), &info));
      // From now on the file's times tell it from every later state.
      ASSERT_TRUE(WaitUntil([&] { return TimeOfFiles() > info.st_ctim; }, 10s));
      int value = 0;
      ArmCallFault(CallFault::kError, number, error);
      Domain().getInteger("old", value);
      calls = CallsSinceArmed();
      ArmCallFault(CallFault::kNone, 0);
      EXPECT_EQ(0, Domain().getInteger("old", value));
      EXPECT_EQ(1, value);
    }
  }
}

TEST_F(PreferencesFaults, AFileThatMayNotGrowLeavesTheOldOne) {
  OpenDescriptorCheck noLeaks;
  const ProgramResult result = Change("limited");
  EXPECT_EQ("failed", Said(result));
  EXPECT_EQ("old", StateOfFile());
  ExpectWhole(result);
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
  std::vector<std::string> launcher;
  if (MayTrace()) launcher = {kStrace, "-qq", "-f", "-o", log};
  const ProgramResult result = RunRole(launcher, "Reader", {std::to_string(reads)});
  EXPECT_EQ("begin\nend\n" + std::to_string(reads) + "\n", result.output);
  if (!MayTrace()) return;
  std::ifstream file(log);
  std::map<std::string, int> calls;
  bool isBetween = false;
  for (std::string line; std::getline(file, line);) {
    if (line.find("\"end\\n\"") != std::string::npos) isBetween = false;
    if (isBetween) {
      // Behind the process id, which is followed by one or more blanks.
      const std::string call = line.substr(0, line.find('('));
      calls[call.substr(call.rfind(' ') + 1)]++;
    }
    if (line.find("\"begin\\n\"") != std::string::npos) isBetween = true;
  }
  std::erase_if(calls,
                [](const auto& call) { return call.first.starts_with("rt_sig"); });  // Tell's
  if (geteuid() == 0) {
    EXPECT_EQ(reads, calls["geteuid"]);  // a privileged process may become another user
    calls.erase("geteuid");
  }
#ifdef __SANITIZE_ADDRESS__
  calls.erase("mmap");  // the sanitizer's own
#endif
  ASSERT_EQ(1u, calls.size()) << testing::PrintToString(calls);
  EXPECT_NE(std::string::npos, calls.begin()->first.find("stat"));
  EXPECT_EQ(reads, calls.begin()->second);
}

}  // namespace
