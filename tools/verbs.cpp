#include "tools/verbs.h"

#include <cstdint>
#include <cstdio>

#include "platform/host/introspect.h"

namespace {

constexpr char kExitHelp[] =
    "Exit status: 0 ok, 1 general, 2 usage, 3 nobody there, 4 time-out, 5 the peer answered with\n"
    "an error or access is denied, 6 the peer died, 7 bad data, 8 no session directory.\n";

const OptionSpec kJsonOption = {"--json", nullptr, "print JSON, one object a line"};
const OptionSpec kTimeoutOption = {"--timeout", "SECONDS", "wait at most this long (10)"};

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
  Say("unknown command \"" + name + "\"" + (near.empty() ? "" : "; did you mean " + near + "?"));
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
    if (line.words.size() < verb.minWords) problem = "too few words";
    if (line.words.size() > verb.maxWords) problem = "too many words";
  }
  if (!problem.empty()) {
    Say(std::string(verb.name) + ": " + problem);
    Say(std::string("usage: vltctl ") + verb.name + " " + verb.synopsis);
    return kExitUsage;
  }
  const HostContextInfo session = HostDescribeContext();
  if (!session.usable) return Say(session.problem), kExitNoSession;
  return verb.run(line);
}

}  // namespace

const std::vector<Verb>& AllVerbs() {
  static const std::vector<Verb> verbs = {
      {"ports",
       "[--all] [--json]",
       "Lists the published port names with their owners.",
       "A line for each: name, process id, age and program of the owner. Bytes of a name that are\n"
       "not printable ASCII are shown as \\xNN.\n"
       "\n"
       "JSON: an object for each port with name, pid, uid, ageSeconds, program and hidden; null "
       "is\n"
       "what cannot be told. When a name or a program is not UTF-8, nameHex or programHex has its\n"
       "bytes.\n",
       {{"--all", nullptr, "also the hidden names of processes' own event ports"}, kJsonOption},
       0,
       0,
       RunPorts},
      {"send",
       "PORT CLASS ID [KEY:TYPE=VALUE ...] [--no-reply] [--timeout SECONDS] [--json]",
       "Sends an event to a port and prints the reply's parameters.",
       "CLASS, ID and KEY are four characters, or 0x and eight hexadecimal digits. TYPE is one of\n"
       "bool, short, ushort, long, ulong, comp, ucomp, float, double, text, utf8, utf16, type, "
       "enum\n"
       "and data (hexadecimal), or a code in single quotes with hexadecimal bytes of that type,\n"
       "numbers from the most significant byte on. Several numbers or codes are separated by\n"
       "commas. The reply's parameters are printed in the same form, a line for each; lists,\n"
       "records and events in brackets.\n"
       "\n"
       "JSON: one object with port, error (number and name), attributes and parameters, which are\n"
       "null when no reply came. A descriptor is an object with its type and, by type, value,\n"
       "values, high and low, text, items (of a list), fields (of a record), or attributes and\n"
       "parameters (of an event). hex has all bytes wherever the rest would not give them back.\n"
       "Integers beyond 2^53 - 1, NaN, Infinity and -Infinity are strings.\n",
       {{"--no-reply", nullptr, "ask for no reply and wait for none"}, kTimeoutOption, kJsonOption},
       3,
       SIZE_MAX,
       RunSend},
      {"quit",
       "[PORT] [--timeout SECONDS] [--json]",
       "Sends the quit event and waits until the port is gone.",
       "Without PORT to the session daemon. Nobody there counts as done.\n"
       "\n"
       "JSON: one object with port, outcome and error. The outcome is quit, notRunning, failed "
       "(the\n"
       "error says why; null with every other outcome) or stillRunning (it has answered, but not\n"
       "ended in time).\n",
       {kTimeoutOption, kJsonOption},
       0,
       1,
       RunQuit},
  };
  return verbs;
}

void Say(const std::string& text) { std::fprintf(stderr, "vltctl: %s\n", text.c_str()); }

void PrintJson(const JsonValue& value) {
  const std::string line = JsonText(value) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
}

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
