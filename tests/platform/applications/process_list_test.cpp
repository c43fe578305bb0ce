#include <CoreServices/MacErrors.h>
#include <CoreServices/Processes.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <utility>

#include "tests/support/few_descriptors.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "util/file_utils.h"

// The process list, with real programs that run out of application bundles.

namespace {

// The process list shows the applications of every running test, so each run of this program has
// signatures of its own: a letter, and a text of its process id.
std::string OwnSignature(char letter) {
  std::string text(1, letter);
  for (pid_t rest = getpid(); text.size() < 4; rest /= 60) {
    text += static_cast<char>('A' + rest % 60);
  }
  return text;
}

OSType CodeOf(const std::string& text) { return FourCC(text[0], text[1], text[2], text[3]); }

const OSType kSignature = CodeOf(OwnSignature('P'));
constexpr OSType kType = FourCC('A', 'P', 'P', 'L');
constexpr char kSleeper[] = "/bin/sleep";

bool AreSame(const ProcessSerialNumber& a, const ProcessSerialNumber& b) {
  return a.highLongOfPSN == b.highLongOfPSN && a.lowLongOfPSN == b.lowLongOfPSN;
}

bool StartProgram(ChildProcess& child, std::vector<std::string> arguments) {
  ChildOptions options;
  options.arguments = std::move(arguments);
  return child.Start(options);
}

// A bundle with a program that does nothing for a long time.
class SleeperBundle {
 public:
  explicit SleeperBundle(const char* name, const std::string& signature = OwnSignature('P'))
      : path(MakeTestBundle(scratch, name, {.signature = signature, .executable = "sleeper"})) {
    scratch.Program(std::string(name) + "/Contents/Linux/sleeper", kSleeper);
    scratch.Program(std::string(name) + "/Contents/Linux/helper", kSleeper);
  }

  bool Start(ChildProcess& child, const char* program = "sleeper") const {
    return StartProgram(child, {path + "/Contents/Linux/" + program, "600"});
  }

