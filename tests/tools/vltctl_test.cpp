#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <sstream>

#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "tests/tools/verbs/verb_runner.h"
#include "tools/verbs/verb.h"

// The program as people and scripts meet it: what it prints where, and its exit status.

namespace {

ProgramResult Vltctl(const std::vector<std::string>& words,
                     const std::map<std::string, std::string>& environment = {}) {
  return RunVerb({}, words, environment);
}

constexpr UInt32 kTest = FourCC('t', 'e', 's', 't');

// Replies to ('test', 'echo') with its parameters and to ('test', 'fail') with an error; stops at
// ('test', 'hang') and dies of ('test', 'die ').
OSStatus Answer(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply, void*) {
  if (eventClass != kTest) return errAEEventNotHandled;
  switch (eventID) {
    case FourCC('e', 'c', 'h', 'o'):
      return CopyParameters(event, reply);
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

TEST_ROLE(Service) { return ServeForEver(role, Answer); }

TEST(Vltctl, HelpGoesToStandardOutputWithStatusZeroOnLinesOfAtMostEightyColumns) {
  const auto expectHelp = [](const std::vector<std::string>& words, const std::string& verb) {
    const ProgramResult result = Vltctl(words);
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find("vltctl " + verb)) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Exit status")) << result.output;
    EXPECT_EQ("", result.errors);
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
  };
  for (const Verb& verb : AllVerbs()) {
    expectHelp({"--help"}, verb.name);
    expectHelp({"help", verb.name}, verb.name);
    expectHelp({verb.name, "--help"}, verb.name);
  }
}

TEST(Vltctl, SendPrintsTheParametersOfTheReplyAndReportsEachFailure) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess service("Service");
  const std::string port = service.PortName();
  const std::vector<VerbRun> runs = {
      {{port, "test", "echo", "----:text=Gr\xc3\xbc\xc3\x9f", "numb:comp=-5", "flag:bool=true"},
       0,
       "----:text=Gr\xc3\xbc\xc3\x9f\nnumb:comp=-5\nflag:bool=true\n",
       ""},
      {{port, "test", "fail"},
       5,
       "errn:long=-31999\n",
       port + ": the server replied with an error (-31999)"},
      {{port, "test", "fail", "--no-reply"}, 0, "", ""},
      {{"test.nobody", "test", "echo"},
       3,
       "",
       "test.nobody: no process owns this port name (1102, BOOTSTRAP_UNKNOWN_SERVICE)"},
      {{port, "test", "hang", "--timeout", "0.2"}, 4, "", "no reply in time (-1712, errAETimeout)"},
  };
  ExpectRuns({"send"}, runs);
  service.Signal(SIGCONT);
  ExpectRuns(
      {"send"},
      {{{port, "test", "die "}, 6, "", "ended before it replied (-609, connectionInvalid)"}});
}

TEST(Vltctl, SendPrintsOneJsonObjectWithOrWithoutAReply) {
  OpenDescriptorCheck noLeaks;
  ReadyProcess service("Service");
  const std::string port = service.PortName();
  const std::string attributes =
      ",\"attributes\":{\"repq\":{\"type\":\"bool\",\"value\":false},"
      "\"evcl\":{\"type\":\"type\",\"value\":\"aevt\"},"
      "\"evid\":{\"type\":\"type\",\"value\":\"ansr\"},";
  // `error`: number and name. `rest`: after the attributes that depend on the sender; "" if no
  // reply came.
  const std::tuple<std::vector<std::string>, int, std::string, std::string> rows[] = {
      {{port, "test", "echo", "a\"b\\:text=Gr\xc3\xbc\n", "numb:comp=-9223372036854775808",
        "list:long=1,-2", "weed:'ABCD'=00ff"},
       0,
       "0,\"name\":\"noErr\"",
       "\"parameters\":{\"a\\\"b\\\\\":{\"type\":\"TEXT\",\"text\":\"Gr\xc3\xbc\\n\"},"
       "\"numb\":{\"type\":\"comp\",\"value\":\"-9223372036854775808\"},"
       "\"list\":{\"type\":\"long\",\"values\":[1,-2]},"
       "\"weed\":{\"type\":\"ABCD\",\"hex\":\"00ff\"}}}\n"},
      {{port, "test", "fail"},
       5,
       "-31999,\"name\":null",
       "\"parameters\":{\"errn\":{\"type\":\"long\",\"value\":-31999}}}\n"},
      {{"test.nobody", "test", "echo"}, 3, "1102,\"name\":\"BOOTSTRAP_UNKNOWN_SERVICE\"", ""},
  };
  for (const auto& [given, status, error, rest] : rows) {
    SCOPED_TRACE(testing::PrintToString(given));
    std::vector<std::string> words = {"send", "--json"};
    words.insert(words.end(), given.begin(), given.end());
    const ProgramResult result = Vltctl(words);
    EXPECT_EQ(status, result.status);
    EXPECT_EQ(status == 0, result.errors.empty()) << result.errors;
    const std::string start =
        "{\"port\":\"" + given[0] + "\",\"error\":{\"number\":" + error + "}" +
        (rest.empty() ? ",\"attributes\":null,\"parameters\":null}\n" : attributes);
    EXPECT_TRUE(result.output.starts_with(start)) << result.output;
    EXPECT_TRUE(result.output.ends_with(rest)) << result.output;
  }
}

TEST(Vltctl, PortsShowsEveryByteOfANameAndItsOwner) {
  OpenDescriptorCheck noLeaks;
  {
    TestProcess plain("Service", "a \"n\\me\"", {});
    TestProcess strange("Service", "b\xff", {});
    ASSERT_TRUE(plain.WaitReady(20s) && strange.WaitReady(20s));
    const std::string pids[] = {std::to_string(plain.Pid()), std::to_string(strange.Pid())};
    const std::string owner = ",\"uid\":" + std::to_string(geteuid()) + ",\"ageSeconds\":";
    const struct {
      std::vector<std::string> words;
      std::string starts[2], end;
    } rows[] = {{{"ports"}, {"a\\x20\"n\\x5cme\"  " + pids[0] + "  ", "b\\xff"}, ""},
                {{"ports", "--json"},
                 {"{\"name\":\"a \\\"n\\\\me\\\"\",\"pid\":" + pids[0] + owner,
                  "{\"name\":\"b\xef\xbf\xbd\",\"nameHex\":\"62ff\",\"pid\":" + pids[1] + owner},
                 ",\"connections\":0,\"lanes\":0,\"hidden\":false}"}};
    for (const auto& row : rows) {
      const ProgramResult result = Vltctl(row.words);
      EXPECT_EQ(0, result.status);
      std::istringstream lines(result.output);
      std::string line;
      for (const std::string& start : row.starts) {
        EXPECT_TRUE(std::getline(lines, line)) << result.output;
        EXPECT_TRUE(line.starts_with(start) && line.ends_with(row.end)) << line;
      }
      EXPECT_FALSE(std::getline(lines, line)) << line;
    }
  }
  ExpectRuns({}, {{{"ports", "--all"}, 0, "", "no ports are published"}});
}

TEST(Vltctl, AnUnusableSessionDirectoryIsStatusEight) {
  const std::string folder = std::string(getenv("XDG_RUNTIME_DIR")) + "/open";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0700));
  const std::string session = folder + "/veltrane";
  ASSERT_EQ(0, mkdir(session.c_str(), 0755));
  ASSERT_EQ(0, chmod(session.c_str(), 0755));
  for (const std::vector<std::string>& words : {std::vector<std::string>{"ports"},
                                                {"quit"},
                                                {"send", "x", "abcd", "efgh"},
                                                {"session", "--json"}}) {
    const ProgramResult result = Vltctl(words, {{"XDG_RUNTIME_DIR", folder}});
    EXPECT_EQ(8, result.status);
    EXPECT_EQ(words[0] == "session", result.output.find("\"usable\":false,") != std::string::npos);
    EXPECT_NE(std::string::npos, result.errors.find(session)) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find("0755")) << result.errors;
  }
}

}  // namespace
