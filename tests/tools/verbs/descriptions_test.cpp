#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "clients/device_protocol.h"
#include "launch/launch_spec.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/tools/verbs/verb_runner.h"
#include "tools/applications/event_list.h"
#include "tools/values/value_types.h"

// The descriptions of requests in the bundles, compared with what the programs do.

namespace {

const char kDevices[] =
    "<plist version=\"1.0\"><dict><key>devices</key><array><dict><key>bus</key><string>USB</string>"
    "<key>vendorID</key><integer>1</integer><key>productID</key><integer>2</integer>"
    "<key>location</key><integer>3</integer><key>attributes</key><dict><key>name</key>"
    "<string>Desk</string></dict><key>preferences</key><dict><key>name</key><string>Desk</string>"
    "</dict></dict></array></dict></plist>";

// The exit status of `vltctl send`, and its output and messages.
struct Answer {
  int status = -1;
  std::string text;
};

Answer Send(const std::string& port, const EventDescription& event,
            const std::vector<std::string>& parameters) {
  std::vector<std::string> words = {port, event.eventClass, event.id};
  words.insert(words.end(), parameters.begin(), parameters.end());
  const ProgramResult result = RunVerb({"send"}, words);
  return {result.status, result.output + result.errors};
}

bool IsHandled(const Answer& answer) { return answer.text.find("-1708") == std::string::npos; }

// Returns a value that the example device monitor accepts for a parameter.
std::string ValueOf(const EventParameter& parameter) {
  static const std::map<std::string, std::string> values = {
      {"device", "1"},          {"key", "name"},  {"value", "text=Desk"}, {"bus", "USB"},
      {"vendor", "1"},          {"product", "2"}, {"location", "3"},      {"serial", "4"},
      {"port", "test.watcher"}, {"mask", "4096"}, {"parameter", "5"}};
  if (parameter.name == "process") {
    ProcessSerialNumber psn;
    EXPECT_EQ(noErr, GetProcessForPID(getpid(), &psn));
    char digits[20];
    std::snprintf(digits, sizeof digits, "%08x%08x", static_cast<unsigned>(psn.highLongOfPSN),
                  static_cast<unsigned>(psn.lowLongOfPSN));
    return digits;
  }
  const auto found = values.find(parameter.name);
  EXPECT_NE(values.end(), found) << parameter.name;
  return found != values.end() ? found->second : "";
}

// Starts a program of the build and waits for its port.
class Running {
 public:
  Running(const std::vector<std::string>& arguments, const std::string& thePort) : port(thePort) {
    ChildOptions options;
    options.arguments = arguments;
    EXPECT_TRUE(child.Start(options));
    EXPECT_EQ(0, RunVerb({"wait"}, {port, "--timeout", "60"}).status);
  }
  ~Running() { EXPECT_EQ(0, RunVerb({"stop"}, {port, "--timeout", "60"}).status); }

