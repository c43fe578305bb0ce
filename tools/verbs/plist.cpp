#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/output.h"
#include "tools/plist/file.h"
#include "tools/plist/leaf.h"
#include "tools/plist/losses.h"
#include "tools/plist/path.h"
#include "tools/plist/text.h"
#include "tools/verbs/plist_request.h"
#include "tools/verbs/verb.h"

namespace {

struct Action {
  const char* name;
  const char* synopsis;
  size_t minWords;
  size_t maxWords;
  std::vector<std::string_view> options;  // besides --json
  int (*run)(const PlistRequest& request);
};

int NotFound(const std::string& problem) {
  Say("plist: " + problem);
  return kExitNotFound;
}

std::string NotAPath(const std::string& text) {
  return Quoted(text) + " is not a key path: nothing follows its last backslash";
}

void PrintValue(const PlistRequest& request, CFTypeRef value) {
  if (!request.WantsJson()) return PrintPlistText(value);
  PrintPlistJson(value);
  Print("\n");
}

int RunPrint(const PlistRequest& request) {
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(request.words[0], true, file, problem)) return TellPlist(problem);
  PrintValue(request, file.list);
  return kExitOk;
}

JsonValue LintModel(const std::string& name, const PlistFile& file, const PlistProblem& problem) {
  const HostPropertyListError& place = problem.place;
  const bool isFine = problem.exit == kExitOk;
  auto number = [](size_t known) { return known != 0 ? JsonValue::Unsigned(known) : JsonValue(); };
  JsonValue model = JsonValue::Object();
  model.AddBytes("file", name);
  model.Add("ok", JsonValue::Bool(isFine));
  model.Add("format", file.format != 0 ? FormatName(file.format) : JsonValue());
  model.Add("line", number(place.line));
  model.Add("column", number(place.column));
  model.Add("offset", place.text.empty() ? JsonValue() : JsonValue::Unsigned(place.offset));
  model.Add("problem", isFine ? JsonValue() : place.text.empty() ? problem.text : place.text);
  model.Add("hint", place.hint.empty() ? JsonValue() : place.hint);
  model.Add("errno", problem.error != 0 ? JsonValue::Integer(problem.error) : JsonValue());
  return model;
}

// In the form of compilers' messages, so that editors can jump to the position.
std::string LintLine(const std::string& name, const PlistFile& file, const PlistProblem& problem) {
  if (problem.exit == kExitOk) return name + ": ok (" + FormatName(file.format) + ")";
  const HostPropertyListError& place = problem.place;
  if (place.text.empty()) return name + ": " + problem.text;
  std::string text = name + ":";
  if (place.line != 0) {
    text += std::to_string(place.line) + ":" + std::to_string(place.column) + ": ";
  } else {
    text += " byte " + std::to_string(place.offset) + ": ";
  }
  return text + place.text + (place.hint.empty() ? "" : " (" + place.hint + ")");
}

int RunLint(const PlistRequest& request) {
  int exit = kExitOk;
  for (const std::string& name : request.words) {
    PlistFile file;
    PlistProblem problem;
    if (!ReadPlistFile(name, false, file, problem)) exit = problem.exit;
    if (request.WantsJson())
      PrintJson(LintModel(name, file, problem));
    else
      Print(LintLine(name, file, problem) + "\n");
  }
  return exit;
}

int RunConvert(const PlistRequest& request) {
  const std::string& name = request.words[1];
  const std::string out = request.line.Has("-o") ? request.Option("-o") : "-";
  CFPropertyListFormat format = 0;
  if (!FormatNamed(request.words[0], format)) {
    return PlistUsage(UnknownFormat(request.words[0]));
  }
  if (out.empty()) return PlistUsage("-o needs the name of a file");
  if (out == "-" && request.WantsJson()) return PlistUsage("convert --json needs -o OUT");
  PlistFile file;
  PlistProblem problem;
  std::string bytes;
  if (!ReadPlistFile(name, true, file, problem) || !PlistBytes(file.list, format, bytes, problem)) {
    return TellPlist(problem);
  }
  if (const std::string loss = PlistLoss(file.list, format); !loss.empty()) {
    Say("plist: " + problem.file + ": " + loss);
  }
  if (!WritePlistFile(out, bytes, problem)) return TellPlist(problem);
  if (!request.WantsJson()) return kExitOk;
  JsonValue model = JsonValue::Object();
  model.AddBytes("file", name);
  model.Add("from", FormatName(file.format));
  model.Add("to", FormatName(format));
  model.AddBytes("out", out);
  model.Add("bytes", JsonValue::Unsigned(bytes.size()));
  PrintJson(model);
  return kExitOk;
}

