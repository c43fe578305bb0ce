#include "tools/tool.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "platform/host/session/introspect.h"
#include "tools/complete.h"
#include "tools/output.h"
#include "tools/terminal.h"
#include "tools/verbs/verb.h"

namespace {

constexpr char kExitHelp[] =
    "Exit status:\n"
    "  0 success                       5 refused: an error reply, or no permission\n"
    "  1 any other failure             6 the other process ended\n"
    "  2 wrong arguments               7 invalid or oversized data\n"
    "  3 no such port, file or key     8 session directory unusable\n"
    "  4 time-out\n";

// The verb and its arguments, on lines of at most 80 columns. Options are not torn apart.
std::string Synopsis(const Verb& verb, size_t indent) {
  constexpr size_t kColumns = 80;
  std::string text(indent, ' ');
  size_t lineStart = 0;
  const std::string words = std::string("vltctl ") + verb.name + " " + verb.synopsis;
  for (size_t at = 0; at < words.size();) {
    size_t end = std::min(words.find(" [", at + 1), words.size());
    if (text.size() - lineStart + end - at > kColumns) {
      text += "\n" + std::string(indent + 6, ' ');
      lineStart = text.size() - indent - 6;
      if (words[at] == ' ') ++at;
    }
    text += words.substr(at, end - at);
    at = end;
  }
  return text.substr(0, text.find_last_not_of(' ') + 1) + "\n";
}

// Makes the words that begin a paragraph about something else bold, on a terminal.
std::string Emphasised(const std::string& text) {
  std::string result;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    for (const char* const heading : {"Exit status:", "Examples:", "Example:", "JSON:"}) {
      if (!line.starts_with(heading)) continue;
      line = Painted(Paint::kBold, heading) + line.substr(std::strlen(heading));
      break;
    }
    result += line + "\n";
  }
  return result;
}

std::string Overview() {
  std::string text =
      "vltctl lists ports, sends events, starts and stops programs, and reads and\nchanges property lists and preferences.\n\n";
  for (const Verb& verb : AllVerbs()) {
    text += Synopsis(verb, 2) + "      " + verb.summary + "\n";
  }
  return Emphasised(text + "\n" + kExitHelp);
}

// The option as the user writes it: "-t, --timeout SECONDS".
std::string NameOf(const OptionSpec& option) {
  return (option.shortName != nullptr ? std::string(option.shortName) + ", " : "") + option.name +
         (option.valueName != nullptr ? std::string(" ") + option.valueName : "");
}

std::string HelpOf(const Verb& verb) {
  constexpr size_t kNameWidth = 21;
  std::string text = Synopsis(verb, 0) + verb.summary + "\n";
  if (verb.details[0]) text += std::string("\n") + verb.details;
  text += "\n";
  std::vector<OptionSpec> options = verb.options;
  options.push_back(kHelpOption);
  for (const OptionSpec& option : options) {
    std::string name = NameOf(option);
    name.resize(std::max(name.size(), kNameWidth), ' ');
    text += "  " + name + "  " + option.help + "\n";
  }
  return Emphasised(text + "\n" + kExitHelp);
}

const Verb* FindVerb(const std::string& name) {
  for (const Verb& verb : AllVerbs()) {
    if (name == verb.name) return &verb;
  }
  return nullptr;
}

int UnknownVerb(const std::string& name) {
  std::vector<std::string_view> names;
  for (const Verb& verb : AllVerbs()) names.push_back(verb.name);
  const std::string near = NearestWord(name, names);
  Say("unknown command " + Quoted(name) + (near.empty() ? "" : "; did you mean " + near + "?"));
  return kExitUsage;
}

int RunHelp(const CommandLine& line) {
  if (line.words.empty()) return Print(Overview()), kExitOk;
  const Verb* verb = FindVerb(line.words[0]);
  if (verb == nullptr) return UnknownVerb(line.words[0]);
  Print(HelpOf(*verb));
  return kExitOk;
}

int RunVerb(const Verb& verb, const std::vector<std::string>& words) {
  if (AsksForHelp(verb.options, words)) return Print(HelpOf(verb)), kExitOk;
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
  const HostSessionDirectoryInfo session = HostDescribeSessionDirectory();
  if (!session.usable) return Say(session.problem), kExitNoSession;
  return verb.run(line);
}

}  // namespace

Verb HelpVerb() {
  return {"help",
          "[COMMAND]",
          "Describes a command, or lists all of them.",
          "vltctl COMMAND --help and vltctl COMMAND -h print the same.\n"
          "\n"
          "Colours are used on a terminal only, and not if NO_COLOR is set.\n"
          "\n"
          "Example: vltctl help send\n",
          {},
          0,
          1,
          RunHelp,
          false};
}

int RunTool(const std::vector<std::string>& given) {
  std::vector<std::string> words = given;
  // --json may also stand before the verb.
  const bool isJson = !words.empty() && words[0] == "--json";
  if (isJson) words.erase(words.begin());
  if (words.empty()) {
    std::fputs(Overview().c_str(), stderr);
    return kExitUsage;
  }
  if (words[0] == "__complete") return CompleteWords({words.begin() + 1, words.end()});
  if (words[0] == "--help" || words[0] == "-h") words[0] = "help";
  if (words[0] == "--version") words[0] = "version";
  const Verb* verb = FindVerb(words[0]);
  if (verb == nullptr) return UnknownVerb(words[0]);
  words.erase(words.begin());
  if (isJson) words.insert(words.begin(), "--json");
  return RunVerb(*verb, words);
}
