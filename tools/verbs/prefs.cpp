#include <CoreFoundation/CoreFoundation.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "tools/output.h"
#include "tools/plist/file.h"
#include "tools/plist/json.h"
#include "tools/plist/leaf.h"
#include "tools/plist/text.h"
#include "tools/table.h"
#include "tools/verbs/verb.h"

namespace {

using OwnedString = OwnedRef<CFStringRef>;
using OwnedObject = OwnedRef<CFTypeRef>;

// The parsed arguments.
struct Request {
  std::string domain;
  std::string key;  // "" without one; for export and import, the file
  std::string value;
  bool hasKey = false;
  bool hasValue = false;
  bool isJson = false;
  OwnedString application;
  CFStringRef user = kCFPreferencesCurrentUser;
  CFStringRef host = kCFPreferencesAnyHost;
  const CommandLine* line = nullptr;

  CFTypeRef Copy(CFStringRef name) const {
    return CFPreferencesCopyValue(name, application, user, host);
  }
  void Set(CFStringRef name, CFTypeRef to) const {
    CFPreferencesSetValue(name, to, application, user, host);
  }
  CFDictionaryRef CopyAll() const {
    return CFPreferencesCopyMultiple(nullptr, application, user, host);
  }
};

int Fail(ExitStatus exit, const std::string& text) { return Say("prefs: " + text), exit; }

// Reports the result of a change: a message if there is a problem, and JSON.
int Tell(const Request& request, const char* outcome, ExitStatus exit,
         const std::string& problem = "") {
  if (!problem.empty()) Say("prefs: " + problem);
  if (!request.isJson) return exit;
  JsonValue model = JsonValue::Object();
  model.AddBytes("domain", request.domain);
  model.Add("outcome", outcome);
  model.Add("problem", problem.empty() ? JsonValue() : JsonValue(problem));
  PrintJson(model);
  return exit;
}

// The exit status when the preferences cannot be used.
ExitStatus RefusalExit(const Request& request) {
  const bool isMemoryShort =
      HostPreferencesLackMemory(request.application, request.user, request.host);
  return isMemoryShort ? kExitGeneral : kExitRefused;
}

int Commit(const Request& request) {
  if (CFPreferencesSynchronize(request.application, request.user, request.host)) {
    return Tell(request, "written", kExitOk);
  }
  // Asked first: what it says about reading may pass with the next read.
  const ExitStatus exit = RefusalExit(request);
  std::string problem = HostPreferencesProblem(request.application, request.user, request.host);
  if (problem.empty()) {
    problem = exit == kExitGeneral ? std::strerror(ENOMEM)
                                   : "the value cannot be stored in a preferences file";
  }
  return Tell(request, "failed", exit, problem);
}

// Returns whether the file may be read; prints the reason if not.
bool IsReadable(const Request& request) {
  const std::string problem =
      HostPreferencesProblem(request.application, request.user, request.host);
  if (!problem.empty()) Say("prefs: " + problem);
  return problem.empty();
}

// Whether the key was not found because the file could not be read, though it could shortly before.
bool IsUnread(const Request& request, CFStringRef key) {
  return HostPreferencesIsUnread(key, request.application, request.user, request.host);
}

int Unreadable(const Request& request) {
  const ExitStatus exit = RefusalExit(request);
  const std::string problem =
      HostPreferencesProblem(request.application, request.user, request.host);
  if (!problem.empty()) return Fail(exit, problem);
  return Fail(exit, "the preferences of " + Quoted(request.domain) + " could not be read");
}

int NoSuchKey(const Request& request) {
  return Fail(kExitNotFound, Quoted(request.domain) + " has no key " + Quoted(request.key) +
                                 " in these preferences");
}

void PrintValue(const Request& request, CFTypeRef value) {
  if (request.isJson) return PrintJson(JsonOfPlist(value));
  const std::string text = IsContainer(KindOf(value)) ? PlistText(value) : LeafText(value) + "\n";
  Print(text);
}

int Read(const Request& request) {
  if (!IsReadable(request)) return RefusalExit(request);
  if (!request.hasKey) {
    const OwnedRef<CFDictionaryRef> all = request.CopyAll();
    if (all == nullptr) return Unreadable(request);
    PrintValue(request, static_cast<CFDictionaryRef>(all));
    return kExitOk;
  }
  const OwnedString name = CreateString(request.key);
  const OwnedObject value = request.Copy(name);
  if (value == nullptr) return IsUnread(request, name) ? Unreadable(request) : NoSuchKey(request);
  PrintValue(request, value);
  return kExitOk;
}

int Write(const Request& request) {
  if (!request.hasValue) return Fail(kExitUsage, "write needs DOMAIN KEY VALUE");
  const OwnedString name = CreateString(request.key);
  std::string problem;
  const auto type = request.line->options.find("--type");
  const bool isTyped = type != request.line->options.end();
  const OwnedObject present = request.Copy(name);
  const OwnedObject value =
      CreateValueOfType(isTyped ? type->second : "", request.value, present, problem);
  if (value == nullptr) return Fail(kExitUsage, problem);
  request.Set(name, value);
  return Commit(request);
}

int Delete(const Request& request) {
  if (!IsReadable(request)) return RefusalExit(request);
  if (request.hasKey) {
    const OwnedString name = CreateString(request.key);
    const OwnedObject present = request.Copy(name);
    if (present == nullptr) {
      return IsUnread(request, name) ? Unreadable(request) : NoSuchKey(request);
    }
    request.Set(name, nullptr);
    return Commit(request);
  }
  const OwnedRef<CFArrayRef> keys =
      CFPreferencesCopyKeyList(request.application, request.user, request.host);
  // After an unsuccessful look for all keys every key is unread.
  if (keys == nullptr && IsUnread(request, CFSTR("any"))) return Unreadable(request);
  CFPreferencesSetMultiple(nullptr, keys, request.application, request.user, request.host);
  return Commit(request);
}

int Export(const Request& request) {
  if (!IsReadable(request)) return RefusalExit(request);
  const OwnedRef<CFDictionaryRef> all = request.CopyAll();
  if (all == nullptr) return Unreadable(request);
  const CFPropertyListFormat format =
      request.isJson ? kJsonFormat : CFPropertyListFormat{kCFPropertyListXMLFormat_v1_0};
  const std::string file = request.hasKey ? request.key : "-";
  std::string bytes;
  PlistProblem problem;
  if (!PlistBytes(static_cast<CFDictionaryRef>(all), format, bytes, problem) ||
      !WritePlistFile(file, bytes, problem)) {
    return Say(problem.Sentence()), problem.exit;
  }
  return kExitOk;
}

int Import(const Request& request) {
  const std::string file = request.hasKey ? request.key : "-";
  PlistFile read;
  PlistProblem problem;
  if (!ReadPlistFile(file, true, read, problem)) {
    return Say(problem.Sentence()), problem.exit;
  }
  if (KindOf(read.list) != PlistKind::kDictionary) {
    return Say(problem.file + ": not a dictionary"), kExitBadData;
  }
  const CFTypeRef list = read.list;
  CFPreferencesSetMultiple(static_cast<CFDictionaryRef>(list), nullptr, request.application,
                           request.user, request.host);
  return Commit(request);
}

const char* StateOf(const HostPreferencesSource& source) {
  if (!source.problem.empty()) return "refused";
  if (!source.exists) return "absent";
  return source.hasValue ? "value" : "used";
}

JsonValue SourceModel(const HostPreferencesSource& source) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("path", source.path);
  model.Add("state", StateOf(source));
  model.Add("anyUser", JsonValue::Bool(source.isForAnyUser));
  model.Add("currentHost", JsonValue::Bool(source.isForThisHost));
  model.Add("anyApplication", JsonValue::Bool(source.isForAnyApplication));
  model.Add("problem", source.problem.empty() ? JsonValue() : JsonValue(source.problem));
  return model;
}

