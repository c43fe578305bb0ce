#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>
#include <servers/bootstrap.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "aeport/port_listener.h"
#include "platform/host/session/introspect.h"
#include "tools/output.h"
#include "tools/values/desc_model.h"
#include "tools/values/error_names.h"
#include "tools/values/parameter_text.h"
#include "tools/values/port_text.h"
#include "tools/values/value_types.h"
#include "tools/verbs/device_requests.h"
#include "tools/verbs/verb.h"

// A server for testing a client: it prints the requests that it receives and sends the reply given
// on the command line.

namespace {

constexpr double kTicksPerSecond = 60;

struct Server {
  std::string port;
  std::vector<ParameterValue> reply;
  OSStatus error = 0;
  double delaySeconds = 0;
  std::string command;  // run for each event; "" for none
  SInt32 count = -1;    // events that are left; negative: any number
  bool isJson = false;
  int exit = kExitOk;
};

// A word that a shell reads as one.
std::string ShellWord(const std::string& text) {
  const bool isPlain = !text.empty() && text.find_first_not_of(
                                            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                            "0123456789:=._,/+-#@%^") == std::string::npos;
  if (isPlain) return text;
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

// The arguments of the send command that would send this event, but for the port.
std::string EventLine(UInt32 eventClass, UInt32 eventID, const AEDesc& event) {
  std::string text = ShellWord(CodeText(eventClass)) + " " + ShellWord(CodeText(eventID));
  for (const std::string& line : ParameterLines(ParametersModel(event))) {
    text += " " + ShellWord(line);
  }
  return text;
}

JsonValue EventModel(UInt32 eventClass, UInt32 eventID, const AEDesc& event, bool wantsReply) {
  JsonValue model = JsonValue::Object();
  model.Add("class", CodeText(eventClass));
  model.Add("id", CodeText(eventID));
  model.Add("wantsReply", JsonValue::Bool(wantsReply));
  model.Add("attributes", AttributesModel(event));
  model.Add("parameters", ParametersModel(event));
  return model;
}

// Runs a command with the shell and the event's line as its first argument. Returns its exit status
// and what it printed.
int RunCommand(const std::string& command, const std::string& event, std::string& output) {
  int ends[2];
  if (pipe(ends) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, ends[0]);
  posix_spawn_file_actions_addclose(&actions, ends[1]);
  const char* const arguments[] = {"sh", "-c", command.c_str(), "vltctl", event.c_str(), nullptr};
  pid_t pid = 0;
  const int error =
      posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char* const*>(arguments), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  char buffer[4096];
  for (;;) {
    const ssize_t size = error == 0 ? read(ends[0], buffer, sizeof buffer) : 0;
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) break;
    output.append(buffer, static_cast<size_t>(size));
  }
  close(ends[0]);
  if (error != 0) return Say("serve: /bin/sh: " + std::string(std::strerror(error))), -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

OSStatus PutValues(const std::vector<ParameterValue>& values, AEDesc* reply) {
  OSStatus err = 0;
  for (const ParameterValue& value : values) {
    if (err == 0) {
      err = AEPutParamPtr(reply, value.key, value.type, value.bytes.data(),
                          static_cast<Size>(value.bytes.size()));
    }
  }
  return err;
}

// Makes the reply of what the command printed, a parameter a line.
OSStatus PutCommandsReply(const Server& server, const std::string& event, AEDesc* reply) {
  std::string output, problem;
  const int status = RunCommand(server.command, event, output);
  if (status != 0) {
    Say("serve: the command ended with exit status " + std::to_string(status));
    return paramErr;
  }
  std::vector<ParameterValue> values;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    if (ParseParameter(line, values.emplace_back(), problem)) continue;
    Say("serve: the command printed: " + problem);
    return paramErr;
  }
  return reply->descriptorType == typeNull ? OSStatus{0} : PutValues(values, reply);
}

OSStatus Reply(const Server& server, const std::string& event, AEDesc* reply) {
  if (server.delaySeconds > 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(server.delaySeconds));
  }
  if (!server.command.empty()) {
    const OSStatus err = PutCommandsReply(server, event, reply);
    if (err != 0) return err;
  }
  const bool wantsReply = reply->descriptorType != typeNull;
  const OSStatus err = wantsReply ? PutValues(server.reply, reply) : OSStatus{0};
  return err != 0 ? err : server.error;
}

