#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include "aeport/port_listener.h"
#include "platform/host/applications/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/table.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"
#include "util/ostype_text.h"

// Finds an application by the launcher's ways, one after the other, opens it, and prints how that
// went.

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kDefaultWait = 10;  // seconds, for a port given with --port
constexpr double kTicksPerSecond = 60;
constexpr auto kBetweenLooks = std::chrono::milliseconds(2);

// One way of finding an application, and its result.
struct Way {
  const char* name;
  bool found = false;
  std::string text;  // for people
};

struct Search {
  std::vector<Way> ways;  // those that were tried
  FSRef application;
  std::string path;
  std::string folder;  // the application folder that contains it; "" if found by its path

  bool Found() const { return !ways.empty() && ways.back().found; }
};

std::string PathOf(const FSRef& ref) {
  std::string path(4096, 0);
  const auto size = static_cast<UInt32>(path.size());
  if (FSRefMakePath(&ref, reinterpret_cast<UInt8*>(path.data()), size) != 0) return "";
  path.resize(path.find('\0'));
  return path;
}

Way ByPath(const std::string& word, Search& search) {
  const auto* path = reinterpret_cast<const UInt8*>(word.c_str());
  const OSStatus err = FSPathMakeRef(path, &search.application, nullptr);
  if (err == 0) return {"path", true, "it is there"};
  if (word.find('/') != std::string::npos) return {"path", false, ErrorSentence(err)};
  return {"path", false, "nothing of that name in the working directory"};
}

// The folders in which applications were looked for, for people.
std::string LookedFor() {
  std::string text = std::to_string(HostDescribeApplications().size()) + " applications in";
  for (const std::string& folder : HostListApplicationFolders()) text += " " + folder;
  return text;
}

Way ByRegistry(const char* name, OSType signature, const std::string& identifier, Search& search) {
  CFStringRef string = nullptr;
  if (!identifier.empty()) {
    string = CFStringCreateWithCString(nullptr, identifier.c_str(), kCFStringEncodingUTF8);
    if (string == nullptr) return {name, false, "an identifier is UTF-8"};
  }
  const OSStatus err =
      LSFindApplicationForInfo(signature, string, nullptr, &search.application, nullptr);
  if (string != nullptr) CFRelease(string);
  if (err != 0) return {name, false, "none of " + LookedFor() + " has it"};
  for (const HostApplicationInfo& each : HostDescribeApplications()) {
    FSRef ref;
    if (FSPathMakeRef(reinterpret_cast<const UInt8*>(each.path.c_str()), &ref, nullptr) != 0 ||
        FSCompareFSRefs(&ref, &search.application) != 0) {
      continue;
    }
    search.folder = each.folder;
    return {name, true,
            "version " + (each.version.empty() ? "unknown" : each.version) + " in " + each.folder};
  }
  return {name, true, "it is there"};
}

// The four-character code in a text, with or without quotes; 0 if it is not one.
OSType SignatureOf(const std::string& word) {
  OSType code = 0;
  const std::string quoted = word.size() == 4 ? "'" + word + "'" : word;
  const bool isCode = quoted.size() == 6 && CStringToOSType(quoted.c_str(), code) == 0;
  return isCode ? code : 0;
}

// Tries the ways in the launcher's order; the first that finds an application ends the search.
Search Find(const std::string& word) {
  Search search;
  const bool isQuoted = word.size() == 6 && word.front() == '\'' && word.back() == '\'';
  const bool isPath = word.find('/') != std::string::npos;
  search.ways.push_back(isQuoted
                            ? Way{"path", false, "a signature in quotation marks is not a path"}
                            : ByPath(word, search));
  if (!search.Found()) {
    search.ways.push_back(
        isQuoted || isPath
            ? Way{"identifier", false, "an identifier has no slash and no quotation marks"}
            : ByRegistry("identifier", 0, word, search));
  }
  if (!search.Found()) {
    const OSType signature = SignatureOf(word);
    search.ways.push_back(signature == 0 ? Way{"signature", false, "it is not four characters"}
                                         : ByRegistry("signature", signature, "", search));
  }
  if (search.Found()) search.path = PathOf(search.application);
  return search;
}

// The port that Launch waits for, or "" if it does not exist yet.
std::string SeenPort(const std::string& wanted, const HostOpeningInfo& info) {
  if (!wanted.empty()) {
    mach_port_t port = MACH_PORT_NULL;
    return VLTPortAEMachPortListener::CheckPortRegistered(wanted.c_str(), port) == 0 ? wanted : "";
  }
  if (!info.port.empty() && info.port[0] != 1) return info.port;
  for (const HostNameInfo& name : HostListNames()) {
    if (!name.hidden && name.ownerPid != 0 && name.ownerPid == info.pid) return name.name;
  }
  return "";
}

