#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "aeport/port_listener.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// The program as people and scripts meet it: what it prints where, and its exit status.

namespace {

ProgramResult Vltctl(std::vector<std::string> words,
                     std::map<std::string, std::string> environment = {}) {
  words.insert(words.begin(), VLTCTL_PROGRAM);
  return RunProgram(words, 20s, environment);
}

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');

// Answers ('test', 'echo') with what was asked, ('test', 'fail') with an error, ('test', 'hang')
// never, dies of ('test', 'die '), and leaves on quit.
OSStatus Answer(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply, void*) {
  if (eventClass == kCoreEventClass && eventID == kAEQuitApplication) {
    CFRunLoopStop(CFRunLoopGetCurrent());
    return 0;
  }
  if (eventClass != kTest) return errAEEventNotHandled;
  switch (eventID) {
    case FourCC('e', 'c', 'h', 'o'): {
      SInt32 count = 0;
      AECountItems(event, &count);
      for (SInt32 i = 1; i <= count; ++i) {
        AEKeyword key = 0;
        AEDesc desc = {typeNull, nullptr};
        AEGetNthDesc(event, i, typeWildCard, &key, &desc);
        AEPutParamDesc(reply, key, &desc);
        AEDisposeDesc(&desc);
      }
      return 0;
    }
    case FourCC('h', 'a', 'n', 'g'):
      raise(SIGSTOP);
      return 0;
    case FourCC('d', 'i', 'e', ' '):
      raise(SIGKILL);
      return 0;
    default:
      return -31999;
  }
}

TEST_ROLE(Service) {
  VLTPortAEMachPortListener listener;
  if (listener.ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), Answer, nullptr) != 0) {
    return kRoleFailed;
  }
  role.SignalReady();
  CFRunLoopRun();
  return kRoleDone;
}

TEST(Vltctl, UsageErrorsAreStatusTwoAndSaidOnStandardError) {
  const struct {
    std::vector<std::string> words;
    const char* said;
  } rows[] = {
      {{}, "vltctl ports"},
      {{"prots"}, "did you mean ports?"},
      {{"help", "sned"}, "did you mean send?"},
      {{"ports", "extra"}, "too many words"},
      {{"ports", "--al"}, "did you mean --all?"},
      {{"send", "x", "abcd"}, "too few words"},
      {{"send", "x", "abcd", "abc"}, "no event id"},
      {{"send", "x", "abcd", "efgh", "keyy:long=x"}, "no long: x"},
      {{"send", "x", "abcd", "efgh", "keyy:long=1", "keyy:long=1"}, "given twice"},
      {{"send", "x", "abcd", "efgh", "--timeout", "1s"}, "no seconds: 1s"},
      {{"send", "", "abcd", "efgh"}, "1 to 127 bytes"},
      {{"quit", std::string(128, 'n')}, "1 to 127 bytes"},
      {{"quit", "--timeout=0"}, "no seconds: 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    const ProgramResult result = Vltctl(row.words);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("", result.output);
    EXPECT_NE(std::string::npos, result.errors.find(row.said)) << result.errors;
  }
}

TEST(Vltctl, HelpIsData) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--help"}, {"help", "quit"}, {"quit", "--help"}}) {
    const ProgramResult result = Vltctl(words);
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("vltctl quit [PORT]")) << result.output;
    EXPECT_EQ("", result.errors);
  }
}

