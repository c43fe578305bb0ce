#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/host/applications/launch_lock.h"
#include "tests/integration/launch_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/tools/verbs/verb_runner.h"

// `vltctl launch` as people and scripts meet it.

namespace {

TEST(VltctlLaunch, EachOutcomeHasItsStatusTextAndJson) {
  LaunchedApplications apps;
  const std::string port = UniquePortName();
  const std::string path =
      apps.AddBundle("It.app", {"com.test.it", "It  ", "APPL", "program", "2.1"},
                     apps.NoteStep("it") + "claim " + port + "\nloop\n");
  apps.AddBundle("Loop.app", {"com.test.loop", "Loop", "APPL", "program", "1"},
                 apps.NoteStep("loop") + "loop\n");
  apps.AddBundle("Ends.app", {"com.test.ends", "Ends", "APPL", "program", "1"}, "exit 1\n");
  MakeTestBundle(apps.Folder(), "data/veltrane/Applications/Empty.app",
                 {"com.test.empty", "Mpty", "APPL", "program", "1"});
  const std::string folder = apps.Folder().Path("data/veltrane/Applications");
  const struct {
    std::vector<std::string> words;
    int status;
    const char *by, *outcome, *said;
    bool hasPort = false;
  } rows[] = {
      {{path}, 0, "path", "started", "", true},
      {{"com.test.it"}, 0, "identifier", "alreadyRunning", "", true},
      {{"It  ", "--port", port}, 0, "signature", "alreadyRunning", "", true},
      {{"'It  '", "--port", "test.nobody", "--wait", "0.1"}, 4, "signature", "noPort", "in time"},
      {{"Ends", "--port", "test.nobody"}, 6, "signature", "ended", "ended with exit status 1"},
      // The port of its event loop does not count, and without --wait no port is expected.
      {{"com.test.loop"}, 0, "identifier", "started", ""},
      {{"com.test.loop", "--wait", "0.1"}, 4, "identifier", "noPort", "in time"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    std::vector<std::string> words = row.words;
    words.push_back("--json");
    const ProgramResult result = RunVerb({"launch"}, words);
    EXPECT_EQ(row.status, result.status);
    for (const std::string& member : {std::string("\"by\":\"") + row.by + "\",",
                                      std::string("\"outcome\":\"") + row.outcome + "\","}) {
      EXPECT_NE(std::string::npos, result.output.find(member)) << result.output;
    }
    EXPECT_EQ(row.status == 0, result.errors.empty()) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find(row.said)) << result.errors;
    EXPECT_EQ(row.hasPort, result.output.find("\"port\":null") == std::string::npos)
        << result.output;
  }
  // All members, of one that runs and of one that does not.
  const std::string running = "{\"application\":\"" + path +
                              "\",\"by\":\"path\",\"folder\":null,\"program\":\"" + path +
                              "/Contents/Linux/program\",\"outcome\":\"alreadyRunning\",\"pid\":" +
                              std::to_string(apps.Starts("it").at(0)) + ",\"port\":\"" + port +
                              "\",\"seconds\":null,\"error\":null,\"end\":null,\"log\":null}\n";
  const std::string failed =
      "{\"application\":\"" + folder + "/Empty.app\",\"by\":\"identifier\",\"folder\":\"" + folder +
      "\",\"program\":null,\"outcome\":\"failed\",\"pid\":null,\"port\":null,\"seconds\":null,"
      "\"error\":{\"number\":-10827,\"name\":\"kLSNoExecutableErr\"},\"end\":null,\"log\":null}\n";
  ExpectRuns({"launch"}, {{{path, "--json"}, 0, running, ""},
                          {{"com.test.empty", "--json"}, 1, failed, "kLSNoExecutableErr"}});
  EXPECT_TRUE(QuitAndWait(port));
}

TEST(VltctlLaunch, WaitsTenSecondsForAPortThatWasNamed) {
  LaunchedApplications apps;
  const std::string first = UniquePortName(), second = UniquePortName();
  const std::string path = apps.AddBundle(
      "Late.app", {"com.test.late", "Late", "APPL", "program", "1"},
      "claim " + first + "\n" + apps.WaitStep("second") + "claim " + second + "\nloop\n");
  std::thread letGoOn([&] {
    EXPECT_TRUE(WaitForPort(first, 20s));
    EXPECT_TRUE(apps.LetGoOn("second"));
  });
  const ProgramResult result = RunVerb({"launch"}, {path, "--port", second, "--json"});
  letGoOn.join();
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_NE(std::string::npos, result.output.find("\"port\":\"" + second)) << result.output;
  EXPECT_TRUE(QuitAndWait(second));
}

TEST(VltctlLaunch, SaysThatAnotherProcessOpensTheApplication) {
  LaunchedApplications apps;
  const std::string path =
      apps.AddBundle("It.app", {"com.test.it", "It  ", "APPL", "program", "2.1"}, "exit 0\n");
  HostLaunchLock opener(path + "/Contents/Linux/program");
  ASSERT_TRUE(opener.Try());
  const ProgramResult result = RunVerb({"launch"}, {path, "--json"});
  EXPECT_EQ(0, result.status) << result.errors;
  EXPECT_NE(std::string::npos, result.output.find("\"outcome\":\"underWay\"")) << result.output;
}

// What the launcher would do differently from this verb: its preferences, also if they are wrong.
TEST(VltctlLaunch, ExplainShowsTheLaunchPreferencesOfADaemon) {
  OpenDescriptorCheck noLeaks;
  LaunchedApplications apps;
  const std::string path = apps.AddBundle(
      "Daemon.app", {"com.veltrane.sessionmonitor.1.1", "SmoN", "APPL", "program", "1"},
      "exit 0\n");
  const std::vector<std::string> write = {"prefs", "write", "--any-user", "com.veltrane.common.1.1",
                                          "sessionMonitor"};
  const std::tuple<const char*, std::vector<std::string>, std::vector<std::string>> rows[] = {
      {"{\"launchIfNotFound\":false}",
       {"com.veltrane.common.1.1.plist\n", "launch       if not found off",
        "launchIfNotFound is off"},
       {"\"launch\":{\"preferences\":\"/", "\"launchIfNotFound\":false"}},
      {"{\"launchRetries\":\"many\"}",
       {"problem      /", ".plist: sessionMonitor.launchRetries has to be a number"},
       {"\"problem\":\"/"}},
  };
  for (const auto& [value, lines, members] : rows) {
    std::vector<std::string> words = write;
    words.push_back(value);
    ExpectRuns({}, {{words, 0, "", ""}});
    for (const std::string& word : {path, std::string("SmoN")}) {
      const std::string text = RunVerb({"launch"}, {word, "--explain"}).output;
      for (const std::string& line : lines) EXPECT_NE(std::string::npos, text.find(line)) << text;
      const std::string json = RunVerb({"launch"}, {word, "--explain", "--json"}).output;
      for (const std::string& each : members) EXPECT_NE(std::string::npos, json.find(each)) << json;
    }
  }
  ExpectRuns({}, {{{"prefs", "delete", write[2], write[3], write[4]}, 0, "", ""}});
}

TEST(VltctlLaunch, ExplainShowsTheResultOfEachWay) {
  LaunchedApplications apps;
  apps.AddBundle("It.app", {"com.test.it", "It  ", "APPL", "program", "2.1"}, "exit 0\n");
  const std::tuple<const char*, int, std::vector<const char*>> rows[] = {
      {"It  ",
       6,
       {"path        not found  it has no slash", "identifier  not found  none of 1",
        "signature   found      version 2.1 in "}},
      {"/nothing/here",
       3,
       {"path        not found  no such file or folder (-43, fnfErr)",
        "identifier  not found  an identifier has no slash",
        "signature   not found  it is not four characters"}},
  };
  for (const auto& [word, status, lines] : rows) {
    SCOPED_TRACE(word);
    const ProgramResult result = RunVerb({"launch"}, {word, "--explain"});
    EXPECT_EQ(status, result.status) << result.errors;
    for (const char* line : lines) {
      EXPECT_NE(std::string::npos, result.output.find(line)) << line << " in\n" << result.output;
    }
  }
}

}  // namespace
