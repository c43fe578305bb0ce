#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "tools/output.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/losses.h"
#include "tools/plist/merge.h"
#include "tools/plist/text.h"
#include "tools/values/port_text.h"
#include "tools/verbs/plist_request.h"
#include "tools/verbs/verb.h"

// The actions of `vltctl plist` that compare lists.

namespace {

// Writes a list to -o, or to standard output. Returns an exit status after a message.
int WriteList(const PlistRequest& request, CFTypeRef list, CFPropertyListFormat format,
              JsonValue& model) {
  const std::string out = request.line.Has("-o") ? request.Option("-o") : "-";
  std::string bytes;
  PlistProblem problem;
  if (!PlistBytes(list, format, bytes, problem) || !WritePlistFile(out, bytes, problem)) {
    return TellPlist(problem);
  }
  model.Add("to", FormatName(format));
  model.AddBytes("out", out);
  model.Add("bytes", JsonValue::Unsigned(bytes.size()));
  return kExitOk;
}

// Returns what is wrong with -o, or "".
std::string WrongOut(const PlistRequest& request) {
  const std::string out = request.line.Has("-o") ? request.Option("-o") : "-";
  if (out.empty()) return "-o needs the name of a file";
  if (out == "-" && request.WantsJson()) return "--json needs -o OUT";
  return "";
}

std::string ConflictLines(const PlistConflict& conflict) {
  std::string lines;
  const std::string path = conflict.path.empty() ? "(the list)" : OneLine(conflict.path);
  for (const auto& [name, value] : {std::pair{"base  ", conflict.base},
                                    {"ours  ", conflict.ours},
                                    {"theirs", conflict.theirs}}) {
    lines += std::string(name) + " " + path +
             (value != nullptr ? " = " + PlistLine(value) : " (none)") + "\n";
  }
  return lines;
}

JsonValue ConflictModel(const PlistConflict& conflict) {
  JsonValue model = JsonValue::Object();
  model.Add("path", conflict.path);
  AddValue(model, "base", conflict.base);
  AddValue(model, "ours", conflict.ours);
  AddValue(model, "theirs", conflict.theirs);
  return model;
}

}  // namespace

CFPropertyListFormat FormatToWrite(CFPropertyListFormat read) {
  return read == kCFPropertyListBinaryFormat_v1_0 ? read : kCFPropertyListXMLFormat_v1_0;
}

void AddValue(JsonValue& model, const std::string& name, CFTypeRef value) {
  model.Add(name + "Type", value != nullptr ? KindName(KindOf(value)) : JsonValue());
  model.Add(name, value != nullptr ? JsonOfPlist(value) : JsonValue());
}

JsonValue DifferenceModel(const PlistDifference& difference) {
  JsonValue model = JsonValue::Object();
  model.Add("path", difference.path);
  AddValue(model, "before", difference.before);
  AddValue(model, "after", difference.after);
  return model;
}

std::string DifferenceLines(const PlistDifference& difference) {
  std::string lines;
  auto add = [&](const char* sign, CFTypeRef value) {
    if (value == nullptr) return;
    lines += sign + OneLine(difference.path) + " = " + PlistLine(value) + "\n";
  };
  add("- ", difference.before);
  add("+ ", difference.after);
  return lines;
}

int DiffFiles(const PlistRequest& request) {
  PlistFile files[2];
  for (size_t i = 0; i < 2; ++i) {
    PlistProblem problem;
    if (!ReadPlistFile(request.words[i], true, files[i], problem)) return TellPlist(problem);
  }
  int exit = kExitOk;
  DiffPlists(files[0].list, files[1].list, [&](const PlistDifference& difference) {
    exit = kExitGeneral;
    if (request.WantsJson())
      PrintJson(DifferenceModel(difference));
    else
      Print(DifferenceLines(difference));
  });
  return exit;
}

int MergeFiles(const PlistRequest& request) {
  const std::string preferred = request.Option("--prefer");
  const bool isPreferring = request.line.Has("--prefer");
  if (isPreferring && preferred != "ours" && preferred != "theirs") {
    return PlistUsage("--prefer: " + Quoted(preferred) + " is neither ours nor theirs");
  }
  if (const std::string problem = WrongOut(request); !problem.empty()) return PlistUsage(problem);
  PlistFile files[3];
  for (size_t i = 0; i < 3; ++i) {
    PlistProblem problem;
    if (!ReadPlistFile(request.words[i], true, files[i], problem)) return TellPlist(problem);
  }
  std::vector<PlistConflict> conflicts;
  const OwnedRef<CFTypeRef> merged =
      MergePlists(files[0].list, files[1].list, files[2].list, preferred == "theirs", conflicts);
  const bool isWritten = conflicts.empty() || isPreferring;
  for (const PlistConflict& conflict : conflicts) {
    const std::string lines = ConflictLines(conflict);
    if (request.WantsJson())
      PrintJson(ConflictModel(conflict));
    else if (!isWritten)
      Print(lines);
    else
      Say("plist: both sides changed a value; " + preferred + " is taken\n" +
          lines.substr(0, lines.size() - 1));
  }
  if (!isWritten) {
    Say("plist: nothing is written: both sides changed " + std::to_string(conflicts.size()) +
        (conflicts.size() == 1 ? " value" : " values") +
        ", differently; --prefer ours or --prefer theirs decides");
    return kExitGeneral;
  }
  // The form of the own file, unless it cannot hold what comes from the others.
  CFPropertyListFormat format = FormatToWrite(files[1].format);
  if (!PlistLoss(merged, format).empty()) format = kCFPropertyListBinaryFormat_v1_0;
  JsonValue model = JsonValue::Object();
  model.Add("outcome", "merged");
  model.Add("conflicts", JsonValue::Unsigned(conflicts.size()));
  const int exit = WriteList(request, merged, format, model);
  if (exit == kExitOk && request.WantsJson()) PrintJson(model);
  return exit;
}

int CanonicalFile(const PlistRequest& request) {
  if (const std::string problem = WrongOut(request); !problem.empty()) return PlistUsage(problem);
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(request.words[0], true, file, problem)) return TellPlist(problem);
  const OwnedRef<CFTypeRef> sorted = SortedPlist(file.list);
  const bool isXml = PlistLoss(sorted, kCFPropertyListXMLFormat_v1_0).empty();
  JsonValue model = JsonValue::Object();
  model.AddBytes("file", request.words[0]);
  model.Add("from", FormatName(file.format));
  const int exit =
      WriteList(request, sorted,
                isXml ? kCFPropertyListXMLFormat_v1_0 : kCFPropertyListBinaryFormat_v1_0, model);
  if (exit == kExitOk && request.WantsJson()) PrintJson(model);
  return exit;
}