 private:
  std::string port;
  ChildProcess child;
};

// Each described request is handled, and each request of the protocol is described.
void ExpectComplete(const std::string& port, const std::vector<EventDescription>& events,
                    const std::vector<std::pair<AEEventClass, AEEventID>>& protocol) {
  std::set<std::pair<std::string, std::string>> described;
  for (const EventDescription& event : events) described.insert({event.eventClass, event.id});
  EXPECT_EQ(events.size(), described.size());
  for (const auto& [eventClass, id] : protocol) {
    if (id == kAEQuitApplication) continue;
    EventDescription event;
    event.eventClass = CodeText(eventClass);
    event.id = CodeText(id);
    EXPECT_EQ(described.contains({event.eventClass, event.id}), IsHandled(Send(port, event, {})))
        << event.id;
  }
  EXPECT_TRUE(described.contains({"aevt", "quit"}));
}

const std::vector<std::pair<AEEventClass, AEEventID>> kProtocol = {
    {kDMEventClass, kDMGetDeviceIDs},      {kDMEventClass, kDMGetDeviceID},
    {kDMEventClass, kDMSetPreference},     {kDMEventClass, kDMSetAttribute},
    {kDMEventClass, kDMGetPreference},     {kDMEventClass, kDMGetAttribute},
    {kDMEventClass, kDMRegisterDigitizer}, {kDMEventClass, kDMRegisterForStatus},
    {kCoreEventClass, kAEQuitApplication}};

TEST(Descriptions, OfTheSessionDaemonAreWhatItAnswers) {
  std::vector<EventDescription> events;
  std::string problem;
  ASSERT_TRUE(ReadEvents(SESSION_DAEMON_BUNDLE, events, problem)) << problem;
  const std::string port = gSessionMonitorLaunchSpec.portName;
  const Running daemon({std::string(SESSION_DAEMON_BUNDLE) + "/Contents/Linux/vltsessiond"}, port);
  ExpectComplete(port, events, kProtocol);
  EXPECT_EQ(1u, events.size());
}

TEST(Descriptions, OfTheDeviceMonitorNameEveryRequestParameterAndReply) {
  const ScratchFolder folder;
  std::vector<EventDescription> events;
  std::string problem;
  ASSERT_TRUE(ReadEvents(DEVICE_MONITOR_BUNDLE, events, problem)) << problem;
  const std::string port = gDeviceMonitorLaunchSpec.portName;
  const Running monitor({std::string(DEVICE_MONITOR_BUNDLE) + "/Contents/Linux/device_monitor",
                         "--devices", folder.File("devices.plist", kDevices), "--video", ""},
                        port);
  ExpectComplete(port, events, kProtocol);
  ExpectRuns({"device"}, {{{"1", "set", "name", "text", "Desk"}, 0, "", ""}});
  for (const EventDescription& event : events) {
    if (event.id == "quit") continue;
    SCOPED_TRACE(event.name);
    std::vector<std::string> all, named;
    for (const EventParameter& each : event.parameters) {
      named.push_back(each.name + "=" + ValueOf(each));
      all.push_back(FullParameter(event, named.back()));
    }
    const Answer whole = Send(port, event, all);
    EXPECT_EQ(0, whole.status) << whole.text;
    // The reply has the described parameters and no others.
    size_t lines = 0;
    for (const EventParameter& each : event.reply) {
      EXPECT_NE(std::string::npos, ("\n" + whole.text).find("\n" + each.key + ":")) << whole.text;
    }
    for (const char c : whole.text) lines += c == '\n';
    EXPECT_EQ(event.reply.size(), lines) << whole.text;
    // The request fails without any of its required parameters.
    for (size_t i = 0; i < all.size(); ++i) {
      if (event.parameters[i].isOptional) continue;
      std::vector<std::string> others = all;
      others.erase(others.begin() + static_cast<std::ptrdiff_t>(i));
      EXPECT_NE(0, Send(port, event, others).status) << all[i];
    }
    // By its name it is the same request.
    std::vector<std::string> words = {port, event.name};
    words.insert(words.end(), named.begin(), named.end());
    const ProgramResult byName = RunVerb({"send"}, words);
    EXPECT_EQ(0, byName.status) << byName.errors;
    EXPECT_EQ(whole.text, byName.output);
  }
  ExpectRuns(
      {"send"},
      {{{port, "get-attribute", "device=1", "PKey=name"}, 0, "PVal:text=Desk\n", ""},
       {{port, "get-attribute", "device:short=1", "key:text=name"}, 0, "PVal:text=Desk\n", ""},
       {{port, "CmoN", "GtAt", "device=1", "key=name"}, 0, "PVal:text=Desk\n", ""},
       // Without an optional parameter.
       {{port, "find-device", "bus=USB", "vendor=1", "product=2", "location=3"},
        0,
        "DvI#:long=1\n",
        ""},
       {{port, "get-atribute", "device=1"}, 2, "", "did you mean get-attribute?"},
       {{port, "get-attribute", "device=1"}, 2, "", "get-attribute needs key=VALUE (text)"},
       {{port, "get-attribute", "devise=1", "key=name"}, 2, "", "vltctl describe lists the"},
       {{port, "get-attribute", "device=x", "key=name"}, 2, "", "is not a value of type long"},
       {{port, "get-attribute", "device=1", "DvI#=1", "key=name"}, 2, "", "given twice"}});
}

}  // namespace
