#include <CoreServices/CoreServices.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/applications/program_state.h"
#include "tools/applications/search.h"
#include "tools/table.h"
#include "tools/values/port_text.h"
#include "tools/values/value_types.h"
#include "tools/verbs/verb.h"

// Lists the applications that can be found, and the bundles that cannot.

namespace {

JsonValue ApplicationModel(const HostApplicationInfo& info, pid_t pid) {
  JsonValue model = JsonValue::Object();
  AddBytesOrNull(model, "identifier", info.identifier);
  model.Add("signature", info.signature != 0 ? JsonValue(CodeText(info.signature)) : JsonValue());
  AddBytesOrNull(model, "version", info.version);
  AddBytesOrNull(model, "bundle", info.path);
  AddBytesOrNull(model, "folder", info.folder);
  AddBytesOrNull(model, "program", info.program);
  model.Add("pid", pid > 0 ? JsonValue::Integer(pid) : JsonValue());
  AddBytesOrNull(model, "problem", info.problem);
  return model;
}

std::string Cell(const JsonValue& model, const char* name) {
  const JsonValue& value = *model.Find(name);
  return value.IsNull() ? "-" : TableCell(value);
}

TableRow RowOf(const JsonValue& model) {
  const bool isBroken = !model.Find("problem")->IsNull();
  return {Cell(model, "identifier"), Cell(model, "signature"),
          isBroken ? "broken" : Cell(model, "pid"), Cell(model, "bundle")};
}

}  // namespace

static int RunApps(const CommandLine& line) {
  std::vector<TableRow> rows;
  size_t count = 0;
  for (const HostApplicationInfo& info : HostDescribeAllBundles()) {
    const JsonValue model = ApplicationModel(info, StateOfApplication(info).process.pid);
    ++count;
    if (line.Has("--json")) {
      PrintJson(model);
    } else {
      rows.push_back(RowOf(model));
    }
    if (!info.problem.empty()) Say(EscapedBytes(info.path) + ": " + OneLine(info.problem));
  }
  if (!line.Has("--json")) PrintTable({"IDENTIFIER", "SIGN", "PID", "BUNDLE"}, std::move(rows));
  if (count != 0) return kExitOk;
  std::string folders;
  for (const std::string& folder : HostListApplicationFolders()) folders += " " + folder;
  Say("no applications are installed in" + folders);
  return kExitOk;
}

Verb AppsVerb() {
  return {"apps",
          "[--json]",
          "Lists the installed applications.",
          "Prints one line for each bundle in the application folders: identifier,\n"
          "signature, the id of a process that runs it (a dash if none does, broken if it\n"
          "cannot be opened), and its path. What is wrong with a broken one is said on\n"
          "standard error.\n"
          "\n"
          "Example: vltctl apps\n"
          "\n"
          "JSON: one object for each bundle with identifier, signature, version, bundle,\n"
          "folder, program, pid and problem. A missing value is null.\n",
          {kJsonOption},
          0,
          0,
          RunApps};
}
