#include <CoreFoundation/CoreFoundation.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>
#include <sstream>

#include "launch/launch_spec.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"
#include "tools/plist/json.h"
#include "tools/verbs/verb.h"
#include "util/owned_ref.h"

// What holds for all verbs: JSON, a full disk, and a session directory that cannot be used.

namespace {

const char kDevices[] =
    "<plist version=\"1.0\"><dict><key>devices</key><array><dict><key>bus</key><string>test</string>"
    "<key>serial</key><string>1</string><key>attributes</key><dict><key>name</key>"
    "<string>Desk</string></dict></dict></array></dict></plist>";

// A verb with arguments, its status, and the words of its text that are not facts: headings, and
// facts that JSON has in another unit.
struct Row {
  std::vector<std::string> words;
  int status;
  std::set<std::string> labels = {};
};

// The parts of a text that tell something. Ages, which change from run to run, are left out.
std::vector<std::string> Facts(const std::string& text, const std::set<std::string>& labels) {
  std::string plain = text;
  for (char& c : plain) {
    if (std::string(":=(),[]{}\"").find(c) != std::string::npos) c = ' ';
  }
  std::vector<std::string> facts;
  std::istringstream words(plain);
  for (std::string word; words >> word;) {
    const bool isAge = std::isdigit(static_cast<unsigned char>(word[0])) != 0 &&
                       word.find_first_not_of("0123456789") == word.size() - 1;
    if (!isAge && word != "-" && word != "?" && !labels.contains(word)) facts.push_back(word);
  }
  return facts;
}

// Property lists have no null, which is otherwise as valid as a number.
bool IsJson(std::string line) {
  bool isInString = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (isInString && line[i] == '\\') {
      ++i;
    } else if (line[i] == '"') {
      isInString = !isInString;
    } else if (!isInString && line.compare(i, 4, "null") == 0) {
      line.replace(i, 4, "0");
    }
  }
  std::string problem;
  const OwnedRef<CFTypeRef> list(CreateFromJson(line, problem));
  return list != nullptr;
}

class EveryVerb : public testing::Test {
 protected:
  EveryVerb() {
    ChildOptions options;
    options.arguments = {std::string(DEVICE_MONITOR_BUNDLE) + "/Contents/Linux/device_monitor",
                         "--devices", folder.File("devices.plist", kDevices), "--video", ""};
    EXPECT_TRUE(monitor.Start(options));
    EXPECT_TRUE(WaitForPort(port, 60s));
    MakeTestBundle(folder, "data/veltrane/Applications/It.app",
                   {"com.test.it", "Test", "APPL", "program", "1"});
    const std::string list = folder.Path("devices.plist");
    rows = {
        {{"ports"}, 0},
        {{"send", port, "CmoN", "GtAt", "DvI#:long=1", "PKey:text=name"}, 0},
        {{"describe", port}, 0, {"optional", "replies"}},
        {{"wait", port}, 0},
        {{"quit", "test.nobody"}, 0},
        {{"apps"}, 0, {"broken"}},
        {{"status", port},
         0,
         {"is", "running", "process", "since", "memory", "MiB", "KiB", "ports"}},
        {{"start"}, 3},
        {{"stop", "test.nobody"}, 3},
        {{"restart", "test.nobody"}, 3},
        {{"launch", "com.test.it", "--explain"},
         1,
         {"application", "bundle", "path", "not", "found", "identifier", "in"}},
        {{"ps"}, 0},
        {{"session"}, 0},
        {{"doctor"}, 1, {"->"}},
        {{"selftest"}, 0, {"pass", "FAIL"}},
        {{"devices"}, 0},
        {{"devices", "--watch", "--count", "1"}, 0},
        {{"device", "1", "get", "name", "--attribute"}, 0},
        {{"device-status"}, 0},
        {{"device-status", "--watch", "--count", "1"}, 0},
        {{"notify", "Title", "Text"}, 0},
        {{"plist", "lint", list}, 0, {"ok"}},
        {{"prefs", "where", "com.test.none"}, 0},
        {{"version"}, 0, {"vltctl", "vltsessiond", "is", "not", "installed"}},
    };
  }
  ~EveryVerb() override { EXPECT_TRUE(monitor.KillAndWait(60s)); }

