#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <thread>

#include <CoreServices/CoreServices.h>

#include "platform/host/applications/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/search.h"
#include "tools/table.h"
#include "tools/values/absence.h"
#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

// Finds an application by the launcher's ways, one after the other, opens it, and prints how that
// went.

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kDefaultWait = 10;  // seconds, for a port given with --port
constexpr double kTicksPerSecond = 60;
constexpr auto kBetweenLooks = std::chrono::milliseconds(2);

// Whether a process is the one that was opened, of its POSIX session, or runs its program.
bool BelongsTo(const HostNameInfo& owner, const HostOpeningInfo& info) {
  if (owner.ownerPid <= 0) return false;
  if (owner.ownerPid == info.pid || owner.program == info.program) return true;
  const pid_t session = getsid(owner.ownerPid);
  return info.pid > 0 && session > 0 && (session == info.pid || session == getsid(info.pid));
}

// The port that Launch waits for, or "" if it does not exist yet. A port of another program does
// not count; `stranger` receives its owner.
std::string SeenPort(const std::string& wanted, const HostOpeningInfo& info,
                     HostNameInfo* stranger) {
  if (wanted.empty() && !info.port.empty() && info.port[0] != 1) return info.port;
  for (const HostNameInfo& name : HostListNames()) {
    if (wanted.empty() ? name.hidden : name.name != wanted) continue;
    if (BelongsTo(name, info)) return name.name;
    if (!wanted.empty()) *stranger = name;
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
  HostNameInfo stranger;          // another program that owns the awaited port
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
    result.port = SeenPort(wanted, result.info, &result.stranger);
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
  result.search = FindApplication(word);
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

// The launch specification of the daemon that is being opened; null for any other application. Only
// daemons have launch preferences, which the launcher follows and this verb does not.
const VLTLaunchSpec* SpecificationOf(const Result& result, const std::string& word) {
  const VLTLaunchSpec* specification = LaunchSpecificationOf(word);
  if (specification != nullptr || !result.search.Found()) return specification;
  return LaunchSpecificationOf(FoundApplication(result.search).identifier);
}

JsonValue ResultModel(const Result& result, const VLTLaunchSpec* specification, bool explain) {
  JsonValue model = JsonValue::Object();
  const auto addBytes = [&](const char* name, const std::string& bytes) {
    AddBytesOrNull(model, name, bytes);
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
  const bool hasEnd = result.info.waitStatus.has_value();
  model.Add("end", hasEnd ? JsonValue(HostEndText(*result.info.waitStatus)) : JsonValue());
  addBytes("log", result.info.log);
  if (!explain) return model;
  model.Add("ways", SearchModel(result.search));
  model.Add("broken", BrokenModel(result.search));
  addBytes("problem", FoundApplication(result.search).problem);
  model.Add("launch",
            specification != nullptr ? PlanModel(PlanLaunch(*specification)) : JsonValue());
  return model;
}

// Prints the last lines of output of a program that has ended.
void SayLastLines(const Result& result) {
  constexpr size_t kLines = 5;
  if (std::string(result.outcome) != "ended" || result.info.log.empty()) return;
  for (const std::string& line : HostLastLogLines(result.info.log, kLines)) {
    if (!line.starts_with("-- ")) Say("it said: " + OneLine(line));
  }
  Say("its log is " + OneLine(result.info.log));
}

std::string OutcomeText(const Result& result) {
  const std::string outcome = result.outcome;
  const std::string pid =
      result.info.pid != 0 ? ", process " + std::to_string(result.info.pid) : "";
  if (outcome == "failed") {
    const std::string why = FoundApplication(result.search).problem;
    return "cannot be opened: " + (why.empty() ? "" : why + ": ") + ErrorSentence(result.err);
  }
  if (outcome == "alreadyRunning") return "already running" + pid;
  if (outcome == "underWay") return "another process is opening it" + pid;
  if (outcome == "ended") {
    const std::string how =
        result.info.waitStatus ? " with " + HostEndText(*result.info.waitStatus) : "";
    return "started, but ended" + how + " without claiming the port" + pid;
  }
  if (outcome == "noPort") {
    std::string text = "started, but did not claim the port in time" + pid;
    if (result.stranger.ownerPid <= 0) return text;
    return text + "; process " + std::to_string(result.stranger.ownerPid) + " (" +
           EscapedBytes(result.stranger.program) + ") owns it";
  }
  return "started" + pid;
}

std::string PortText(const Result& result) {
  if (result.port.empty()) return "none seen";
  if (!result.seconds) return EscapedBytes(result.port);
  char after[40];
  std::snprintf(after, sizeof after, ", after %.1f ms", *result.seconds * 1000);
  return EscapedBytes(result.port) + after;
}

void SayNotFound(const Search& search, const std::string& word, bool isExplained) {
  const bool isPath = word.find('/') != std::string::npos;
  Say("launch: no application found for \"" + EscapedBytes(word) + "\"" +
      (isPath ? ": " + search.ways[0].text : ""));
  if (isPath || isExplained) return;
  struct stat info;
  if (stat(word.c_str(), &info) == 0) {
    Say("a file of that name is here; vltctl launch ./" + EscapedBytes(word) + " opens it");
  }
  std::vector<std::string> known;
  for (const HostApplicationInfo& each : HostDescribeApplications()) {
    known.push_back(each.identifier);
  }
  const std::vector<std::string> like = NamesLike(word, known);
  if (!like.empty()) Say("did you mean " + EscapedBytes(like[0]) + "?");
  for (const std::string& text : search.broken) Say("broken: " + OneLine(text));
  Say("vltctl apps lists the applications; --explain shows where this one was looked for");
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
  const VLTLaunchSpec* specification = explain ? SpecificationOf(result, line.words[0]) : nullptr;
  if (line.Has("--json")) {
    PrintJson(ResultModel(result, specification, explain));
  } else {
    if (explain) PrintSearch(result.search);
    if (specification != nullptr) PrintTable(PlanRows(PlanLaunch(*specification)));
    if (found) PrintResult(result);
  }
  if (!found) SayNotFound(result.search, line.words[0], explain);
  if (found && result.exit != kExitOk) Say("launch: " + OutcomeText(result));
  SayLastLines(result);
  return result.exit;
}

Verb LaunchVerb() {
  return {"launch",
          "PATH|BUNDLE-ID|'SIGN' [--port NAME] [--wait SECONDS] [--explain] [--json]",
          "Finds an application, opens it, and waits for its port.",
          "An argument with a slash is the path of a bundle or program. Any other is tried\n"
          "as a bundle identifier, then as a four-character signature. An application that\n"
          "already runs is not opened again. Only a port of the opened program, or of its\n"
          "POSIX session, counts.\n"
          "\n"
          "Examples: vltctl launch com.veltrane.sessionmonitor.1.1\n"
          "          vltctl launch ./Camera.app --port com.example.camera --wait 5\n"
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
          "port) or noPort (not in time). end says how a program ended, and log is the\n"
          "file with its output; both are null if unknown. With --explain also ways, an\n"
          "array of objects with way, found and text, broken, an array of texts about\n"
          "broken bundles, problem, why the program cannot run, or null, and launch: for\n"
          "one of the package's daemons, its launch preferences as for status, else null.\n",
          {{"--port", "NAME", "the port to wait for"},
           {"--wait", "SECONDS", "the longest time to wait for the port"},
           {"--explain", nullptr, "show why each way did or did not find it"},
           kJsonOption},
          1,
          1,
          RunLaunch};
}
