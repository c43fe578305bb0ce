#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/preferences/introspect.h"
#include "tools/plist/leaf.h"
#include "tools/values/json_value.h"
#include "tools/verbs/prefs_request.h"
#include "tools/verbs/verb.h"

namespace {

struct Action {
  const char* name;
  const char* synopsis;
  size_t minWords;  // besides its name, and with --path the key
  size_t maxWords;
  std::vector<std::string_view> options;  // besides --json
  int (*run)(const PrefsRequest& request);
};

constexpr std::string_view kAnyUser = "--any-user", kCurrentHost = "--current-host";

const std::vector<Action>& Actions() {
  static const std::vector<Action> actions = {
      {"read", "DOMAIN [KEY]", 1, 2, {kAnyUser, kCurrentHost, "--path", "--effective"}, ReadPrefs},
      {"write", "DOMAIN KEY VALUE", 3, 3, {kAnyUser, kCurrentHost, "--path", "--type"}, WritePrefs},
      {"delete", "DOMAIN [KEY]", 1, 2, {kAnyUser, kCurrentHost, "--path"}, DeletePrefs},
      {"export",
       "DOMAIN [FILE]",
       1,
       2,
       {kAnyUser, kCurrentHost, "--effective", "--format"},
       ExportPrefs},
      {"import", "DOMAIN [FILE]", 1, 2, {kAnyUser, kCurrentHost}, ImportPrefs},
      {"where", "DOMAIN [KEY]", 1, 2, {kAnyUser, kCurrentHost, "--path"}, WherePrefs},
      {"domains", "", 0, 0, {}, ListPrefs},
      {"watch", "DOMAIN", 1, 1, {kAnyUser, kCurrentHost, "--count"}, WatchPrefs},
      {"undo", "[DOMAIN]", 0, 1, {kAnyUser, kCurrentHost}, UndoPrefs},
  };
  return actions;
}

int Usage(const Action& action, const std::string& problem) {
  Say("prefs: " + problem);
  Say(std::string("usage: vltctl prefs ") + action.name + " " + action.synopsis + " [OPTION ...]");
  return kExitUsage;
}

// Takes the arguments after the action's name. Returns what is wrong with them, or "".
std::string TakeWords(const Action& action, const CommandLine& line, PrefsRequest& request) {
  const size_t count = line.words.size() - 1;
  const bool hasPath = line.Has("--path");
  if (count + (hasPath ? 1 : 0) > action.maxWords) {
    return std::string("too many arguments for ") + action.name +
           (hasPath ? "; --path takes the place of KEY" : "");
  }
  if (count + (hasPath && action.minWords > 1 ? 1 : 0) < action.minWords) {
    return std::string(action.name) + " needs " + action.synopsis;
  }
  if (count > 0) request.domain = line.words[1];
  if (count > 1) request.words.assign(line.words.begin() + 2, line.words.end());
  if (!hasPath) return "";
  const std::string text = request.Option("--path");
  if (!ParsePlistPath(text, request.path) || request.path.empty()) {
    return Quoted(text) + " is not a key path, such as sizes.0.width";
  }
  request.words.insert(request.words.begin(), request.path[0]);
  return "";
}

std::string WrongOption(const Action& action, const CommandLine& line) {
  for (const auto& [option, value] : line.options) {
    const bool isTaken =
        option == "--json" || std::ranges::find(action.options, option) != action.options.end();
    if (!isTaken) return std::string(action.name) + " does not take " + option;
    if (!IsUtf8(value)) return "arguments must be UTF-8";
  }
  if (line.Has("--effective") && (line.Has("--any-user") || line.Has("--current-host"))) {
    return "--effective looks at all files; it does not take --any-user and --current-host";
  }
  return "";
}

int Run(const Action& action, const CommandLine& line) {
  PrefsRequest request;
  request.line = &line;
  std::string problem = WrongOption(action, line);
  if (problem.empty()) problem = TakeWords(action, line, request);
  if (!problem.empty()) return Usage(action, problem);
  for (const std::string& word : line.words) {
    if (!IsUtf8(word)) return PrefsFail(kExitUsage, "arguments must be UTF-8");
  }
  request.hasKey = !request.words.empty();
  if (request.hasKey) request.key = request.words[0];
  request.isJson = line.Has("--json");
  if (line.Has("--any-user")) request.user = kCFPreferencesAnyUser;
  if (line.Has("--current-host")) request.host = kCFPreferencesCurrentHost;
  const bool hasDomain = line.words.size() > 1;
  request.application = Made(CreateString(request.domain));
  if (hasDomain && HostPreferencesSources(request.application, nullptr).empty()) {
    return PrefsFail(
        kExitUsage,
        Quoted(request.domain) +
            " cannot be an application identifier (1 to 200 bytes, without \"/\" and \"..\")");
  }
  return action.run(request);
}

}  // namespace

