#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <servers/bootstrap.h>

#include "aeport/port_listener.h"
#include "launch/launch_spec.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"
#include "tests/tools/verbs/verb_runner.h"
#include "tools/values/error_names.h"

// A table of verb by outcome: exit status, JSON and standard error. Outcomes that depend on a file
// or an application are in the tests of plist, prefs and launch.

namespace {

// A port whose handler always does the same: "dies"; "leaves", gives the port up; "changes", gives
// it up and claims the name with another one; "stays"; "hangs"; or returns a number.
struct BehavingPort {
  std::string name;
  std::string behaviour;
  std::unique_ptr<VLTPortAEMachPortListener> listener = {};

  OSStatus Claim() {
    listener = std::make_unique<VLTPortAEMachPortListener>();
    return listener->ListenOnPort(name.c_str(), CFRunLoopGetCurrent(), Handle, this);
  }

  static OSStatus Handle(UInt32, UInt32, const AEDesc*, AEDesc*, void* refcon) {
    auto& port = *static_cast<BehavingPort*>(refcon);
    if (port.behaviour == "dies") raise(SIGKILL);
    if (port.behaviour == "hangs") raise(SIGSTOP);
    if (port.behaviour == "leaves" || port.behaviour == "changes") port.listener.reset();
    if (port.behaviour == "changes") return port.Claim();
    return std::atoi(port.behaviour.c_str());
  }
};

// Arguments: name, behaviour, name, behaviour ...
TEST_ROLE(Behaving) {
  std::vector<BehavingPort> ports;
  for (size_t i = 0; i < role.Arguments().size(); i += 2) {
    ports.push_back({role.Argument(i), role.Argument(i + 1)});
  }
  for (BehavingPort& port : ports) {
    if (port.Claim() != 0) return RoleFailed();
  }
  role.SignalReady();
  CFRunLoopRun();
  return kRoleDone;
}

std::string Error(const std::string& number, const char* name) {
  const std::string text = name != nullptr ? std::string("\"") + name + "\"" : "null";
  return "{\"number\":" + number + ",\"name\":" + text + "}";
}

std::string OutcomeLine(const std::string& port, const char* outcome, const std::string& error) {
  return "{\"port\":\"" + port + "\",\"outcome\":\"" + outcome + "\",\"error\":" + error + "}\n";
}

constexpr struct {
  const char* number;
  const char* name;
  int sendStatus;   // of `vltctl send` when the reply has this error number
  int otherStatus;  // of other verbs
} kReplies[] = {{"-50", "paramErr", 5, 5},
                {"-31999", nullptr, 5, 5},
                {"-1708", "errAEEventNotHandled", 5, 5},
                {"-600", "procNotFound", 5, 3},
                {"1100", "BOOTSTRAP_NOT_PRIVILEGED", 5, 5},
                {"-1702", "errAECorruptData", 5, 7},
                {"-1706", "errAENewerVersion", 5, 7},
                {"-108", "memFullErr", 5, 7}};

TEST(VerbOutcomes, EachFailureOfTheTransportHasItsOwnStatus) {
  const std::pair<OSStatus, int> rows[] = {{noErr, 0},
                                           {BOOTSTRAP_UNKNOWN_SERVICE, 3},
                                           {procNotFound, 3},
                                           {errAETimeout, 4},
                                           {BOOTSTRAP_NOT_PRIVILEGED, 5},
                                           {connectionInvalid, 6},
                                           {errAECorruptData, 7},
                                           {errAENewerVersion, 7},
                                           {memFullErr, 7},
                                           {paramErr, 1},
                                           {-31999, 1}};
  for (const auto& [error, status] : rows) EXPECT_EQ(status, ExitForStatus(error)) << error;
}

TEST(VerbOutcomes, AnErrorReplyGivesTheStatusOfItsNumber) {
  OpenDescriptorCheck noLeaks;
  const std::string start = UniquePortName();
  std::vector<std::string> ports;
  for (const auto& row : kReplies) ports.insert(ports.end(), {start + row.number, row.number});
  ReadyProcess server("Behaving", ports);
  for (const auto& row : kReplies) {
    SCOPED_TRACE(row.number);
    const std::string port = start + row.number;
    const std::string failed = OutcomeLine(port, "failed", Error(row.number, row.name));
    ExpectRuns({"quit"}, {{{port, "--json"}, row.otherStatus, failed, row.number},
                          {{port}, row.otherStatus, "", port + ": "}});
    const std::string errn = std::string("errn:long=") + row.number + "\n";
    ExpectRuns({"send"}, {{{port, "test", "test"}, row.sendStatus, errn, row.number}});
  }
}

TEST(VerbOutcomes, QuitSucceedsHoweverThePortGoes) {
  OpenDescriptorCheck noLeaks;
  const std::string start = UniquePortName();
  const std::string leaves = start + "a", changes = start + "b", stays = start + "c";
  const std::string dies = start + "d";
  ReadyProcess server("Behaving",
                      {leaves, "leaves", changes, "changes", stays, "stays", dies, "dies"});
  const std::vector<VerbRun> runs = {
      {{leaves, "--json"}, 0, OutcomeLine(leaves, "quit", "null"), ""},
      // Another process owns the name by the time of the first look-up.
      {{changes, "--json", "--timeout", "5"}, 0, OutcomeLine(changes, "quit", "null"), ""},
      {{stays, "--json", "--timeout", "0.1"}, 4, OutcomeLine(stays, "stillRunning", "null"), stays},
      {{stays, "--timeout=0.1"}, 4, "", stays + ": did not end"},
      {{dies, "--json"}, 0, OutcomeLine(dies, "quit", "null"), ""},
      {{dies}, 0, "", dies},
      // An argument of this name, not a request for help.
      {{"--json", "--", "--help"}, 0, OutcomeLine("--help", "notRunning", "null"), "--help"},
      {{"--json"}, 0, OutcomeLine(gSessionMonitorLaunchSpec.portName, "notRunning", "null"), "not"},
  };
  ExpectRuns({"quit"}, runs);
  const std::string hangs = start + "e", timeout = Error("-1712", "errAETimeout");
  ReadyProcess silent("Behaving", {hangs, "hangs"});
  ExpectRuns({"quit"}, {{{hangs, "--timeout=0.2", "--json"},
                         4,
                         OutcomeLine(hangs, "failed", timeout),
                         "errAETimeout"}});
}

std::string WithoutEnd(const std::string& line) { return line.substr(0, line.size() - 2) + ","; }

// The verb's output begins with `start`, and each text is in its output or in its messages.
void ExpectStart(const std::vector<std::string>& words, int status, const std::string& start,
                 const std::vector<std::string>& texts) {
  SCOPED_TRACE(testing::PrintToString(words));
  const ProgramResult result = RunVerb({}, words);
  EXPECT_EQ(status, result.status) << result.errors;
  EXPECT_TRUE(result.output.starts_with(start)) << result.output;
  const std::string all = result.output + result.errors;
  for (const std::string& text : texts) EXPECT_NE(std::string::npos, all.find(text)) << text << all;
}

TEST(VerbOutcomes, StatusAndStartTellWhetherTheSessionDaemonRuns) {
  OpenDescriptorCheck noLeaks;
  const std::string port = gSessionMonitorLaunchSpec.portName;
  const std::string notFound = OutcomeLine(port, "failed", Error("-600", "procNotFound"));
  const std::string said = port + " is not running";
  ExpectStart({"status"}, 3, "", {said, "it is not installed"});
  ExpectStart({"status", "--json"}, 3, WithoutEnd(OutcomeLine(port, "notRunning", "null")),
              {said, "\"pid\":null", "\"ports\":[]"});
  // Each way that was tried, and what the launcher does.
  ExpectStart({"start"}, 3, "",
              {"-600", "by path: ", "by identifier: com.veltrane.sessionmonitor.1.1: none of 0",
               "by signature: SmoN: none of 0", "finds nothing to open"});
  ExpectRuns({}, {{{"start", "--json"}, 3, notFound, "-600"}});
  ExpectStart({"status", "--explain"}, 3, "path ",
              {"find         by port name on", "next         the launcher finds nothing to open"});
  ExpectStart({"status", "com.veltrane.vltsessiond"}, 3, "",
              {"looked in ", "(from XDG_RUNTIME_DIR"});
  {
    ReadyProcess daemon("Behaving", {port, "stays"});
    const std::string pid = std::to_string(daemon.Pid());
    ExpectStart({"status"}, 0, port + " is running\nprocess      " + pid + "\n",
                {"descriptors  ", "connections  0\n", "memory ", "ports        " + port});
    ExpectStart({"status", port, "--json"}, 0, WithoutEnd(OutcomeLine(port, "running", "null")),
                {"\"pid\":" + pid, "\"connections\":0,\"ports\":[\"" + port + "\"]"});
    const std::vector<VerbRun> running = {
        {{"start"}, 0, "", port},
        {{"start", "--json"}, 0, OutcomeLine(port, "alreadyRunning", "null"), port},
    };
    ExpectRuns({}, running);
    // A mistyped name.
    ExpectStart({"send", "com.veltrane.vltsesiond.1.1", "test", "test"}, 3, "",
                {"did you mean " + port + "?", "which has 1 name"});
    ExpectStart({"send", "VLTSESSIOND", "test", "test"}, 3, "", {"did you mean " + port + "?"});
  }
  // Launch preferences that cannot be read are a failure, whether the daemon runs or not. The
  // message names the file and the key.
  const std::vector<std::string> common = {"--any-user", "com.veltrane.common.1.1",
                                           "sessionMonitor"};
  const std::string failed = OutcomeLine(port, "failed", Error("-50", "paramErr"));
  const std::pair<const char*, const char*> wrong[] = {
      {"{\"launchRetries\":\"many\"}", ".plist: sessionMonitor.launchRetries has to be a number"},
      {"{\"findByPortName\":\"often\"}",
       ".plist: sessionMonitor.findByPortName has to be true or false"},
      {"{\"signature\":[1]}", ".plist: sessionMonitor.signature has to be a string of four"},
  };
  for (const auto& [list, text] : wrong) {
    ExpectRuns({"prefs", "write"}, {{{common[0], common[1], common[2], list}, 0, "", ""}});
    ExpectStart({"status", "--json"}, 1, WithoutEnd(failed), {text, "-50"});
    ExpectRuns({}, {{{"start", "--json"}, 1, failed, text}});
  }
  ExpectRuns({"prefs", "delete"}, {{common, 0, "", ""}});
}

TEST(VerbOutcomes, DeviceVerbsGiveTheStatusOfTheMonitorsReply) {
  OpenDescriptorCheck noLeaks;
  const std::string monitor = gDeviceMonitorLaunchSpec.portName;
  const auto expect = [](int status, const std::string& error, const char* said) {
    const std::string model =
        "{\"device\":7,\"key\":\"k\",\"attribute\":true,\"error\":" + error + ",\"value\":null}\n";
    const std::vector<VerbRun> runs = {
        {{"devices"}, status, "", said},
        {{"devices", "--json"}, status, "", said},
        {{"device-status", "--mask", "0x10"}, status, "", said},
        {{"device", "7", "get", "k"}, status, "", said},
        {{"device", "7", "set", "k", "long", "1"}, status, "", said},
        {{"device", "7", "get", "k", "--attribute", "--json"}, status, model, said},
        {{"device", "7", "set", "k", "long", "1", "--json", "--attribute"}, status, model, said},
    };
    ExpectRuns({}, runs);
  };
  expect(3, Error("-600", "procNotFound"), "not running");
  for (const auto& row : kReplies) {
    if (row.otherStatus == 3) continue;
    SCOPED_TRACE(row.number);
    ReadyProcess server("Behaving", {monitor, row.number});
    expect(row.otherStatus, Error(row.number, row.name), row.number);
  }
  ReadyProcess server("Behaving", {monitor, "dies"});
  ExpectRuns({}, {{{"device", "7", "get", "k"}, 6, "", "-609"}});
}

TEST(VerbOutcomes, WrongArgumentsAreStatusTwoWithNothingOnStandardOutput) {
  const std::string longName(128, 'n');
  const std::vector<VerbRun> runs = {
      {{}, 2, "", "vltctl ports"},
      {{"prots"}, 2, "", "did you mean ports?"},
      {{"ports", "x"}, 2, "", "usage: vltctl ports"},
      {{"ports", "--al"}, 2, "", "--all"},
      {{"help", "qit"}, 2, "", "quit"},
      {{"send", "x"}, 2, "", "too few arguments"},
      {{"send", "x", "abcd"}, 2, "", "nothing describes the requests of x"},
      {{"send", "x", "abcd", "abc"}, 2, "", "event id \"abc\" is not four characters"},
      {{"send", "x", "abcd", "efgh", "keyy:long=1", "keyy:long=1"}, 2, "", "given twice"},
      {{"send", "x", "abcd", "efgh", "--timeout", "1h"}, 2, "", "such as 5, 5s, 500ms or 2m"},
      {{"send", longName, "abcd", "efgh"}, 2, "", "1 to 127 bytes"},
      {{"send", "", "abcd", "efgh"}, 2, "", "1 to 127 bytes"},
      {{"send", "x", "abcd", "efgh", "keyy:lng=1"}, 2, "", "\"lng\"; the types are bool, short"},
      {{"send", "x", "abcd", "efgh", "keyy:long=abc"}, 2, "", "\"abc\""},
      {{"send", "x", "abcd", "efgh", "key:long=1"}, 2, "", "digits; it has 3 characters"},
      {{"send", "x", "abcd", "efgh", "keyy:long"}, 2, "", "it has no ="},
      {{"send", "x", "abcd", "efgh", "keyylong=1"}, 2, "", "it has no : before the ="},
      {{"send", "x", "abcd", "efgh", "k\xc3\xa4y:long=1"}, 2, "", "only ASCII"},
      {{"send", "x", "abcd", "efgh", "keyy:text=\xe6\x97\xa5"}, 2, "", "use utf8"},
      {{"send", "x", "abcd", "efgh", "keyy:short=70000"}, 2, "", "integers of 16 bits"},
      {{"quit", "x", "y"}, 2, "", "usage: vltctl quit"},
      {{"quit", longName}, 2, "", "1 to 127 bytes"},
      {{"quit", "x", "--timeout", "0"}, 2, "", "\"0\""},
      {{"status", "x", "y"}, 2, "", "usage: vltctl status"},
      {{"status", "x", "--explain"}, 2, "", "\"x\" is not one"},
      {{"start", "x"}, 2, "", "usage: vltctl start"},
      {{"stop", "x", "--timeout", "never"}, 2, "", "stop: --timeout: \"never\""},
      {{"restart", "x", "y"}, 2, "", "usage: vltctl restart"},
      {{"wait"}, 2, "", "too few arguments"},
      {{"wait", longName}, 2, "", "1 to 127 bytes"},
      {{"wait", ""}, 2, "", "1 to 127 bytes"},
      {{"describe"}, 2, "", "usage: vltctl describe"},
      {{"apps", "x"}, 2, "", "usage: vltctl apps"},
      {{"devices", "--timeout", "x"}, 2, "", "\"x\""},
      {{"device-status", "--mask", "0x"}, 2, "", "\"0x\""},
      {{"device-status", "--mask", "4294967296"}, 2, "", "\"4294967296\""},
      {{"device-status", "--timeout", "-1"}, 2, "", "\"-1\""},
      {{"device", "7x", "get", "k"}, 2, "", "\"7x\""},
      {{"device", "7", "got", "k"}, 2, "", "\"got\""},
      {{"device", "7", "get", "k", "long", "1"}, 2, "", "get"},
      {{"device", "7", "set", "k"}, 2, "", "set"},
      {{"device", "7", "set", "k", "long", "x"}, 2, "", "\"x\""},
      {{"device", "7", "get", "k", "--timeout", "1h"}, 2, "", "\"1h\""},
      {{"launch", "x", "--wait", "soon"}, 2, "", "\"soon\""},
      {{"launch", "x", "--port", ""}, 2, "", "1 to 127 bytes"},
      {{"launch", "x", "--port", longName}, 2, "", "1 to 127 bytes"},
      {{"ps", "x"}, 2, "", "usage: vltctl ps"},
      {{"session", "x"}, 2, "", "usage: vltctl session"},
      {{"plist", "lnit", "x"}, 2, "", "did you mean lint?"},
      {{"plist", "print"}, 2, "", "usage: vltctl plist"},
      {{"plist", "print", "a", "b"}, 2, "", "usage: vltctl plist print FILE"},
      {{"plist", "convert", "yaml", "x"}, 2, "", "unknown format \"yaml\""},
      {{"plist", "convert", "xml", "x", "--json"}, 2, "", "needs -o OUT"},
      {{"plist", "set", "-", "a", "1", "--json"}, 2, "", "--json needs a file"},
      {{"plist", "print", "x", "-o", "y"}, 2, "", "-o"},
      {{"plist", "set", "x", "a\\", "1"}, 2, "", "\"a\\\""},
      {{"plist", "set", "x", "", "1"}, 2, "", "key path"},
      {{"plist", "set", "x", "a", "1", "--type", "text"}, 2, "", "\"text\""},
      {{"plist", "convert", "xml", "x", "-o", ""}, 2, "", "-o"},
      {{"prefs", "wirte", "a.b"}, 2, "", "did you mean write?"},
      {{"prefs", "write", "a.b", "n"}, 2, "", "write needs DOMAIN KEY VALUE"},
      {{"prefs", "read"}, 2, "", "usage: vltctl prefs"},
      {{"prefs", "read", "a.b", "c", "d"}, 2, "", "read"},
      {{"prefs", "delete", "a.b", "c", "d"}, 2, "", "delete"},
      {{"prefs", "write", "a.b", "c", "d", "e"}, 2, "", "usage: vltctl prefs"},
      {{"prefs", "write", "a.b", "c", "d", "--type", "text"}, 2, "", "text"},
      {{"prefs", "read", "a/b"}, 2, "", "\"a/b\""},
      {{"prefs", "read", "a.b", "\xff"}, 2, "", "UTF-8"},
  };
  ExpectRuns({}, runs);
}

}  // namespace
