#include "tools/applications/program_state.h"

#include <cstdio>
#include <ctime>

#include <CoreServices/CoreServices.h>

#include "platform/host/session/introspect.h"
#include "tools/applications/launch_plan.h"
#include "tools/applications/search.h"
#include "tools/values/port_text.h"

namespace {

constexpr size_t kLinesShown = 5;
constexpr size_t kLinesRead = 200;

bool Describe(pid_t pid, HostProcessInfo* info) {
  ProcessSerialNumber psn;
  return GetProcessForPID(pid, &psn) == 0 && HostDescribeProcess(psn, info);
}

// The process whose program this is, preferably one that owns a port.
pid_t FindProcess(const std::string& program) {
  for (const HostNameInfo& name : HostListNames()) {
    if (name.program == program && name.ownerPid > 0) return name.ownerPid;
  }
  ProcessSerialNumber psn = {0, kNoProcess};
  while (GetNextProcess(&psn) == noErr) {
    HostProcessInfo info;
    if (HostDescribeProcess(psn, &info) && info.program == program) return info.pid;
  }
  return 0;
}

void AddProcess(ProgramState& state, pid_t pid) {
  if (pid <= 0 || !Describe(pid, &state.process)) return;
  state.use = HostMeasureProcess(pid);
  for (const HostNameInfo& name : HostListNames()) {
    if (name.hidden || name.ownerPid != pid) continue;
    state.ports.push_back(name.name);
    const int count = HostCountConnections(name.name);
    if (count >= 0) state.connections = (state.connections < 0 ? 0 : state.connections) + count;
  }
}

// Reads the end of the program's output. The openers' own lines begin with "-- ".
void AddLog(ProgramState& state, const std::string& program) {
  if (program.empty()) return;
  HostCutProgramLogs();
  const std::string path = HostProgramLogPath(program);
  std::vector<std::string> said;
  bool exists = false;
  for (const std::string& line : HostLastLogLines(path, kLinesRead)) {
    exists = true;
    if (!line.starts_with("-- ")) {
      said.push_back(line);
    } else if (line.find(" starting ") != std::string::npos) {
      said.clear();
      state.lastEnd.clear();
    } else {
      state.lastEnd = line.substr(3);
    }
  }
  if (!exists) return;
  state.log = path;
  const size_t first = said.size() > kLinesShown ? said.size() - kLinesShown : 0;
  state.lastLines.assign(said.begin() + static_cast<std::ptrdiff_t>(first), said.end());
}

// The local time at which the process began.
std::string SinceText(double ageSeconds) {
  const time_t began = std::time(nullptr) - static_cast<time_t>(ageSeconds);
  char text[40] = "";
  tm local;
  if (localtime_r(&began, &local) != nullptr) std::strftime(text, sizeof text, "%F %T", &local);
  return text;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + EscapedBytes(name);
  return text;
}

JsonValue Known(long long number) { return number >= 0 ? JsonValue::Integer(number) : JsonValue(); }

JsonValue::Array Texts(const std::vector<std::string>& lines) {
  JsonValue::Array texts;
  for (const std::string& line : lines) texts.push_back(line);
  return texts;
}

}  // namespace

ProgramState StateOfPort(const std::string& name) {
  ProgramState state;
  for (const HostNameInfo& each : HostListNames()) {
    if (each.name != name) continue;
    AddProcess(state, each.ownerPid);
    state.process.program = each.program;
    state.application = HostApplicationOfProgram(each.program);
    AddLog(state, each.program);
  }
  return state;
}

ProgramState StateOfApplication(const HostApplicationInfo& application) {
  ProgramState state;
  state.application = application;
  AddProcess(state, application.program.empty() ? 0 : FindProcess(application.program));
  AddLog(state, application.program);
  return state;
}

std::string BundleOf(const std::string& word) {
  const ProgramState owner = StateOfPort(word);
  if (owner.process.pid > 0) return owner.application.path;
  const Search search = FindApplication(word);
  if (search.Found()) return search.path;
  const VLTLaunchSpec* const daemon = LaunchSpecificationOf(word);
  return daemon != nullptr ? PlanLaunch(*daemon).search.path : "";
}

std::vector<TableRow> StateRows(const ProgramState& state) {
  std::vector<TableRow> rows;
  const auto add = [&](const char* name, const std::string& text) {
    if (!text.empty()) rows.push_back({name, OneLine(text)});
  };
  const bool runs = state.process.pid > 0;
  if (runs) add("process", std::to_string(state.process.pid));
  add("program", runs ? state.process.program : state.application.program);
  add("application", state.application.path);
  add("identifier", state.application.identifier);
  add("problem", state.application.problem);
  if (runs) {
    const HostProcessUse& use = state.use;
    if (use.ageSeconds >= 0) {
      add("since", SinceText(use.ageSeconds) + ", " + AgeText(use.ageSeconds));
    }
    if (use.residentBytes >= 0) add("memory", SizeText(use.residentBytes));
    if (use.descriptors >= 0) add("descriptors", std::to_string(use.descriptors));
    if (state.connections >= 0) add("connections", std::to_string(state.connections));
    add("ports", Joined(state.ports));
  } else {
    add("last end", state.lastEnd);
  }
  add("log", state.log);
  if (!runs) {
    for (const std::string& line : state.lastLines) add("said", line);
  }
  return rows;
}

void AddState(JsonValue& model, const ProgramState& state) {
  const bool runs = state.process.pid > 0;
  AddBytesOrNull(model, "application", state.application.path);
  AddBytesOrNull(model, "identifier", state.application.identifier);
  AddBytesOrNull(model, "program", runs ? state.process.program : state.application.program);
  model.Add("pid", runs ? JsonValue::Integer(state.process.pid) : JsonValue());
  const bool hasAge = runs && state.use.ageSeconds >= 0;
  model.Add("since", hasAge ? JsonValue(SinceText(state.use.ageSeconds)) : JsonValue());
  model.Add("ageSeconds", hasAge ? JsonValue::Real(state.use.ageSeconds) : JsonValue());
  model.Add("memoryBytes", Known(state.use.residentBytes));
  model.Add("descriptors", Known(state.use.descriptors));
  model.Add("connections", Known(state.connections));
  model.Add("ports", Texts(state.ports));
  AddBytesOrNull(model, "log", state.log);
  AddBytesOrNull(model, "lastEnd", state.lastEnd);
  model.Add("lastLines", Texts(state.lastLines));
  AddBytesOrNull(model, "problem", state.application.problem);
}

std::string SizeText(long long bytes) {
  const struct {
    double bytes;
    const char* unit;
  } units[] = {{1 << 30, "GiB"}, {1 << 20, "MiB"}, {1 << 10, "KiB"}};
  char text[40];
  for (const auto& unit : units) {
    if (static_cast<double>(bytes) < unit.bytes) continue;
    std::snprintf(text, sizeof text, "%.1f %s", static_cast<double>(bytes) / unit.bytes, unit.unit);
    return text;
  }
  return std::to_string(bytes) + " bytes";
}
