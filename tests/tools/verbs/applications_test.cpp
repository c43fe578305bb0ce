#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <CoreFoundation/CoreFoundation.h>

#include "aeport/port_listener.h"
#include "tests/aeport/serving.h"
#include "tests/integration/launch_support.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_role.h"
#include "tests/tools/verbs/verb_runner.h"

// The verbs about applications: apps, status, stop, restart, wait, describe, and send by name.

namespace {

// One run: its exit status, and texts that are in its output or its messages.
struct AppRun {
  std::vector<std::string> words;
  int status;
  std::vector<std::string> texts;
};

void ExpectTexts(const std::vector<AppRun>& runs) {
  for (const AppRun& run : runs) {
    SCOPED_TRACE(testing::PrintToString(run.words));
    const ProgramResult result = RunVerb({}, run.words);
    const std::string all = result.output + result.errors;
    EXPECT_EQ(run.status, result.status) << all;
    for (const std::string& text : run.texts) {
      EXPECT_NE(std::string::npos, all.find(text)) << text << " in\n" << all;
    }
  }
}

class Applications : public testing::Test {
 protected:
  // Adds NAME.app with a program, under the signature that its name begins with.
  std::string Add(const std::string& name, const std::string& identifier, const std::string& plan,
                  const std::string& type = "APPL", const std::string& version = "1") {
    return apps.AddBundle(
        name + ".app", {identifier, (name + "App").substr(0, 4), type, "program", version}, plan);
  }