int RunExtract(const PlistRequest& request) {
  PlistPath path;
  if (!ParsePlistPath(request.words[1], path)) return PlistUsage(NotAPath(request.words[1]));
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(request.words[0], true, file, problem)) return TellPlist(problem);
  std::string absent;
  CFTypeRef value = FindInPlist(file.list, path, absent);
  if (value == nullptr) return NotFound(absent);
  if (!IsContainer(KindOf(value)) && !request.WantsJson())
    Print(LeafText(value) + "\n");
  else
    PrintValue(request, value);
  return kExitOk;
}

// Makes the value to store from an argument. Returns null after a message if it is not a value.
OwnedRef<CFTypeRef> ValueOf(const PlistRequest& request, const std::string& word,
                            CFTypeRef replaced) {
  std::string problem;
  OwnedRef<CFTypeRef> value(CreateValueOfType(request.Option("--type"), word, replaced, problem));
  if (value == nullptr) PlistUsage(problem);
  return value;
}

int Change(const PlistRequest& request, PlistChange change, const char* outcome) {
  const std::string& name = request.words[0];
  PlistPath path;
  if (!ParsePlistPath(request.words[1], path)) return PlistUsage(NotAPath(request.words[1]));
  if (path.empty())
    return PlistUsage("the key path is empty; the whole list cannot be changed at once");
  if (name == "-" && request.WantsJson()) return PlistUsage("--json needs a file");
  const std::string type = request.Option("--type");
  if (!type.empty() && KindNamed(type) == PlistKind::kNone) {
    return PlistUsage(UnknownPlistType(type));
  }
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(name, false, file, problem)) return TellPlist(problem);
  std::string ignored, refused;
  OwnedRef<CFTypeRef> value;
  if (change != PlistChange::kRemove) {
    CFTypeRef old = change == PlistChange::kSet ? FindInPlist(file.list, path, ignored) : nullptr;
    value = ValueOf(request, request.words[2], old);
    if (value == nullptr) return kExitUsage;
  }
  if (!ChangePlist(file.list, path, change, value, refused)) return NotFound(refused);
  std::string bytes;
  if (!PlistBytes(file.list, FormatToWrite(file.format), bytes, problem) ||
      !WritePlistFile(name, bytes, problem)) {
    return TellPlist(problem);
  }
  if (!request.WantsJson()) return kExitOk;
  JsonValue model = JsonValue::Object();
  model.AddBytes("file", name);
  model.Add("path", PlistPathText(path));
  model.Add("outcome", outcome);
  PrintJson(model);
  return kExitOk;
}

int RunSet(const PlistRequest& request) { return Change(request, PlistChange::kSet, "set"); }
int RunInsert(const PlistRequest& request) {
  return Change(request, PlistChange::kInsert, "inserted");
}
int RunRemove(const PlistRequest& request) {
  return Change(request, PlistChange::kRemove, "removed");
}

const std::vector<Action>& Actions() {
  static const std::vector<Action> actions = {
      {"print", "FILE", 1, 1, {}, RunPrint},
      {"lint", "FILE ...", 1, SIZE_MAX, {}, RunLint},
      {"convert", "xml|binary|json FILE [-o OUT]", 2, 2, {"-o"}, RunConvert},
      {"canonical", "FILE [-o OUT]", 1, 1, {"-o"}, CanonicalFile},
      {"extract", "FILE PATH", 2, 2, {}, RunExtract},
      {"set", "FILE PATH VALUE [--type TYPE]", 3, 3, {"--type"}, RunSet},
      {"insert", "FILE PATH VALUE [--type TYPE]", 3, 3, {"--type"}, RunInsert},
      {"remove", "FILE PATH", 2, 2, {}, RunRemove},
      {"diff", "FILE FILE", 2, 2, {}, DiffFiles},
      {"merge", "BASE OURS THEIRS [-o OUT] [--prefer SIDE]", 3, 3, {"-o", "--prefer"}, MergeFiles},
  };
  return actions;
}

const Action* FindAction(const std::string& name) {
  for (const Action& action : Actions()) {
    if (name == action.name) return &action;
  }
  return nullptr;
}

int UnknownAction(const std::string& name) {
  std::vector<std::string_view> names;
  for (const Action& action : Actions()) names.push_back(action.name);
  const std::string near = NearestWord(name, names);
  return PlistUsage("unknown action " + Quoted(name) +
                    (near.empty() ? "" : "; did you mean " + near + "?"));
}

}  // namespace

int PlistUsage(const std::string& problem) {
  Say("plist: " + problem);
  return kExitUsage;
}

