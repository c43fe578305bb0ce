#include "tools/complete.h"

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <set>

#include "platform/host/applications/introspect.h"
#include "platform/host/session/introspect.h"
#include "tools/output.h"
#include "tools/plist/leaf.h"
#include "tools/preferences/domains.h"
#include "tools/values/value_types.h"
#include "tools/verbs/verb.h"
#include "util/owned_ref.h"

namespace {

constexpr char kFiles[] = ":files";

struct Candidate {
  std::string text;
  std::string description;
};
using Candidates = std::vector<Candidate>;

Candidates Verbs() {
  Candidates verbs;
  for (const Verb& verb : AllVerbs()) verbs.push_back({verb.name, verb.summary});
  return verbs;
}

Candidates Options(const Verb& verb) {
  Candidates options = {{kHelpOption.name, kHelpOption.help}};
  for (const OptionSpec& option : verb.options) options.push_back({option.name, option.help});
  return options;
}

Candidates Words(const std::vector<std::string>& words) {
  Candidates candidates;
  for (const std::string& word : words) candidates.push_back({word, ""});
  return candidates;
}

Candidates Ports() {
  Candidates ports;
  for (const HostNameInfo& port : HostListNames()) {
    if (!port.hidden) ports.push_back({port.name, port.program});
  }
  return ports;
}

Candidates Applications() {
  Candidates applications;
  for (const HostApplicationInfo& application : HostDescribeApplications()) {
    if (application.identifier.empty()) continue;
    applications.push_back({application.identifier, application.path});
  }
  return applications;
}

Candidates Domains() {
  Candidates domains;
  std::vector<std::string> ignored;
  for (const PrefsDomain& domain : ListPrefsDomains(ignored)) domains.push_back({domain.name, ""});
  return domains;
}

Candidates Keys(const std::string& domain) {
  const OwnedRef<CFStringRef> application(
      CFStringCreateWithCString(nullptr, domain.c_str(), kCFStringEncodingUTF8));
  std::set<std::string> names;
  if (application == nullptr) return {};
  for (CFStringRef user : {kCFPreferencesCurrentUser, kCFPreferencesAnyUser}) {
    const OwnedRef<CFArrayRef> keys(
        CFPreferencesCopyKeyList(application, user, kCFPreferencesAnyHost));
    const CFIndex count = keys != nullptr ? CFArrayGetCount(keys) : 0;
    for (CFIndex i = 0; i < count; ++i) {
      names.insert(TextOf(static_cast<CFStringRef>(CFArrayGetValueAtIndex(keys, i))));
    }
  }
  return Words({names.begin(), names.end()});
}

Candidates Types() {
  Candidates types;
  for (const std::string_view name : ValueTypeNames()) types.push_back({std::string(name), ""});
  return types;
}

// KEY:TYPE=VALUE: after the key, the types.
Candidates Parameters(const std::string& current) {
  const size_t colon = current.find(':');
  Candidates parameters;
  if (colon == std::string::npos) return parameters;
  for (const Candidate& type : Types()) {
    parameters.push_back({current.substr(0, colon + 1) + type.text + "=", ""});
  }
  return parameters;
}

// The arguments of a synopsis, without options and brackets: "[PORT] [--timeout SECONDS]" is PORT.
// The last one may be repeated if the verb takes more.
std::vector<std::string> ArgumentsOf(const std::string& synopsis) {
  std::vector<std::string> arguments;
  for (size_t at = 0; at < synopsis.size();) {
    const bool isOption = synopsis.compare(at, 2, "[-") == 0;
    const size_t end = std::min(synopsis.find(isOption ? ']' : ' ', at), synopsis.size());
    std::string word = synopsis.substr(at, end - at);
    at = synopsis.find_first_not_of(" ]", end);
    if (isOption) continue;
    std::erase_if(word, [](char c) { return c == '[' || c == ']'; });
    if (!word.empty() && word != "..." && word != "OPTION") arguments.push_back(word);
  }
  return arguments;
}

// The candidates for an argument, by its name in the synopsis. `before` has the arguments before
// it.
Candidates ForArgument(const std::string& name, const std::vector<std::string>& before,
                       const std::string& current) {
  Candidates all;
  for (size_t at = 0; at <= name.size();) {
    const size_t end = std::min(name.find('|', at), name.size());
    const std::string kind = name.substr(at, end - at);
    at = end + 1;
    Candidates some;
    if (kind == "PORT") some = Ports();
    if (kind == "BUNDLE-ID") some = Applications();
    if (kind == "DOMAIN") some = Domains();
    if (kind == "KEY" && before.size() >= 2) some = Keys(before[1]);
    if (kind == "TYPE") some = Types();
    if (kind == "KEY:TYPE=VALUE") some = Parameters(current);
    if (kind == "COMMAND") some = Verbs();
    if (kind == "FILE" || kind == "PATH") some = {{kFiles, ""}};
    if (!kind.empty() && std::islower(static_cast<unsigned char>(kind[0]))) some = {{kind, ""}};
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

// The candidates for the value of an option, with the arguments before it.
Candidates ForOption(const OptionSpec& option, const std::vector<std::string>& before) {
  const std::string kind = option.valueName;
  if (kind == "PATH") return before.size() >= 2 ? Keys(before[1]) : Candidates();
  if (kind == "FORMAT") return Words({"xml", "binary", "json"});
  if (kind == "SIDE") return Words({"ours", "theirs"});
  if (kind == "NAME" || kind == "PORT") return Ports();
  if (kind == "FILE" || kind == "OUT") return {{kFiles, ""}};
  // The types of property lists are in the option's help.
  if (kind != "TYPE") return {};
  return Words({"string", "integer", "real", "bool", "date", "data", "array", "dict"});
}

const OptionSpec* FindOption(const Verb& verb, const std::string& name) {
  for (const OptionSpec& option : verb.options) {
    if (name == option.name || (option.shortName != nullptr && name == option.shortName)) {
      return &option;
    }
  }
  return nullptr;
}

// "----" is the keyword of the direct object.
bool IsOption(const std::string& word) { return word.starts_with("-") && !word.starts_with("---"); }

Candidates ForVerb(const Verb& verb, const std::vector<std::string>& words) {
  const std::string& current = words.back();
  std::vector<std::string> before;  // the arguments that are not options
  for (size_t i = 1; i + 1 < words.size(); ++i) {
    const OptionSpec* option = FindOption(verb, words[i]);
    const bool takesNext = option != nullptr && option->valueName != nullptr;
    if (takesNext && i + 2 == words.size()) return ForOption(*option, before);
    if (takesNext) {
      ++i;
      continue;
    }
    if (words[i] == "-" || !IsOption(words[i])) before.push_back(words[i]);
  }
  if (IsOption(current)) return Options(verb);
  const std::vector<std::string> arguments = ArgumentsOf(verb.synopsis);
  if (arguments.empty()) return Options(verb);
  const size_t at = std::min(before.size(), arguments.size() - 1);
  if (before.size() > at && before.size() >= verb.maxWords) return Options(verb);
  return ForArgument(arguments[at], before, current);
}

Candidates ForLine(const std::vector<std::string>& words) {
  if (words.size() < 2) {
    Candidates verbs = Verbs();
    verbs.push_back({"--help", "Lists the commands."});
    verbs.push_back({"--json", "Prints JSON."});
    verbs.push_back({"--version", "Prints the versions."});
    return verbs;
  }
  if (words[0] == "--json") return ForLine({words.begin() + 1, words.end()});
  for (const Verb& verb : AllVerbs()) {
    if (words[0] == verb.name) return ForVerb(verb, words);
  }
  return {};
}

}  // namespace

int CompleteWords(const std::vector<std::string>& words) {
  const std::string current = words.empty() ? "" : words.back();
  for (const Candidate& candidate : ForLine(words)) {
    const std::string& text = candidate.text;
    // A line is one candidate, so text with control bytes cannot be offered.
    const bool isPlain = std::all_of(
        text.begin(), text.end(), [](unsigned char byte) { return byte >= ' ' && byte != 0x7F; });
    if (!isPlain || (text != kFiles && !text.starts_with(current))) continue;
    Print(candidate.description.empty() ? text + "\n" : text + "\t" + candidate.description + "\n");
  }
  return kExitOk;
}
