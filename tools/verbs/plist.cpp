#include <string>
#include <vector>

#include "tools/output.h"
#include "tools/plist/diff.h"
#include "tools/plist/file.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/path.h"
#include "tools/plist/text.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

namespace {

// The arguments after the action's name, and the options.
struct Request {
  const CommandLine& line;
  std::vector<std::string> words;

  bool WantsJson() const { return line.Has("--json"); }
  std::string Option(const char* name) const {
    const auto found = line.options.find(name);
    return found != line.options.end() ? found->second : "";
  }
};

struct Action {
  const char* name;
  const char* synopsis;
  size_t minWords;
  size_t maxWords;
  const char* option;  // the option that it takes besides --json; or null
  int (*run)(const Request& request);
};

int Usage(const std::string& problem) {
  Say("plist: " + problem);
  return kExitUsage;
}

int Tell(const PlistProblem& problem) {
  Say(problem.Sentence());
  return problem.exit;
}

int NotFound(const std::string& problem) {
  Say("plist: " + problem);
  return kExitNotFound;
}

std::string NotAPath(const std::string& text) {
  return Quoted(text) + " is not a key path: nothing follows its last backslash";
}

int RunPrint(const Request& request) {
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(request.words[0], true, file, problem)) return Tell(problem);
  if (request.WantsJson())
    PrintJson(JsonOfPlist(file.list));
  else
    Print(PlistText(file.list));
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

int RunLint(const Request& request) {
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

bool FormatNamed(const std::string& name, CFPropertyListFormat& format) {
  if (name == "xml")
    format = kCFPropertyListXMLFormat_v1_0;
  else if (name == "binary")
    format = kCFPropertyListBinaryFormat_v1_0;
  else if (name == "json")
    format = kJsonFormat;
  else
    return false;
  return true;
}

int RunConvert(const Request& request) {
  const std::string& name = request.words[1];
  const std::string out = request.line.Has("-o") ? request.Option("-o") : "-";
  CFPropertyListFormat format = 0;
  if (!FormatNamed(request.words[0], format)) {
    return Usage("unknown format " + Quoted(request.words[0]) + " (xml, binary or json)");
  }
  if (out.empty()) return Usage("-o needs the name of a file");
  if (out == "-" && request.WantsJson()) return Usage("convert --json needs -o OUT");
  PlistFile file;
  PlistProblem problem;
  std::string bytes;
  if (!ReadPlistFile(name, true, file, problem) || !PlistBytes(file.list, format, bytes, problem)) {
    return Tell(problem);
  }
  if (!WritePlistFile(out, bytes, problem)) return Tell(problem);
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

int RunExtract(const Request& request) {
  PlistPath path;
  if (!ParsePlistPath(request.words[1], path)) return Usage(NotAPath(request.words[1]));
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(request.words[0], true, file, problem)) return Tell(problem);
  std::string absent;
  CFTypeRef value = FindInPlist(file.list, path, absent);
  if (value == nullptr) return NotFound(absent);
  if (request.WantsJson())
    PrintJson(JsonOfPlist(value));
  else
    Print(IsContainer(KindOf(value)) ? PlistText(value) : LeafText(value) + "\n");
  return kExitOk;
}

// Makes the value to store from an argument. Returns null after a message if it is not a value.
OwnedRef<CFTypeRef> ValueOf(const Request& request, const std::string& word, CFTypeRef replaced) {
  std::string problem;
  OwnedRef<CFTypeRef> value(CreateValueOfType(request.Option("--type"), word, replaced, problem));
  if (value == nullptr) Usage(problem);
  return value;
}

// A binary file stays binary; every other form is written as XML.
CFPropertyListFormat FormatToWrite(CFPropertyListFormat read) {
  return read == kCFPropertyListBinaryFormat_v1_0 ? read : kCFPropertyListXMLFormat_v1_0;
}

int Change(const Request& request, PlistChange change, const char* outcome) {
  const std::string& name = request.words[0];
  PlistPath path;
  if (!ParsePlistPath(request.words[1], path)) return Usage(NotAPath(request.words[1]));
  if (path.empty()) return Usage("the key path is empty; the whole list cannot be changed at once");
  if (name == "-" && request.WantsJson()) return Usage("--json needs a file");
  const std::string type = request.Option("--type");
  if (!type.empty() && KindNamed(type) == PlistKind::kNone) {
    return Usage(UnknownPlistType(type));
  }
  PlistFile file;
  PlistProblem problem;
  if (!ReadPlistFile(name, false, file, problem)) return Tell(problem);
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
    return Tell(problem);
  }
  if (!request.WantsJson()) return kExitOk;
  JsonValue model = JsonValue::Object();
  model.AddBytes("file", name);
  model.Add("path", PlistPathText(path));
  model.Add("outcome", outcome);
  PrintJson(model);
  return kExitOk;
}

int RunSet(const Request& request) { return Change(request, PlistChange::kSet, "set"); }
int RunInsert(const Request& request) { return Change(request, PlistChange::kInsert, "inserted"); }
int RunRemove(const Request& request) { return Change(request, PlistChange::kRemove, "removed"); }

JsonValue DifferenceModel(const PlistDifference& difference) {
  JsonValue model = JsonValue::Object();
  model.Add("path", difference.path);
  for (const auto& [name, value] :
       {std::pair{"before", difference.before}, std::pair{"after", difference.after}}) {
    model.Add(std::string(name) + "Type", value != nullptr ? KindName(KindOf(value)) : JsonValue());
    model.Add(name, value != nullptr ? JsonOfPlist(value) : JsonValue());
  }
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

int RunDiff(const Request& request) {
  PlistFile files[2];
  for (size_t i = 0; i < 2; ++i) {
    PlistProblem problem;
    const std::string& name = request.words[i];
    if (!ReadPlistFile(name, true, files[i], problem)) return Tell(problem);
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

constexpr Action kActions[] = {
    {"print", "FILE", 1, 1, nullptr, RunPrint},
    {"lint", "FILE ...", 1, SIZE_MAX, nullptr, RunLint},
    {"convert", "xml|binary|json FILE [-o OUT]", 2, 2, "-o", RunConvert},
    {"extract", "FILE PATH", 2, 2, nullptr, RunExtract},
    {"set", "FILE PATH VALUE [--type TYPE]", 3, 3, "--type", RunSet},
    {"insert", "FILE PATH VALUE [--type TYPE]", 3, 3, "--type", RunInsert},
    {"remove", "FILE PATH", 2, 2, nullptr, RunRemove},
    {"diff", "FILE FILE", 2, 2, nullptr, RunDiff},
};

const Action* FindAction(const std::string& name) {
  for (const Action& action : kActions) {
    if (name == action.name) return &action;
  }
  return nullptr;
}

int UnknownAction(const std::string& name) {
  std::vector<std::string_view> names;
  for (const Action& action : kActions) names.push_back(action.name);
  const std::string near = NearestWord(name, names);
  return Usage("unknown action " + Quoted(name) +
               (near.empty() ? "" : "; did you mean " + near + "?"));
}

}  // namespace

static int RunPlist(const CommandLine& line) {
  const Action* action = FindAction(line.words[0]);
  if (action == nullptr) return UnknownAction(line.words[0]);
  Request request = {line, {line.words.begin() + 1, line.words.end()}};
  if (request.words.size() < action->minWords || request.words.size() > action->maxWords) {
    return Usage(std::string("usage: vltctl plist ") + action->name + " " + action->synopsis);
  }
  for (const auto& [option, value] : line.options) {
    const bool isTaken = option == "--json" || (action->option && option == action->option);
    if (!isTaken) return Usage(std::string(action->name) + " does not take " + option);
  }
  return action->run(request);
}

Verb PlistVerb() {
  return {"plist",
          "print|lint|convert|extract|set|insert|remove|diff ... FILE [--json]",
          "Prints, checks, converts, changes and compares property lists.",
          "  print FILE                 prints the whole list for people\n"
          "  lint FILE ...              prints FILE:LINE:COLUMN: FAULT (HINT)\n"
          "  convert xml|binary|json FILE [-o OUT]\n"
          "                             writes to OUT, or to standard output\n"
          "  extract FILE PATH          prints one value\n"
          "  set FILE PATH VALUE        replaces a value, or adds it under a new key\n"
          "  insert FILE PATH VALUE     adds a new key, or a value before an array index\n"
          "  remove FILE PATH           removes a key or an array item\n"
          "  diff FILE FILE             prints removed (-) and added (+) values\n"
          "\n"
          "FILE may be -, for standard input (and output). All commands read XML, binary\n"
          "and old-style text; print, convert, extract and diff also read JSON. set,\n"
          "insert and remove write a binary file back as binary and any other as XML, to\n"
          "a new file that then replaces the old one.\n"
          "\n"
          "PATH is keys and array indexes, separated by dots: a.b.0.c is key c in the\n"
          "first item of array b in a. A backslash makes the next character part of the\n"
          "key: com\\.example. For set and insert, the number of items is the index after\n"
          "the last item.\n"
          "\n"
          "VALUE is read as the type given with --type, or else as the type of the value\n"
          "that it replaces. Under a new key and without --type, a VALUE that begins like\n"
          "JSON or a property list, or is a number, true or false, is read as such; any\n"
          "other is a string. Dates are 2005-03-01T12:34:56Z, in UTC. Data is base64.\n"
          "\n"
          "JSON: for print and extract the value itself, with dates and data as strings;\n"
          "for lint an object for each file with file, ok, format, line, column, offset,\n"
          "problem and hint; for diff an object for each difference with path,\n"
          "beforeType, before, afterType and after; for the others one object with file\n"
          "and what was done. Reals read back bit for bit; integers beyond 2^53 - 1, NaN,\n"
          "Infinity and -Infinity are strings.\n"
          "\n"
          "Exit status of its own: diff exits with 1 if there are differences.\n",
          {{"-o", "OUT", "the file that convert writes"},
           {"--type", "TYPE", "string, integer, real, bool, date, data, array, dict"},
           kJsonOption},
          2,
          SIZE_MAX,
          RunPlist,
          false};
}