  LaunchedApplications apps;
  const std::string port = UniquePortName();
};

void WriteDescription(const std::string& bundle, const std::string& events) {
  std::ofstream(bundle + "/Contents/Info.plist")
      << "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.test.it</string>"
         "<key>CFBundleExecutable</key><string>program</string>"
      << events << "</dict></plist>";
}

TEST_F(Applications, AreListedWithWhatIsWrongWithBrokenOnes) {
  const ScratchFolder& folder = apps.Folder();
  const std::string good = Add("A", "com.test.a", "loop\n", "APPL", "2");
  const std::string place = "data/veltrane/Applications/";
  MakeTestBundle(folder, place + "B.app", {"com.test.b", "BApp", "APPL", "program", "1"});
  folder.Folder(place + "C.app");
  folder.File(place + "D.app/Contents/Info.plist", "<plist version=\"1.0\"><dict><key>x</dict>");
  const std::string closed = Add("E", "com.test.e", "loop\n");
  ASSERT_EQ(0, chmod((closed + "/Contents/Linux/program").c_str(), 0600));
  Add("F", "com.test.f", "loop\n", "BNDL");
  folder.File(place + "G.app/Contents/Info.plist", "<plist version=\"1.0\"><array/></plist>");
  ExpectTexts(
      {{{"apps"},
        0,
        {"com.test.a  AApp  -       " + good + "\n", "com.test.b  BApp  broken  ",
         "B.app: Contents/Linux/program: No such file", "C.app: Contents/Info.plist: No such file",
         "D.app: Contents/Info.plist is damaged: ",
         "E.app: Contents/Linux/program is not executable",
         "F.app: CFBundlePackageType is not APPL", "G.app: Contents/Info.plist has no dictionary"}},
       {{"apps", "--json"},
        0,
        {"{\"identifier\":\"com.test.a\",\"signature\":\"AApp\",\"version\":\"2\",\"bundle\":\"" +
             good + "\",\"folder\":\"" + folder.Path("data/veltrane/Applications") +
             "\",\"program\":\"" + good +
             "/Contents/Linux/program\",\"pid\":null,\"problem\":null}",
         "\"problem\":\"Contents/Linux/program is not executable for this user\""}},
       // The launcher's search names them, too.
       {{"launch", "com.test.x"}, 3, {"did you mean com.test.", "broken: ", "D.app"}},
       {{"launch", "com.test.e"}, 1, {"is not executable for this user", "kLSNoExecutableErr"}},
       {{"launch", "com.test.e", "--explain", "--json"},
        1,
        {"\"broken\":[\"", "\"problem\":\"Contents/Linux/program is not executable"}}});
}

TEST_F(Applications, StatusTellsWhatRunsAndHowTheOthersEnded) {
  const std::string runs =
      Add("Runs", "com.test.runs", apps.NoteStep("it") + "claim " + port + "\nloop\n");
  const std::string ends =
      Add("Ends", "com.test.ends.1", "say first words\ncomplain last words\nexit 3\n");
  ExpectTexts(
      {{{"status", "com.test.runs"}, 3, {"com.test.runs is not running", "program      " + runs}},
       {{"launch", "com.test.runs"}, 0, {}},
       {{"launch", "com.test.ends.1"},
        6,
        {"ended with exit status 3 ", "it said: first words", "it said: last words",
         "com.test.ends.1.log"}}});
  const std::string pid = std::to_string(apps.Starts("it").at(0));
  const std::vector<std::string> running = {"is running\nprocess      " + pid + "\n",
                                            "identifier   com.test.runs\n",
                                            "ports        " + port,
                                            "since        2",
                                            "memory       ",
                                            "descriptors  "};
  const std::vector<std::string> ended = {
      "com.test.ends.1 is not running", "last end     2",
      " ended: exit status 3, ",        "said         first words\n",
      "said         last words\n",      "log          /"};
  ExpectTexts({{{"status", "com.test.runs"}, 0, running},
               {{"status", "'Runs'"}, 0, running},
               {{"status", port}, 0, running},
               {{"status", runs}, 0, running},
               {{"status", "com.test.ends.1"}, 3, ended},
               {{"status", "com.test.ends.1", "--json"},
                3,
                {"\"outcome\":\"notRunning\"", "\"lastLines\":[\"first words\",\"last words\"]",
                 "exit status 3", "\"pid\":null"}},
               {{"apps"}, 0, {"com.test.runs    Runs  " + pid + "  "}}});
  // Of a program that was started again, only what it said and how it ended since then.
  const std::string plan = ends + "/Contents/Linux/program.plan";
  std::ofstream(plan) << "say other words\nexit 4\n";
  ExpectTexts({{{"launch", "com.test.ends.1"}, 6, {"exit status 4", "it said: other words"}},
               {{"status", "com.test.ends.1", "--json"},
                3,
                {"\"lastLines\":[\"other words\"]", "ended: exit status 4"}}});
  std::ofstream(plan) << "loop\n";
  ExpectTexts(
      {{{"launch", "com.test.ends.1"}, 0, {}},
       {{"status", "com.test.ends.1", "--json"}, 0, {"\"lastEnd\":null,\"lastLines\":[]"}}});
  EXPECT_TRUE(QuitAndWait(port));
  // The next start discards the earlier output and end.
  apps.Folder().File("data/veltrane/Applications/Ends.app/Contents/Linux/program.plan", "loop\n");
  ExpectTexts(
      {{{"launch", "com.test.ends.1"}, 0, {}},
       {{"stop", "com.test.ends.1", "--force"}, 0, {}},
       {{"status", "com.test.ends.1", "--json"}, 3, {"\"lastEnd\":null", "\"lastLines\":[]"}}});
}

TEST_F(Applications, StopAndRestartActOnTheProcess) {
  const std::string stubborn = UniquePortName();
  Add("Runs", "com.test.runs", apps.NoteStep("it") + "claim " + port + "\nloop\n");
  Add("Mute", "com.test.mute", apps.NoteStep("mute") + apps.WaitStep("for ever"));
  // The process outlives its port.
  Add("Stays", "com.test.stays",
      apps.NoteStep("stays") + "claim " + stubborn + "\nloop\nlet-go\n" + apps.WaitStep("longer"));
  ExpectTexts({{{"stop", "com.test.runs"}, 0, {"is not running"}},
               {{"restart", "com.test.runs"}, 0, {}},
               {{"restart", port, "--json"}, 0, {"\"outcome\":\"restarted\"", "Runs.app"}}});
  ASSERT_EQ(2u, apps.Starts("it").size());
  EXPECT_TRUE(WaitForEnd(apps.Starts("it")[0]));
  const std::string pid = std::to_string(apps.Starts("it")[1]);
  ExpectTexts(
      {{{"stop", "com.test.runs", "--json"}, 0, {"\"outcome\":\"stopped\"", "\"pid\":" + pid}},
       {{"stop", port}, 3, {port + ": no process owns this port name"}},
       {{"stop", "no.such.thing"}, 3, {"no process owns this port name", "looked in "}},
       {{"restart", "no.such.thing", "--json"}, 3, {"\"outcome\":\"notFound\""}},
       {{"launch", "com.test.mute"}, 0, {}},
       {{"stop", "com.test.mute"}, 5, {"no port to send the quit event to; --force"}},
       {{"stop", "com.test.mute", "--force", "--json"}, 0, {"\"outcome\":\"killed\""}},
       {{"launch", "com.test.stays"}, 0, {}},
       {{"stop", stubborn, "--timeout", "100ms"}, 4, {"did not end in time", "--force"}}});
  EXPECT_TRUE(WaitForEnd(apps.Starts("mute").at(0)));
  ExpectTexts({{{"stop", "com.test.stays", "--force", "--timeout", "100ms"}, 0, {"by a signal"}}});
  EXPECT_TRUE(WaitForEnd(apps.Starts("stays").at(0)));
}

TEST_F(Applications, WaitEndsWhenTheNameIsClaimedOrGivenUp) {
  const std::string path =
      Add("Late", "com.test.late", apps.WaitStep("claim") + "claim " + port + "\nloop\n");
  ExpectTexts(
      {{{"wait", port, "--timeout", "20ms"}, 4, {"no process claimed this port name in time"}},
       {{"wait", port, "--gone"}, 0, {}}});
  ProgramResult claimed;
  std::thread waiter([&] { claimed = RunVerb({"wait"}, {port, "--timeout", "60", "--json"}); });
  HostOpeningInfo info;
  const FSRef ref = RefOf(path);
  std::thread opener([&] { EXPECT_EQ(0, HostOpenApplication(&ref, &info)); });
  EXPECT_TRUE(apps.LetGoOn("claim"));
  opener.join();
  waiter.join();
  EXPECT_EQ(0, claimed.status) << claimed.errors;
  EXPECT_EQ("{\"port\":\"" + port + "\",\"outcome\":\"owned\",\"error\":null}\n", claimed.output);
  ExpectTexts({{{"wait", port}, 0, {}},
               {{"wait", port, "--gone", "--timeout=20ms", "--json"}, 4, {"\"stillOwned\""}}});
  ProgramResult gone;
  std::thread leaver([&] { gone = RunVerb({"wait"}, {port, "--gone", "--timeout", "60"}); });
  EXPECT_TRUE(QuitAndWait(port));
  leaver.join();
  EXPECT_EQ(0, gone.status) << gone.errors;
}

TEST_F(Applications, OnlyAWordWithASlashIsAPath) {
  const std::string planted = apps.AddProgram("com.test.real", apps.NoteStep("planted"));
  Add("Real", "com.test.real", apps.NoteStep("real") + "exit 0\n");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(apps.Folder().Path());
  ExpectTexts(
      {{{"launch", "com.test.real", "--explain"},
        6,
        {"it has no slash", "found by     identifier"}},
       {{"launch", "com.test.real.plan"}, 3, {"vltctl launch ./com.test.real.plan opens it"}}});
  EXPECT_EQ(1u, apps.Starts("real").size());
  EXPECT_EQ(0u, apps.Starts("planted").size());
  ExpectTexts({{{"launch", "./com.test.real"}, 6, {}}});
  EXPECT_EQ(1u, apps.Starts("planted").size());
  std::filesystem::current_path(before);
}

// A program that owns a port of the given name.
TEST_ROLE(Stranger) {
  return ServeForEver(role, [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) -> OSStatus {
    return errAEEventNotHandled;
  });
}

TEST_F(Applications, AStrangersPortIsNotTheStartedPrograms) {
  ReadyProcess stranger("Stranger");
  // A child that outlives the program counts, because it is in the same POSIX session.
  Add("Heir", "com.test.heir", "background\nclaim " + port + "\nloop\n");
  // So does another program that it starts.
  const std::string helped = UniquePortName();
  const std::string helper = apps.AddProgram("helper", "claim " + helped + "\nloop\n");
  Add("Starter", "com.test.starter", "run " + helper + "\n" + apps.WaitStep("on"));
  Add("Other", "com.test.other", "loop\n");
  const std::string owner = std::to_string(stranger.Pid());
  ExpectTexts({{{"launch", "com.test.other", "--port", stranger.PortName(), "--wait", "50ms"},
                4,
                {"did not claim the port in time", "; process " + owner + " ("}},
               {{"launch", "com.test.heir", "--port", port}, 0, {port}},
               {{"launch", "com.test.starter", "--port", helped, "--wait", "60"}, 0, {helped}}});
  EXPECT_TRUE(apps.LetGoOn("on"));
  EXPECT_TRUE(QuitAndWait(port));
  EXPECT_TRUE(QuitAndWait(helped));
}

TEST_F(Applications, DescribeRefusesWhatItCannotRead) {
  const std::string path = Add("It", "com.test.it", "loop\n");
  const std::string start =
      "<key>VLTEvents</key><array><dict><key>class</key><string>test</string>"
      "<key>id</key><string>echo</string><key>name</key>";
  const std::string end = "</dict></array>";
  const std::string parameters = "<string>echo</string><key>parameters</key>";
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", 3, "has no VLTEvents"},
      {"<key>VLTEvents</key><dict/>", 7, "VLTEvents is not an array"},
      {"<key>VLTEvents</key><array><true/></array>", 7, "VLTEvents.0: it is not a dictionary"},
      {start + "<string>two words</string>" + end, 7, "no name of one word"},
      {start + parameters + "<true/>" + end, 7, "parameters is not an array"},
      {start + parameters + "<array><dict/></array>" + end, 7,
       "parameters.0: no four-character key"},
      {start + "<string>echo</string>" + end, 0, "echo  test echo\n"},
  };
  for (const auto& [events, status, text] : rows) {
    WriteDescription(path, events);
    ExpectTexts({{{"describe", "com.test.it"}, status, {text}}});
  }
  ReadyProcess stranger("Stranger");
  ExpectTexts({{{"describe", stranger.PortName()}, 3, {"does not belong to an application bundle"}},
               {{"describe", "nobody.there"}, 3, {"neither a port", "looked in "}}});
}

}  // namespace