int TellPlist(const PlistProblem& problem) {
  Say((problem.file == "standard output" ? "" : "plist: ") + problem.Sentence());
  return problem.exit;
}

static int RunPlist(const CommandLine& line) {
  const Action* action = FindAction(line.words[0]);
  if (action == nullptr) return UnknownAction(line.words[0]);
  PlistRequest request = {line, {line.words.begin() + 1, line.words.end()}};
  if (request.words.size() < action->minWords || request.words.size() > action->maxWords) {
    return PlistUsage(std::string("usage: vltctl plist ") + action->name + " " + action->synopsis);
  }
  for (const auto& [option, value] : line.options) {
    const bool isTaken =
        option == "--json" || std::ranges::find(action->options, option) != action->options.end();
    if (!isTaken) return PlistUsage(std::string(action->name) + " does not take " + option);
  }
  return action->run(request);
}

Verb PlistVerb() {
  return {"plist",
          "print|lint|convert|canonical|extract|set|insert|remove|diff|merge [FILE ...] [--json]",
          "Prints, checks, converts, changes, compares and merges property lists.",
          "  print FILE                 prints the whole list for people\n"
          "  lint FILE ...              prints FILE:LINE:COLUMN: FAULT (HINT)\n"
          "  convert xml|binary|json FILE [-o OUT]\n"
          "                             writes to OUT, or to standard output\n"
          "  canonical FILE [-o OUT]    writes the one form that all equal lists have\n"
          "  extract FILE PATH          prints one value\n"
          "  set FILE PATH VALUE        replaces a value, or adds it under a new key\n"
          "  insert FILE PATH VALUE     adds a new key, or a value before an array index\n"
          "  remove FILE PATH           removes a key or an array item\n"
          "  diff FILE FILE             prints removed (-) and added (+) values\n"
          "  merge BASE OURS THEIRS [-o OUT]\n"
          "                             writes a list with the changes of both sides, or\n"
          "                             prints the conflicts and writes nothing\n"
          "\n"
          "FILE may be -, for standard input (and output). All commands read XML, binary\n"
          "and old-style text; lint, set, insert and remove do not read JSON. set, insert,\n"
          "remove and merge write a binary file back as binary and any other as XML, to a\n"
          "new file that then replaces the old one. canonical writes XML with sorted keys,\n"
          "or the binary form if XML would lose something.\n"
          "\n"
          "merge goes key by key, and item by item in arrays of which all three have the\n"
          "same number of items. A value that both sides changed, differently, is a\n"
          "conflict, unless --prefer says whose value is taken.\n"
          "\n"
          "PATH is keys and array indexes, separated by dots: a.b.0.c is key c in the\n"
          "first item of array b in a. A backslash makes the next character part of the\n"
          "key: com\\.example. For set and insert, the number of items is the index after\n"
          "the last item.\n"
          "\n"
          "VALUE is read as the type given with --type, or else as the type of the value\n"
          "that it replaces. Under a new key and without --type, a VALUE that begins like\n"
          "JSON or a property list, or is a number, true or false, is read as such; any\n"
          "other is a string. Dates are 2005-03-01T12:34:56Z, in UTC, with a fraction of a\n"
          "second if there is one. Data is base64. A VALUE that begins like JSON or XML but\n"
          "cannot be read is refused.\n"
          "\n"
          "Examples: vltctl plist lint Info.plist\n"
          "          vltctl plist set Info.plist CFBundleVersion 2.0\n"
          "\n"
          "JSON: for print and extract the value itself, with dates and data as strings;\n"
          "for lint an object for each file with file, ok, format, line, column, offset,\n"
          "problem, hint and errno; for diff an object for each difference with path,\n"
          "beforeType, before, afterType and after; for merge one for each conflict with\n"
          "path, baseType, base, oursType, ours, theirsType and theirs, and one with\n"
          "outcome, conflicts, to, out and bytes if it wrote; for the others one object\n"
          "with file and what was done. Reals read back bit for bit; integers beyond\n"
          "2^53 - 1, NaN, Infinity and -Infinity are strings.\n"
          "\n"
          "Exit status of its own: diff exits with 1 if there are differences, merge if\n"
          "there are conflicts.\n",
          {{"-o", "OUT", "the file that convert, canonical and merge write"},
           {"--prefer", "SIDE", "of merge: ours or theirs, whose value a conflict gets"},
           {"--type", "TYPE", "string, integer, real, bool, date, data, array, dict"},
           kJsonOption},
          2,
          SIZE_MAX,
          RunPlist,
          false};
}