// Returns whether the options select this file. Without options all files are selected.
bool IsAskedFor(const Request& request, const HostPreferencesSource& source) {
  const bool anyUser = request.line->Has("--any-user");
  const bool currentHost = request.line->Has("--current-host");
  if (!anyUser && !currentHost) return true;
  if (source.isForAnyApplication || source.isForAnyUser != anyUser) return false;
  return anyUser || source.isForThisHost;
}

int Where(const Request& request) {
  const OwnedString name = CreateString(request.key);
  const CFStringRef key = request.hasKey ? static_cast<CFStringRef>(name) : nullptr;
  bool isFound = !request.hasKey;
  std::vector<TableRow> rows;
  for (const HostPreferencesSource& source : HostPreferencesSources(request.application, key)) {
    if (!IsAskedFor(request, source)) continue;
    if (!source.problem.empty()) Say("prefs: " + source.problem);
    if (request.isJson) {
      PrintJson(SourceModel(source));
    } else if (!request.hasKey || (source.hasValue && !isFound)) {
      // With a key, only the file that the value comes from.
      rows.push_back(request.hasKey ? TableRow{source.path}
                                    : TableRow{StateOf(source), source.path});
    }
    isFound = isFound || source.hasValue;
  }
  PrintTable(rows);
  return isFound ? kExitOk : NoSuchKey(request);
}