// A line on the terminal that shows how long the tool has waited. Removed at the end.
class Progress {
 public:
  explicit Progress(std::string what)
      : text(std::move(what)), isShown(isatty(STDERR_FILENO) == 1) {}
  ~Progress() {
    if (shown >= 0) std::fprintf(stderr, "\r\033[K");
  }
  void Show(double seconds) {
    const int tenths = static_cast<int>(seconds * 10);
    if (!isShown || tenths == shown || tenths < 2) return;
    shown = tenths;
    std::fprintf(stderr, "\rvltctl: waiting for %s, %.1f s", text.c_str(), tenths / 10.0);
  }

 private:
  const std::string text;
  const bool isShown;
  int shown = -1;
};

bool HasEnded(const HostOpeningInfo& info) {
  ProcessSerialNumber psn;
  if (info.outcome == HostOpening::kEnded) return true;
  // A program that claimed a port may have ended and left the port to its child.
  return info.outcome == HostOpening::kSilent && GetProcessForPID(info.pid, &psn) != 0;
}

struct Result {
  Search search;
  HostOpeningInfo info;
  OSStatus err = 0;
  std::string port;
  std::optional<double> seconds;  // until the port was seen
  const char* outcome = "notFound";
  ExitStatus exit = kExitNotFound;
};

const char* OutcomeName(HostOpening outcome) {
  switch (outcome) {
    case HostOpening::kRunning:
      return "alreadyRunning";
    case HostOpening::kUnderWay:
      return "underWay";
    default:
      return "started";
  }
}