TEST(Vltctl, SendPrintsTheReply) {
  OpenDescriptorCheck noLeaks;
  TestProcess service("Service");
  ASSERT_TRUE(service.WaitReady(20s));
  const std::string port = service.PortName();
  const struct {
    std::vector<std::string> words;
    int status;
    const char* output;
    std::string errors;
  } rows[] = {
      {{port, "test", "echo", "----:text=Gr\xc3\xbc\xc3\x9f", "numb:comp=-5", "flag:bool=true"},
       0,
       "----:text=Gr\xc3\xbc\xc3\x9f\nnumb:comp=-5\nflag:bool=true\n",
       ""},
      {{port, "test", "echo"}, 0, "", ""},
      {{port, "test", "fail"}, 5, "errn:long=-31999\n", port + ": error -31999"},
      {{port, "test", "fail", "--no-reply"}, 0, "", ""},
      {{"test.nobody", "test", "echo"}, 3, "", "error 1102 (BOOTSTRAP_UNKNOWN_SERVICE)"},
      {{port, "test", "hang", "--timeout", "0.2"}, 4, "", "error -1712 (errAETimeout)"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    std::vector<std::string> words = {"send"};
    words.insert(words.end(), row.words.begin(), row.words.end());
    const ProgramResult result = Vltctl(words);
    EXPECT_EQ(row.status, result.status);
    EXPECT_EQ(row.output, result.output);
    EXPECT_EQ(row.errors.empty(), result.errors.empty()) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(row.errors)) << result.errors;
  }
  service.Signal(SIGCONT);
  const ProgramResult died = Vltctl({"send", port, "test", "die "});
  EXPECT_EQ(6, died.status);
  EXPECT_NE(std::string::npos, died.errors.find("-609 (connectionInvalid)")) << died.errors;
}

TEST(Vltctl, PortsListsOwners) {
  OpenDescriptorCheck noLeaks;
  TestProcess service("Service", "with blank\x01", {});
  ASSERT_TRUE(service.WaitReady(20s));
  const ProgramResult result = Vltctl({"ports"});
  EXPECT_EQ(0, result.status);
  const std::string start = "with\\x20blank\\x01  " + std::to_string(service.Pid()) + "  ";
  EXPECT_TRUE(result.output.starts_with(start)) << result.output;
  service.KillAndWait(20s);
  const ProgramResult none = Vltctl({"ports", "--all"});
  EXPECT_EQ(0, none.status);
  EXPECT_EQ("", none.output);
}

TEST(Vltctl, QuitWaitsUntilThePortIsGone) {
  OpenDescriptorCheck noLeaks;
  TestProcess service("Service");
  ASSERT_TRUE(service.WaitReady(20s));
  EXPECT_EQ(0, Vltctl({"quit", service.PortName()}).status);
  EXPECT_TRUE(WaitForNoPort(service.PortName(), 0s));
  EXPECT_EQ(kRoleDone, service.Wait(20s));

  const ProgramResult again = Vltctl({"quit", service.PortName()});
  EXPECT_EQ(0, again.status);
  EXPECT_NE(std::string::npos, again.errors.find("is not running"));
  EXPECT_EQ(0, Vltctl({"quit"}).status);  // no session daemon either
}

TEST(Vltctl, AStoppedServiceDoesNotQuitInTime) {
  OpenDescriptorCheck noLeaks;
  TestProcess service("Service");
  ASSERT_TRUE(service.WaitReady(20s));
  service.Signal(SIGSTOP);
  const ProgramResult result = Vltctl({"quit", service.PortName(), "--timeout", "0.2"});
  EXPECT_EQ(4, result.status) << result.errors;
}

TEST(Vltctl, AnUnusableSessionDirectoryIsStatusEight) {
  const std::string folder = std::string(getenv("XDG_RUNTIME_DIR")) + "/open";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0700));
  const std::string session = folder + "/veltrane";
  ASSERT_EQ(0, mkdir(session.c_str(), 0755));
  ASSERT_EQ(0, chmod(session.c_str(), 0755));
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"ports"}, {"quit"}, {"send", "x", "abcd", "efgh"}}) {
    const ProgramResult result = Vltctl(words, {{"XDG_RUNTIME_DIR", folder}});
    EXPECT_EQ(8, result.status);
    EXPECT_NE(std::string::npos, result.errors.find(session)) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find("0755")) << result.errors;
  }
}

}  // namespace