struct Action {
  const char* name;
  size_t maxWords;  // besides its name
  int (*run)(const Request& request);
};
const Action kActions[] = {{"read", 2, Read},     {"write", 3, Write},   {"delete", 2, Delete},
                           {"export", 2, Export}, {"import", 2, Import}, {"where", 2, Where}};

bool AreUtf8(const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (!IsUtf8(word)) return false;
  }
  return true;
}

int Run(const Action& action, const CommandLine& line) {
  const std::vector<std::string>& words = line.words;
  if (words.size() > action.maxWords + 1) {
    return Fail(kExitUsage, std::string("too many arguments for ") + action.name);
  }
  if (!AreUtf8(words)) return Fail(kExitUsage, "arguments must be UTF-8");
  Request request;
  request.domain = words[1];
  request.hasKey = words.size() > 2;
  request.hasValue = words.size() > 3;
  if (request.hasKey) request.key = words[2];
  if (request.hasValue) request.value = words[3];
  request.isJson = line.Has("--json");
  request.application = CreateString(request.domain);
  if (line.Has("--any-user")) request.user = kCFPreferencesAnyUser;
  if (line.Has("--current-host")) request.host = kCFPreferencesCurrentHost;
  request.line = &line;
  if (HostPreferencesSources(request.application, nullptr).empty()) {
    return Fail(
        kExitUsage,
        Quoted(request.domain) +
            " cannot be an application identifier (1 to 200 bytes, without \"/\" and \"..\")");
  }
  return action.run(request);
}

}  // namespace

static int RunPrefs(const CommandLine& line) {
  std::vector<std::string_view> names;
  for (const Action& action : kActions) {
    if (line.words[0] == action.name) return Run(action, line);
    names.push_back(action.name);
  }
  const std::string near = NearestWord(line.words[0], names);
  return Fail(kExitUsage, "unknown action " + Quoted(line.words[0]) +
                              (near.empty() ? "" : "; did you mean " + near + "?"));
}

Verb PrefsVerb() {
  return {"prefs",
          "read|write|delete|export|import|where DOMAIN [KEY [VALUE]] [OPTION ...]",
          "Reads and changes preferences.",
          "  read DOMAIN [KEY]          prints one value, or all\n"
          "  write DOMAIN KEY VALUE     sets a value and commits\n"
          "  delete DOMAIN [KEY]        removes one key, or all, and commits\n"
          "  export DOMAIN [FILE]       writes all as XML (--json: as JSON)\n"
          "  import DOMAIN [FILE]       adds a property list or JSON, and commits\n"
          "  where DOMAIN [KEY]         prints the file that the application's value comes\n"
          "                             from, or all files, the strongest first, and\n"
          "                             their states\n"
          "\n"
          "DOMAIN is an application identifier; kCFPreferencesAnyApplication stands for\n"
          "all applications. FILE is standard output or input if it is missing or -.\n"
          "\n"
          "Without --any-user and --current-host, where looks at every file in which the\n"
          "application's values are looked up; the other commands use the current user's\n"
          "preferences for any host. VALUE and --type are as for plist. A program that is\n"
          "running sees the change at its next read.\n"
          "\n"
          "JSON: for read the value itself; for write, delete and import an object with\n"
          "domain, outcome (written, failed) and problem; for where an object for each\n"
          "file with path, state (value, used, absent, refused), anyUser, currentHost,\n"
          "anyApplication and problem.\n",
          {{"--any-user", nullptr, "the preferences of all users"},
           {"--current-host", nullptr, "the preferences for this host only"},
           {"--type", "TYPE", "of write: the type of VALUE, as for plist"},
           kJsonOption},
          2,
          4,
          RunPrefs,
          false};
}