void WaitForPort(const std::string& wanted, double waitSeconds, Clock::time_point began,
                 Result& result) {
  const auto opened = Clock::now();
  Progress progress(wanted.empty() ? "a port" : EscapedBytes(wanted));
  for (;;) {
    result.port = SeenPort(wanted, result.info);
    const double waited = Seconds(Clock::now() - opened).count();
    if (!result.port.empty()) {
      if (result.info.outcome != HostOpening::kRunning) {
        result.seconds = Seconds(Clock::now() - began).count();
      }
      return;
    }
    if (HasEnded(result.info)) {
      result.outcome = "ended";
      result.exit = kExitPeerDied;
      return;
    }
    if (waited >= waitSeconds) {
      if (waitSeconds > 0) {
        result.outcome = "noPort";
        result.exit = kExitTimeout;
      }
      return;
    }
    progress.Show(waited);
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

Result Launch(const std::string& word, const std::string& port, double waitSeconds) {
  Result result;
  result.search = Find(word);
  if (!result.search.Found()) return result;
  const auto began = Clock::now();
  HostOpenDespitePauses();
  result.err = HostOpenApplication(&result.search.application, &result.info);
  if (result.err != 0 && result.err != kLSLaunchInProgressErr) {
    result.outcome = "failed";
    result.exit = ExitForStatus(result.err);
    return result;
  }
  result.err = 0;
  result.outcome = OutcomeName(result.info.outcome);
  result.exit = kExitOk;
  WaitForPort(port, waitSeconds, began, result);
  return result;
}

JsonValue WaysModel(const Search& search) {
  JsonValue::Array ways;
  for (const Way& way : search.ways) {
    JsonValue model = JsonValue::Object();
    model.Add("way", way.name);
    model.Add("found", JsonValue::Bool(way.found));
    model.Add("text", way.text);
    ways.push_back(std::move(model));
  }
  return ways;
}

JsonValue ResultModel(const Result& result, bool explain) {
  JsonValue model = JsonValue::Object();
  const auto addBytes = [&](const char* name, const std::string& bytes) {
    if (bytes.empty()) {
      model.Add(name, JsonValue());
    } else {
      model.AddBytes(name, bytes);
    }
  };
  addBytes("application", result.search.path);
  model.Add("by", result.search.Found() ? JsonValue(result.search.ways.back().name) : JsonValue());
  addBytes("folder", result.search.folder);
  addBytes("program", result.info.program);
  model.Add("outcome", result.outcome);
  model.Add("pid", result.info.pid != 0 ? JsonValue::Integer(result.info.pid) : JsonValue());
  addBytes("port", result.port);
  model.Add("seconds", result.seconds ? JsonValue::Real(*result.seconds) : JsonValue());
  model.Add("error", result.err != 0 ? ErrorModel(result.err) : JsonValue());
  if (explain) model.Add("ways", WaysModel(result.search));
  return model;
}

std::string OutcomeText(const Result& result) {
  const std::string outcome = result.outcome;
  const std::string pid =
      result.info.pid != 0 ? ", process " + std::to_string(result.info.pid) : "";
  if (outcome == "failed") return "cannot be opened: " + ErrorSentence(result.err);
  if (outcome == "alreadyRunning") return "already running" + pid;
  if (outcome == "underWay") return "another process is opening it" + pid;
  if (outcome == "ended") return "started, but ended without claiming the port" + pid;
  if (outcome == "noPort") return "started, but did not claim the port in time" + pid;
  return "started" + pid;
}

std::string PortText(const Result& result) {
  if (result.port.empty()) return "none seen";
  if (!result.seconds) return EscapedBytes(result.port);
  char after[40];
  std::snprintf(after, sizeof after, ", after %.1f ms", *result.seconds * 1000);
  return EscapedBytes(result.port) + after;
}

void PrintWays(const Search& search) {
  std::vector<TableRow> rows;
  for (const Way& way : search.ways) {
    rows.push_back({way.name, way.found ? "found" : "not found", OneLine(way.text)});
  }
  PrintTable(rows);
}

void SayNotFound(const Search& search, const std::string& word) {
  const bool isPath = word.find('/') != std::string::npos;
  Say("launch: no application found for \"" + EscapedBytes(word) + "\"" +
      (isPath ? ": " + search.ways[0].text : "; --explain shows where it was looked for"));
}

void PrintResult(const Result& result) {
  std::string by = result.search.ways.back().name;
  if (!result.search.folder.empty()) by += " in " + OneLine(result.search.folder);
  std::vector<TableRow> rows = {{"application", OneLine(result.search.path)}, {"found by", by}};
  if (result.exit == kExitOk) {
    rows.push_back({"outcome", OutcomeText(result)});
    rows.push_back({"port", PortText(result)});
  }
  PrintTable(rows);
}

}  // namespace

static int RunLaunch(const CommandLine& line) {
  const std::string port = line.Has("--port") ? line.options.at("--port") : "";
  double waitSeconds = port.empty() ? 0 : kDefaultWait;
  int ticks = 0;
  std::string problem;
  if (!ParseSecondsOption(line, "--wait", ticks, problem)) {
    return Say("launch: " + problem), kExitUsage;
  }
  if (ticks > 0) waitSeconds = ticks / kTicksPerSecond;
  if (line.Has("--port") && (port.empty() || port.size() > 127)) {
    return Say("launch: " + NotAPortName(port)), kExitUsage;
  }
  const Result result = Launch(line.words[0], port, waitSeconds);
  const bool explain = line.Has("--explain");
  const bool found = result.search.Found();
  if (line.Has("--json")) {
    PrintJson(ResultModel(result, explain));
  } else {
    if (explain) PrintWays(result.search);
    if (found) PrintResult(result);
  }
  if (!found) SayNotFound(result.search, line.words[0]);
  if (found && result.exit != kExitOk) Say("launch: " + OutcomeText(result));
  return result.exit;
}

Verb LaunchVerb() {
  return {"launch",
          "PATH|BUNDLE-ID|'SIGN' [--port NAME] [--wait SECONDS] [--explain] [--json]",
          "Finds an application, opens it, and waits for its port.",
          "The argument is tried as the path of a bundle or program, then as a bundle\n"
          "identifier, then as a four-character signature. The first match is opened. An\n"
          "application that already runs is not opened again.\n"
          "\n"
          "Without --port, any port of the program will do. Without --wait, the command\n"
          "waits 10 seconds for a port given with --port, and for another port only as\n"
          "long as opening takes, at most 2 seconds.\n"
          "\n"
          "JSON: one object with application, by (path, identifier, signature), folder\n"
          "(where the application was found; null for a path), program, outcome, pid,\n"
          "port, seconds (from opening until the port was seen; null unless started) and\n"
          "error. The outcome is started, alreadyRunning, underWay (another process is\n"
          "opening it), notFound, failed (error says why), ended (without claiming the\n"
          "port) or noPort (not in time). With --explain also ways, an array of objects\n"
          "with way, found and text.\n",
          {{"--port", "NAME", "the port to wait for"},
           {"--wait", "SECONDS", "the longest time to wait for the port"},
           {"--explain", nullptr, "show why each way did or did not find it"},
           kJsonOption},
          1,
          1,
          RunLaunch};
}
