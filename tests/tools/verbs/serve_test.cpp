#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"

// The verbs that stand in for others, and those that check the machine.

namespace {

// Runs `vltctl serve` until it has ended by itself; meanwhile each row is sent to it.
ProgramResult Serve(const std::string& port, const std::vector<std::string>& options,
                    const std::vector<VerbRun>& runs) {
  std::vector<std::string> words = {port};
  words.insert(words.end(), options.begin(), options.end());
  ProgramResult served;
  std::thread server([&] { served = RunVerb({"serve"}, words); });
  EXPECT_EQ(0, RunVerb({"wait"}, {port, "--timeout", "60"}).status);
  ExpectRuns({"send"}, runs);
  server.join();
  return served;
}

TEST(Serve, PrintsEachEventAsItWouldBeSentAndRepliesAsTold) {
  OpenDescriptorCheck noLeaks;
  const std::string port = UniquePortName();
  const struct {
    std::vector<std::string> options;
    std::vector<VerbRun> runs;
    std::string output;
    std::string errors = "";
  } rows[] = {
      {{"--reply", "size:long=640,480", "--reply=name:text=a b", "--count", "2"},
       {{{port, "test", "a'b ", "----:text=it's", "numb:comp=-5"},
         0,
         "size:long=640,480\nname:text=a b\n",
         ""},
        {{port, "test", "last", "--no-reply"}, 0, "", ""}},
       "test 0x61276220 '----:text=it'\\''s' numb:comp=-5\ntest last\n"},
      {{"--error", "-31999", "--reply", "size:long=1", "--count=1"},
       {{{port, "test", "fail"}, 5, "size:long=1\nerrn:long=-31999\n", "(-31999)"}},
       "test fail\n"},
      {{"--delay", "200ms", "--count=1"},
       {{{port, "test", "slow", "--timeout", "20ms"}, 4, "", "errAETimeout"}},
       "test slow\n"},
      {{"--exec", "echo \"what:text=$1\"", "--count=1"},
       {{{port, "test", "exec", "n   :long=1"}, 0, "what:text=test exec 'n   :long=1'\n", ""}},
       "test exec 'n   :long=1'\n"},
      {{"--exec", "exit 3", "--count=1"},
       {{{port, "test", "exec"}, 5, "errn:long=-50\n", "paramErr"}},
       "test exec\n",
       "exit status 3"},
      {{"--exec", "echo nonsense", "--count=1"},
       {{{port, "test", "exec"}, 5, "errn:long=-50\n", "paramErr"}},
       "test exec\n",
       "\"nonsense\""},
      // The quit event ends it and is replied to.
      {{}, {{{port, "aevt", "quit"}, 0, "", ""}}, "aevt quit\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.options));
    const ProgramResult served = Serve(port, row.options, row.runs);
    EXPECT_EQ(0, served.status) << served.errors;
    EXPECT_EQ(row.output, served.output);
    EXPECT_NE(std::string::npos, served.errors.find(row.errors)) << served.errors;
  }
  const ProgramResult json =
      Serve(port, {"--json", "--count", "1"}, {{{port, "test", "json", "numb:long=1"}, 0, "", ""}});
  EXPECT_TRUE(json.output.starts_with("{\"class\":\"test\",\"id\":\"json\",\"wantsReply\":true,"))
      << json.output;
  EXPECT_NE(std::string::npos, json.output.find("{\"numb\":{\"type\":\"long\",\"value\":1}}"))
      << json.output;
}

TEST(Serve, ReportsATakenNameWrongArgumentsAndAFullDisk) {
  OpenDescriptorCheck noLeaks;
  const std::string port = UniquePortName();
  Serve(port, {"--count", "1"}, {{{port, "test", "test"}, 0, "", ""}});
  std::thread owner([&] { RunVerb({"serve"}, {port}); });
  EXPECT_EQ(0, RunVerb({"wait"}, {port, "--timeout", "60"}).status);
  ExpectRuns({"serve"}, {{{port}, 5, "", "its owner is process "},
                         {{""}, 2, "", "1 to 127 bytes"},
                         {{"x", "--count", "0"}, 2, "", "\"0\" is not a number above 0"},
                         {{"x", "--reply", "size"}, 2, "", "it has no ="},
                         {{"x", "--error", "many"}, 2, "", "\"many\""},
                         {{"x", "--delay", "now"}, 2, "", "\"now\""}});
  EXPECT_EQ(0, RunVerb({"quit"}, {port}).status);
  owner.join();
  ProgramResult full;
  std::thread server([&] {
    full = RunProgram({"/bin/sh", "-c", "exec " VLTCTL_PROGRAM " serve " + port + " > /dev/full"},
                      60s);
  });
  EXPECT_EQ(0, RunVerb({"wait"}, {port, "--timeout", "60"}).status);
  ExpectRuns({"send"}, {{{port, "test", "test"}, 0, "", ""}});
  server.join();
  EXPECT_EQ(1, full.status);
  EXPECT_NE(std::string::npos, full.errors.find("No space left")) << full.errors;
}

TEST(Selftest, PassesInASessionOfItsOwnAndLeavesNothing) {
  OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const std::map<std::string, std::string> environment = {{"TMPDIR", folder.Path()}};
  const ProgramResult result = RunVerb({"selftest"}, {}, environment);
  EXPECT_EQ(0, result.status) << result.output;
  EXPECT_EQ(std::string::npos, result.output.find("FAIL")) << result.output;
  EXPECT_NE(std::string::npos, result.output.find("pass  launch\n")) << result.output;
  EXPECT_EQ(0u, EntriesOf(folder.Path()));
  ExpectRuns({}, {{{"ports"}, 0, "", "no ports are published"}});
  // A folder that cannot be made.
  const ProgramResult none = RunVerb({"selftest"}, {}, {{"TMPDIR", "/proc"}});
  EXPECT_EQ(1, none.status);
  EXPECT_NE(std::string::npos, none.errors.find("/proc/vltctl-")) << none.errors;
}

TEST(Doctor, NamesWhatIsWrongWithItsRemedy) {
  OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const ProgramResult fine = RunVerb({"doctor"}, {"--json"});
  EXPECT_EQ(1, fine.status);  // the daemon is not installed here
  EXPECT_NE(std::string::npos, fine.output.find("{\"check\":\"session\",\"result\":\"ok\","))
      << fine.output;
  EXPECT_NE(std::string::npos, fine.output.find("\"check\":\"kernel\",\"result\":\"ok\""))
      << fine.output;
  EXPECT_NE(std::string::npos, fine.output.find("{\"check\":\"daemon\",\"result\":\"failure\","))
      << fine.output;
  EXPECT_NE(std::string::npos, fine.output.find("XDG_DATA_DIRS")) << fine.output;
  // A file of any domain that is not used, by its path.
  folder.File("config/veltrane/preferences/com.test.broken.plist", "<plist");
  folder.File("config/veltrane/preferences/ByHost/com.test.good.plist",
              "<plist version=\"1.0\"><dict/></plist>");
  const ProgramResult files = RunVerb({"doctor"}, {}, {{"XDG_CONFIG_HOME", folder.Path("config")}});
  for (const char* const text :
       {"preferences   failure  ", "com.test.broken.plist", "1 file is in use"}) {
    EXPECT_NE(std::string::npos, files.output.find(text)) << text << files.output;
  }
  const std::string session = folder.Folder("veltrane");
  ASSERT_EQ(0, chmod(session.c_str(), 0755));
  const ProgramResult wrong =
      RunVerb({"doctor"}, {}, {{"XDG_RUNTIME_DIR", folder.Path()}, {"XDG_STATE_HOME", "/proc"}});
  EXPECT_EQ(1, wrong.status);
  for (const char* text :
       {"session       failure  session directory ", "0755", "logs          warning  /proc/"}) {
    EXPECT_NE(std::string::npos, wrong.output.find(text)) << text << wrong.output;
  }
}

}  // namespace