OSStatus HandleEvent(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                     void* refcon) {
  auto& server = *static_cast<Server*>(refcon);
  const std::string line = EventLine(eventClass, eventID, *event);
  if (server.isJson) {
    PrintJson(EventModel(eventClass, eventID, *event, reply->descriptorType != typeNull));
  } else {
    Print(line + "\n");
  }
  const bool isQuit = eventClass == kCoreEventClass && eventID == kAEQuitApplication;
  if (server.count > 0) --server.count;
  const int error = TakeOutputError();  // writes the line now
  if (error != 0) {
    Say(std::string("standard output: ") + std::strerror(error));
    server.exit = kExitGeneral;
  }
  if (isQuit || server.count == 0 || error != 0) CFRunLoopStop(CFRunLoopGetCurrent());
  return isQuit ? OSStatus{0} : Reply(server, line, reply);
}

bool ParseServer(const CommandLine& line, Server& server, std::string& problem) {
  server.port = line.words[0];
  server.isJson = line.Has("--json");
  const auto reply = line.repeated.find("--reply");
  if (reply != line.repeated.end()) {
    for (const std::string& text : reply->second) {
      if (!ParseParameter(text, server.reply.emplace_back(), problem)) return false;
    }
  }
  if (line.Has("--error") && !ParseWhole(line.options.at("--error"), server.error)) {
    return problem = "--error: " + Quoted(line.options.at("--error")) + kNotAWhole, false;
  }
  if (line.Has("--count") &&
      (!ParseWhole(line.options.at("--count"), server.count) || server.count <= 0)) {
    return problem = "--count: " + Quoted(line.options.at("--count")) + " is not a number above 0",
           false;
  }
  if (line.Has("--exec")) server.command = line.options.at("--exec");
  int ticks = 0;
  if (!ParseSecondsOption(line, "--delay", ticks, problem)) return false;
  server.delaySeconds = ticks / kTicksPerSecond;
  return true;
}

int TellNotClaimed(const Server& server, OSStatus err) {
  if (err == paramErr) return Say("serve: " + NotAPortName(server.port)), kExitUsage;
  Say(EscapedBytes(server.port) + ": " + ErrorSentence(err));
  for (const HostNameInfo& name : HostListNames()) {
    if (name.name != server.port) continue;
    Say("its owner is process " + std::to_string(name.ownerPid) + ", " +
        EscapedBytes(name.program));
  }
  return err == BOOTSTRAP_NAME_IN_USE || err == portInUse ? int{kExitRefused}
                                                          : int{ExitForStatus(err)};
}

}  // namespace

static int RunServe(const CommandLine& line) {
  Server server;
  std::string problem;
  if (!ParseServer(line, server, problem)) return Say("serve: " + problem), kExitUsage;
  VLTPortAEMachPortListener listener;
  const OSStatus err =
      listener.ListenOnPort(server.port.c_str(), CFRunLoopGetCurrent(), HandleEvent, &server);
  if (err != 0) return TellNotClaimed(server, listener.Deallocate(err));
  CFRunLoopRun();
  return server.exit;
}

Verb ServeVerb() {
  return {"serve",
          "PORT [--reply KEY:TYPE=VALUE ...] [--error NUMBER] [--delay SECONDS] "
          "[--exec COMMAND] [--count NUMBER] [--json]",
          "Owns a port, prints each event, and replies what it is told.",
          "A server for whoever tests a client. It prints each event as the arguments\n"
          "with which send would send it, but for the port. It ends with the quit event,\n"
          "after --count events, or with a signal.\n"
          "\n"
          "--exec runs a command with /bin/sh for each event; its $1 is the printed\n"
          "event. Each line that the command prints is a parameter of the reply. If its\n"
          "exit status is not 0, the reply is the error -50 (paramErr).\n"
          "\n"
          "Examples: vltctl serve com.example.camera --reply gain:float=1.5 --count 1\n"
          "          vltctl serve com.example.slow --delay 3 --error -31999\n"
          "          vltctl serve com.example.date --exec 'echo date:text=$(date)'\n"
          "\n"
          "JSON: one object for each event with class, id, wantsReply, attributes and\n"
          "parameters, as for send.\n",
          {{"--reply", "KEY:TYPE=VALUE", "a parameter of each reply; may be repeated", true},
           {"--error", "NUMBER", "reply with this error"},
           {"--delay", "SECONDS", "wait before each reply"},
           {"--exec", "COMMAND", "make each reply of what a command prints"},
           {"--count", "NUMBER", "end after so many events"},
           kJsonOption},
          1,
          1,
          RunServe};
}
