#include <CoreServices/CoreServices.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/host/applications/introspect.h"
#include "tools/table.h"
#include "tools/values/value_types.h"
#include "tools/verbs/verb.h"

namespace {

// Returns null for a process without a bundle, because only bundles have codes.
JsonValue Code(const HostProcessInfo& info, OSType code) {
  return info.bundle.empty() ? JsonValue() : JsonValue(CodeText(code));
}

void AddText(JsonValue& object, const char* name, const std::string& text) {
  if (text.empty()) {
    object.Add(name, JsonValue());
  } else {
    object.AddBytes(name, text);
  }
}

JsonValue ProcessModel(const ProcessSerialNumber& psn, const HostProcessInfo& info) {
  JsonValue process = JsonValue::Object();
  process.Add("high", JsonValue::Unsigned(psn.highLongOfPSN));
  process.Add("low", JsonValue::Unsigned(psn.lowLongOfPSN));
  process.Add("pid", JsonValue::Integer(info.pid));
  process.Add("signature", Code(info, info.signature));
  process.Add("type", Code(info, info.type));
  AddText(process, "identifier", info.identifier);
  AddText(process, "bundle", info.bundle);
  AddText(process, "program", info.program);
  return process;
}

// A missing value is shown as a dash.
std::string Cell(const JsonValue& process, const char* name) {
  const JsonValue& value = *process.Find(name);
  return value.IsNull() ? "-" : TableCell(value);
}

TableRow RowOf(const JsonValue& process) {
  return {Cell(process, "high") + ":" + Cell(process, "low"),
          Cell(process, "pid"),
          Cell(process, "signature"),
          Cell(process, "type"),
          Cell(process, "identifier"),
          Cell(process, "program")};
}

}  // namespace

static int RunPs(const CommandLine& line) {
  std::vector<JsonValue> processes;
  ProcessSerialNumber psn = {0, kNoProcess};
  while (GetNextProcess(&psn) == noErr) {
    HostProcessInfo info;
    if (!HostDescribeProcess(psn, &info)) continue;  // it has ended meanwhile
    if (info.bundle.empty() && line.Has("--apps")) continue;
    processes.push_back(ProcessModel(psn, info));
  }
  if (processes.empty()) Say("no applications are running");
  if (line.Has("--json")) {
    for (const JsonValue& process : processes) PrintJson(process);
    return kExitOk;
  }
  std::vector<TableRow> rows;
  for (const JsonValue& process : processes) rows.push_back(RowOf(process));
  PrintTable({"NUMBER", "PID", "SIGN", "TYPE", "IDENTIFIER", "PROGRAM"}, std::move(rows));
  return kExitOk;
}

Verb PsVerb() {
  return {"ps",
          "[--apps] [--json]",
          "Lists this user's processes that have a serial number.",
          "Prints one line for each process: serial number (high:low), process id, the\n"
          "signature, type and identifier of its application bundle, and the program. A\n"
          "dash stands for a missing value.\n"
          "\n"
          "Example: vltctl ps --apps\n"
          "\n"
          "JSON: one object for each process with high, low, pid, signature, type,\n"
          "identifier, bundle and program. A missing value is null. If a path is not\n"
          "UTF-8, bundleHex or programHex has its bytes.\n",
          {{"--apps", nullptr, "only processes of application bundles"}, kJsonOption},
          0,
          0,
          RunPs,
          false};
}