  ProgramResult Run(const Row& row, bool isJson) {
    std::vector<std::string> words = row.words;
    if (isJson) words.push_back("--json");
    return RunVerb({}, words, {{"XDG_DATA_HOME", folder.Path("data")}});
  }

  const OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  const std::string port = gDeviceMonitorLaunchSpec.portName;
  ChildProcess monitor;
  std::vector<Row> rows;
};

TEST_F(EveryVerb, HasJsonThatIsValidAndSaysAllThatTheTextSays) {
  // serve ends after an event only, which its own test sends; help is text.
  std::set<std::string> left = {};
  for (const Verb& verb : AllVerbs()) left.insert(verb.name);
  left.erase("serve");
  left.erase("help");
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    left.erase(row.words[0]);
    const ProgramResult text = Run(row, false), json = Run(row, true);
    EXPECT_EQ(row.status, text.status) << text.errors;
    EXPECT_EQ(row.status, json.status) << json.errors;
    EXPECT_FALSE(json.output.empty());
    std::istringstream lines(json.output);
    for (std::string line; std::getline(lines, line);) EXPECT_TRUE(IsJson(line)) << line;
    // Only a running system's numbers and processes differ between two runs.
    if (row.words[0] == "ps") continue;
    for (const std::string& fact : Facts(text.output, row.labels)) {
      const bool isNumber = fact.find_first_not_of("0123456789.") == std::string::npos;
      if (isNumber && (row.words[0] == "status" || row.words[0] == "doctor")) continue;
      EXPECT_NE(std::string::npos, json.output.find(fact)) << fact;
    }
  }
  EXPECT_TRUE(left.empty()) << *left.begin() << " is not tried here";
}

TEST_F(EveryVerb, FailsWithAWordIfItsOutputCannotBeWritten) {
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.words));
    std::vector<std::string> words = {"/bin/sh", "-c", "exec \"$@\" > /dev/full", "sh",
                                      VLTCTL_PROGRAM};
    words.insert(words.end(), row.words.begin(), row.words.end());
    words.push_back("--json");
    const ProgramResult result = RunProgram(words, 60s, {{"XDG_DATA_HOME", folder.Path("data")}});
    EXPECT_EQ(row.status == 0 ? 1 : row.status, result.status) << result.errors;
    EXPECT_NE(std::string::npos, result.errors.find("No space left on device")) << result.errors;
  }
}

TEST_F(EveryVerb, GivesStatusEightIfItNeedsASessionThatCannotBeUsed) {
  ASSERT_EQ(0, chmod(folder.Folder("open/veltrane").c_str(), 0755));
  for (const Verb& verb : AllVerbs()) {
    if (!verb.needsSession) continue;
    SCOPED_TRACE(verb.name);
    std::vector<std::string> words = {verb.name};
    for (const Row& row : rows) {
      if (row.words[0] == verb.name) words = row.words;
    }
    if (words.size() < verb.minWords + 1) words.resize(verb.minWords + 1, "x");
    const ProgramResult result = RunVerb({}, words, {{"XDG_RUNTIME_DIR", folder.Path("open")}});
    EXPECT_EQ(8, result.status) << result.errors;
    EXPECT_EQ("", result.output);
    EXPECT_NE(std::string::npos, result.errors.find("0755")) << result.errors;
  }
  ExpectRuns({}, {{{"notify", "T", "x", "--id", "a b"}, 2, "", "\"a b\""}});
  const ProgramResult named =
      RunVerb({}, {"notify", "T", "x", "--id", "a"}, {{"XDG_RUNTIME_DIR", folder.Path("open")}});
  EXPECT_EQ(8, named.status) << named.errors;
}

}  // namespace