  const ScratchFolder scratch;
  const std::string path;
};

// Returns the serial numbers of the processes that a search finds, in order.
std::vector<ProcessSerialNumber> AllOf(OSType signature, OSType type) {
  std::vector<ProcessSerialNumber> found;
  ProcessSerialNumber psn;
  for (OSErr err = FindPSN(&psn, signature, type); err == noErr;
       err = FindNextPSN(&psn, signature, type)) {
    found.push_back(psn);
  }
  EXPECT_TRUE(psn.highLongOfPSN == 0 && psn.lowLongOfPSN == kNoProcess);
  return found;
}

OSErr Inform(const ProcessSerialNumber& psn, ProcessInfoRec* info) {
  info->processInfoLength = sizeof *info;
  return GetProcessInformation(&psn, info);
}

TEST(ProcessList, FindsApplicationsWhileTheyRun) {
  const OpenDescriptorCheck noLeaks;
  const SleeperBundle bundle("A name of more than 31 characters.app");
  ProcessSerialNumber psn = {7, 7};
  EXPECT_EQ(procNotFound, FindPSN(&psn, kSignature, kType));
  ChildProcess first, second, helper;
  ASSERT_TRUE(bundle.Start(first));
  ASSERT_TRUE(bundle.Start(second));
  ASSERT_TRUE(bundle.Start(helper, "helper"));
  ASSERT_TRUE(WaitUntil([] { return AllOf(kSignature, kType).size() == 2; }, 20s));

  const std::vector<ProcessSerialNumber> found = AllOf(kSignature, kType);
  ASSERT_EQ(2u, found.size());
  EXPECT_LT(found[0].lowLongOfPSN, found[1].lowLongOfPSN);
  ProcessSerialNumber ofPid = {};
  ASSERT_EQ(noErr, GetProcessForPID(first.Pid(), &ofPid));
  EXPECT_TRUE(AreSame(ofPid, found[0]) || AreSame(ofPid, found[1]));
  EXPECT_TRUE(AllOf(kSignature, FourCC('B', 'N', 'D', 'L')).empty());
  EXPECT_TRUE(AllOf(CodeOf(OwnSignature('p')), kType).empty());

  Str31 name;
  FSSpec spec = {};
  ProcessInfoRec info = {};
  info.processName = name;
  info.processAppSpec = &spec;
  ASSERT_EQ(noErr, Inform(ofPid, &info));
  EXPECT_EQ(kSignature, info.processSignature);
  EXPECT_EQ(kType, info.processType);
  EXPECT_TRUE(AreSame(ofPid, info.processNumber));
  EXPECT_EQ("A name of more than 31 characte",
            std::string(reinterpret_cast<char*>(name) + 1, name[0]));
  char path[4096];
  EXPECT_EQ(noErr, FSSpecToPath(&spec, path, sizeof path));
  EXPECT_EQ(bundle.path, path);
  EXPECT_GT(info.processLaunchDate, 0u);
  // Another program in the bundle is not the application.
  ASSERT_EQ(noErr, GetProcessForPID(helper.Pid(), &psn));
  ASSERT_EQ(noErr, Inform(psn, &info));
  EXPECT_EQ(FourCC('?', '?', '?', '?'), info.processSignature);
  EXPECT_EQ("helper", std::string(reinterpret_cast<char*>(name) + 1, name[0]));

  // A process whose program was removed still counts; a zombie does not.
  std::filesystem::remove(bundle.path + "/Contents/Linux/sleeper");
  EXPECT_EQ(2u, AllOf(kSignature, kType).size());
  first.Signal(SIGKILL);
  second.Signal(SIGKILL);
  EXPECT_TRUE(WaitUntil([] { return AllOf(kSignature, kType).empty(); }, 20s));
  EXPECT_EQ(procNotFound, Inform(ofPid, &info));
  EXPECT_EQ(procNotFound, FindPSN(&psn, kSignature, kType));
}

TEST(ProcessList, FollowsChangesOfABundle) {
  const SleeperBundle bundle("Changing.app", OwnSignature('1'));
  ChildProcess child;
  ASSERT_TRUE(bundle.Start(child));
  ASSERT_TRUE(WaitUntil([] { return !AllOf(CodeOf(OwnSignature('1')), kType).empty(); }, 20s));
  MakeTestBundle(bundle.scratch, "Changing.app",
                 {.signature = OwnSignature('2'), .packageType = "BNDL", .executable = "sleeper"});
  EXPECT_TRUE(AllOf(CodeOf(OwnSignature('1')), kType).empty());
  EXPECT_EQ(1u, AllOf(CodeOf(OwnSignature('2')), FourCC('B', 'N', 'D', 'L')).size());
}

TEST(ProcessList, APassContainsProcessesThatStartedSinceTheLastPass) {
  for (int round = 0; round < 10; ++round) {
    ProcessSerialNumber psn = {0, kNoProcess};
    ASSERT_EQ(noErr, GetNextProcess(&psn));
    ChildProcess child;
    ASSERT_TRUE(StartProgram(child, {"/bin/sleep", "100"}));
    const auto pid = static_cast<UInt32>(child.Pid());
    psn = {0, kNoProcess};
    while (GetNextProcess(&psn) == noErr && psn.lowLongOfPSN < pid) {
    }
    ASSERT_EQ(pid, psn.lowLongOfPSN);
  }
}

// Each pass goes by increasing pid and ends, although processes start and end. It contains this
// process and only processes of this user.
TEST(ProcessList, PassesEndWhileProcessesComeAndGo) {
  const OpenDescriptorCheck noLeaks;
  ProcessSerialNumber own;
  ASSERT_EQ(noErr, GetCurrentProcess(&own));
  for (int round = 0; round < 20; ++round) {
    ProcessSerialNumber psn = {0, kNoProcess};
    UInt32 last = 0;
    bool sawOwn = false;
    int steps = 0;
    OSErr err;
    while ((err = GetNextProcess(&psn)) == noErr) {
      ASSERT_GT(psn.lowLongOfPSN, last);
      last = psn.lowLongOfPSN;
      sawOwn = sawOwn || AreSame(psn, own);
      if (++steps % 3 == 0) {
        ChildProcess shortLived;
        ASSERT_TRUE(StartProgram(shortLived, {"/bin/true"}));
      }
      struct stat info;
      char path[40];
      std::snprintf(path, sizeof path, "/proc/%u", static_cast<unsigned>(last));
      if (stat(path, &info) == 0) {
        EXPECT_EQ(geteuid(), info.st_uid) << path;
      }
      ProcessInfoRec record = {};
      err = Inform(psn, &record);
      EXPECT_TRUE(err == noErr || err == procNotFound) << err;
      ASSERT_LT(steps, 100'000);
    }
    EXPECT_EQ(procNotFound, err);
    EXPECT_TRUE(psn.highLongOfPSN == 0 && psn.lowLongOfPSN == kNoProcess);
    EXPECT_TRUE(sawOwn);
  }
  ProcessInfoRec tooShort = {};
  EXPECT_EQ(paramErr, GetProcessInformation(&own, &tooShort));
}

TEST(ProcessList, AListThatCannotBeReadIsNotAnEmptyOne) {
  ProcessSerialNumber own, start, underWay = {1, 1};
  ASSERT_EQ(noErr, GetCurrentProcess(&own));
  {
    const FewDescriptors none(0);
    EXPECT_EQ(tmfoErr, FindPSN(&start, kSignature, kType));
    EXPECT_EQ(tmfoErr, GetNextProcess(&underWay));
  }
  EXPECT_TRUE(start.highLongOfPSN == 0 && start.lowLongOfPSN == kNoProcess);
  EXPECT_EQ(1u, underWay.lowLongOfPSN);
  EXPECT_EQ(procNotFound, FindPSN(&start, kSignature, kType));
}

}  // namespace