static int RunPrefs(const CommandLine& line) {
  std::vector<std::string_view> names;
  for (const Action& action : Actions()) {
    if (line.words[0] == action.name) return Run(action, line);
    names.push_back(action.name);
  }
  const std::string near = NearestWord(line.words[0], names);
  return PrefsFail(kExitUsage, "unknown action " + Quoted(line.words[0]) +
                                   (near.empty() ? "" : "; did you mean " + near + "?"));
}

Verb PrefsVerb() {
  return {"prefs",
          "read|write|delete|export|import|where|domains|watch|undo [DOMAIN [KEY [VALUE]]] "
          "[OPTION ...]",
          "Reads, changes and watches preferences.",
          "  read DOMAIN [KEY]          prints one value, or all\n"
          "  write DOMAIN KEY VALUE     sets a value and commits\n"
          "  delete DOMAIN [KEY]        removes one key, or all, and commits\n"
          "  export DOMAIN [FILE]       writes all as a property list\n"
          "  import DOMAIN [FILE]       adds a property list or JSON, and commits\n"
          "  where DOMAIN [KEY]         prints the file that the application's value comes\n"
          "                             from, or all files, the strongest first, and\n"
          "                             their states\n"
          "  domains                    lists the domains and their scopes\n"
          "  watch DOMAIN               prints each change, until a signal ends it\n"
          "  undo [DOMAIN]              takes back the last change that vltctl made\n"
          "\n"
          "DOMAIN is an application identifier; kCFPreferencesAnyApplication stands for\n"
          "all applications. FILE is standard output or input if it is missing or -.\n"
          "\n"
          "Without --any-user and --current-host, where and watch look at every file in\n"
          "which the application's values are looked up, and so does --effective; the\n"
          "other commands use the current user's preferences for any host. VALUE and\n"
          "--type are as for plist. A program that is running sees the change at its\n"
          "next read.\n"
          "\n"
          "--path a.b.0 takes the place of KEY: it names a value inside the value of key a,\n"
          "as for plist.\n"
          "\n"
          "export writes XML, or the binary form if XML cannot hold a value (fractions of\n"
          "seconds, some texts), and then says so. With --format it says what is lost.\n"
          "\n"
          "watch prints removed (-) and added (+) values. If changes follow each other\n"
          "quickly, it prints what they come to. undo works in the order of the changes,\n"
          "the last one first, and refuses if a value is not the one that vltctl wrote. It\n"
          "knows the last 64 changes, from $XDG_STATE_HOME/veltrane/undo.\n"
          "\n"
          "Examples: vltctl prefs write com.example.camera --path size.0 800\n"
          "          vltctl prefs undo com.example.camera\n"
          "\n"
          "JSON: for read the value itself; for write, delete, import and undo an object\n"
          "with domain, outcome (written, undone, changed, failed) and problem, for undo\n"
          "also file and keys; for where an object for each file with path, state (value,\n"
          "used, absent, refused), winner, anyUser, currentHost, anyApplication and\n"
          "problem; for domains an object for each with domain, files and scopes; for\n"
          "watch an object for each difference, as for plist diff.\n"
          "\n"
          "Exit status of its own: 5 if undo refuses; watch ends with the signal, for\n"
          "Ctrl-C 130 in a shell.\n",
          {{"--any-user", nullptr, "the preferences of all users"},
           {"--current-host", nullptr, "the preferences for this host only"},
           {"--effective", nullptr, "of read, export: what the application sees"},
           {"--path", "PATH", "a value inside another one, such as sizes.0.width"},
           {"--type", "TYPE", "of write: the type of VALUE, as for plist"},
           {"--format", "FORMAT", "of export: xml, binary or json"},
           {"--count", "NUMBER", "of watch: end after so many differences"},
           kJsonOption},
          1,
          4,
          RunPrefs,
          false};
}
