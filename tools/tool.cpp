#include "tools/tool.h"

#include <cstdio>

#include "platform/host/session/introspect.h"
#include "tools/verbs/verb.h"

namespace {

constexpr char kExitHelp[] =
    "Exit status:\n"
    "  0 success                       5 refused: an error reply, or no permission\n"
    "  1 any other failure             6 the other process ended\n"
    "  2 wrong arguments               7 invalid or oversized data\n"
    "  3 no such port, file or key     8 session directory unusable\n"
    "  4 time-out\n";

void PrintOverview(FILE* out) {
  std::fprintf(out, "vltctl looks at named ports and talks to the services behind them.\n\n");
  for (const Verb& verb : AllVerbs()) {
    std::fprintf(out, "  vltctl %s%s%s\n      %s\n", verb.name, verb.synopsis[0] ? " " : "",
                 verb.synopsis, verb.summary);
  }
  std::fprintf(out, "  vltctl --help | help [COMMAND]\n      More about one command.\n\n%s",
               kExitHelp);
}

void PrintVerb(FILE* out, const Verb& verb) {
  std::fprintf(out, "vltctl %s%s%s\n%s\n", verb.name, verb.synopsis[0] ? " " : "", verb.synopsis,
               verb.summary);
  if (verb.details[0]) std::fprintf(out, "\n%s", verb.details);
  if (!verb.options.empty()) std::fprintf(out, "\n");
  for (const OptionSpec& option : verb.options) {
    const std::string name =
        option.name + (option.valueName ? std::string(" ") + option.valueName : "");
    std::fprintf(out, "  %-20s %s\n", name.c_str(), option.help);
  }
  std::fprintf(out, "\n%s", kExitHelp);
}

const Verb* FindVerb(const std::string& name) {
  for (const Verb& verb : AllVerbs()) {
    if (name == verb.name) return &verb;
  }
  return nullptr;
}

int UnknownVerb(const std::string& name) {
  std::vector<std::string_view> names = {"help"};
  for (const Verb& verb : AllVerbs()) names.push_back(verb.name);
  const std::string near = NearestWord(name, names);
  Say("unknown command " + Quoted(name) + (near.empty() ? "" : "; did you mean " + near + "?"));
  return kExitUsage;
}

int Help(const std::vector<std::string>& words) {
  if (words.size() < 2) {
    PrintOverview(stdout);
    return kExitOk;
  }
  const Verb* verb = FindVerb(words[1]);
  if (verb == nullptr) return UnknownVerb(words[1]);
  PrintVerb(stdout, *verb);
  return kExitOk;
}

int RunVerb(const Verb& verb, const std::vector<std::string>& words) {
  for (const std::string& word : words) {
    if (word == "--") break;
    if (word == "--help") return PrintVerb(stdout, verb), kExitOk;
  }
  CommandLine line;
  std::string problem;
  if (ParseCommandLine(verb.options, words, line, problem)) {
    if (line.words.size() < verb.minWords) problem = "too few arguments";
    if (line.words.size() > verb.maxWords) problem = "too many arguments";
  }
  if (!problem.empty()) {
    Say(std::string(verb.name) + ": " + problem);
    Say(std::string("usage: vltctl ") + verb.name + " " + verb.synopsis);
    return kExitUsage;
  }
  if (!verb.needsSession) return verb.run(line);
  const HostContextInfo session = HostDescribeContext();
  if (!session.usable) return Say(session.problem), kExitNoSession;
  return verb.run(line);
}

}  // namespace

int RunTool(const std::vector<std::string>& words) {
  if (words.empty()) {
    PrintOverview(stderr);
    return kExitUsage;
  }
  if (words[0] == "--help" || words[0] == "-h" || words[0] == "help") return Help(words);
  const Verb* verb = FindVerb(words[0]);
  if (verb == nullptr) return UnknownVerb(words[0]);
  return RunVerb(*verb, {words.begin() + 1, words.end()});
}
