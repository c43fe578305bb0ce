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
const OptionSpec kDeviceTimeoutOption = {"--timeout", "SECONDS",
                                         "for each of at most five attempts (10)"};

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
  if (!verb.needsSession) return verb.run(line);
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
      {"status",
       "[--json]",
       "Tells whether the session daemon runs.",
       "The exit status is 0 when it does and 3 when it does not. Nothing is started.\n"
       "\n"
       "JSON: one object with port, outcome (running, notRunning, failed) and error.\n",
       {kJsonOption},
       0,
       0,
       RunStatus},
      {"launch",
       "PATH|BUNDLE-ID|'SIGN' [--port NAME] [--wait SECONDS] [--explain] [--json]",
       "Finds an application, opens it, and waits for its port.",
       "The application is looked for in the ways of the package's launcher, the first that finds "
       "it\n"
       "counts: as the path of a bundle or program, by its bundle identifier, by its signature "
       "(four\n"
       "characters). One that runs already is left as it is. Without --port any port of the "
       "program\n"
       "will do; without --wait one is waited for only as long as opening takes, at most 2 "
       "seconds,\n"
       "and a port that was named 10 seconds.\n"
       "\n"
       "JSON: one object with application, by (path, identifier, signature), folder (that it was\n"
       "found in, null for a path), program, outcome, pid, port, seconds (from opening until the "
       "port\n"
       "was seen, null unless it was started) and error. The outcome is started, alreadyRunning,\n"
       "underWay (somebody else is opening it), notFound, failed (the error says why), ended (it "
       "did\n"
       "without claiming the port) or noPort (not in time). With --explain also ways, an array "
       "of\n"
       "objects with way, found and text.\n",
       {{"--port", "NAME", "the port that is waited for"},
        {"--wait", "SECONDS", "wait at most this long for the port"},
        {"--explain", nullptr, "tell for each way why it found the application or did not"},
        kJsonOption},
       1,
       1,
       RunLaunch},
      {"start",
       "[--json]",
       "Starts the session daemon and waits until it has its port.",
       "How it is found and started can be changed by launch preferences. One that runs already\n"
       "counts as done.\n"
       "\n"
       "JSON: one object with port, outcome (started, alreadyRunning, failed) and error.\n",
       {kJsonOption},
       0,
       0,
       RunStart},
      {"devices",
       "[--timeout SECONDS] [--json]",
       "Lists the devices of the device monitor.",
       "A line for each: its id, good as long as the monitor runs, and its attribute \"name\".\n"
       "\n"
       "JSON: an object for each with id and name, null without one.\n",
       {kDeviceTimeoutOption, kJsonOption},
       0,
       0,
       RunDevices},
      {"device",
       "ID get|set KEY [TYPE VALUE] [--attribute] [--timeout SECONDS] [--json]",
       "Reads or changes a preference or an attribute of a device.",
       "TYPE and VALUE are as for send, and what get prints is KEY:TYPE=VALUE.\n"
       "\n"
       "JSON: one object with device, key, attribute (whether it is one), error (number and name)\n"
       "and value, as for send; null when there is none.\n",
       {{"--attribute", nullptr, "an attribute instead of a preference"},
        kDeviceTimeoutOption,
        kJsonOption},
       3,
       5,
       RunDevice},
      {"device-status",
       "[--mask NUMBER] [--timeout SECONDS] [--json]",
       "Prints the device monitor's list of its devices' status.",
       "What an entry holds is the monitor's to say.\n"
       "\n"
       "JSON: the descriptor of each entry, as for send.\n",
       {{"--mask", "NUMBER", "what to ask for, decimal or 0x and hexadecimal digits (0)"},
        kDeviceTimeoutOption,
        kJsonOption},
       0,
       0,
       RunDeviceStatus},
      {"ps",
       "[--apps] [--json]",
       "Lists the processes of this user that have a serial number.",
       "A line for each: serial number (high:low), process id, and of its application bundle\n"
       "signature, type and identifier; then the program. A dash stands for what is not there.\n"
       "\n"
       "JSON: an object for each process with high, low, pid, signature, type, identifier, bundle\n"
       "and program; null is what is not there. Where a path is not UTF-8, bundleHex or "
       "programHex\n"
       "has its bytes.\n",
       {{"--apps", nullptr, "only what runs out of an application bundle"}, kJsonOption},
       0,
       0,
       RunPs,
       false},
      {"session",
       "[--json]",
       "Tells which session this is, and how that is known.",
       "A line for each fact: session id, whether it is the root session, whether it has a "
       "display,\n"
       "the user, the session directory; the source in brackets.\n"
       "\n"
       "JSON: one object with session, root, graphicAccess, user and directory, each an object of\n"
       "value and source (directory also usable and problem), and hex, the id as port names have\n"
       "it behind 0x.\n",
       {kJsonOption},
       0,
       0,
       RunSession,
       false},
      {"plist",
       "print|lint|convert|extract|set|insert|remove|diff ... FILE [--json]",
       "Looks into property lists, checks, converts, changes and compares them.",
       "  print FILE                        the whole list, for people\n"
       "  lint FILE ...                     FILE:LINE:COLUMN: what is wrong (and what may help)\n"
       "  convert xml|binary|json FILE [-o OUT]\n"
       "                                    to OUT, else to standard output\n"
       "  extract FILE PATH                 one value\n"
       "  set FILE PATH VALUE               in place of the old value, or under a new key\n"
       "  insert FILE PATH VALUE            under a new key, or before an index of an array\n"
       "  remove FILE PATH                  a key, or an item of an array\n"
       "  diff FILE FILE                    what was removed (-) and added (+)\n"
       "\n"
       "FILE may be -, standard input (and output). Read are XML, binary and the old text form, "
       "by\n"
       "print, convert, extract and diff also JSON. What is changed keeps the binary form, else "
       "it\n"
       "becomes XML; it is written beside the old file and put in its place.\n"
       "\n"
       "PATH is keys and indexes with points between them: a.b.0.c is key c in the first item of\n"
       "the array b in a. A backslash takes the character behind it as it is: com\\.example. As "
       "an\n"
       "index, the number of items is the place behind the last one.\n"
       "\n"
       "VALUE has the type that is asked for; without --type that of the value it takes the place\n"
       "of; else it is read as JSON or a property list when it looks like one, a number, true or\n"
       "false, and is a string when it does not. Dates are 2005-03-01T12:34:56Z, in UTC; data is\n"
       "base64.\n"
       "\n"
       "JSON: of print and extract the value itself, dates and data as strings; of lint an object\n"
       "for each file with file, ok, format, line, column, offset, problem and hint; of diff an\n"
       "object for each difference with path, beforeType, before, afterType and after; of the\n"
       "others one object with file and what was done. Reals read back bit for bit; integers "
       "beyond\n"
       "2^53 - 1, NaN, Infinity and -Infinity are strings.\n"
       "\n"
       "Exit status: 1 also when diff finds differences, 3 when there is no such file or path, 7\n"
       "for bytes that are no property list.\n",
       {{"-o", "OUT", "of convert: the file to write"},
        {"--type", "TYPE", "string, integer, real, bool, date, data, array or dict"},
        kJsonOption},
       2,
       SIZE_MAX,
       RunPlist,
       false},
      {"prefs",
       "read|write|delete|export|import|where DOMAIN [KEY [VALUE]] [--any-user] [--current-host]",
       "Reads and changes preferences.",
       "  read DOMAIN [KEY]                 one value, or all\n"
       "  write DOMAIN KEY VALUE            sets and commits\n"
       "  delete DOMAIN [KEY]               removes one key, or all, and commits\n"
       "  export DOMAIN [FILE]              all as XML (--json: as JSON), to standard output\n"
       "  import DOMAIN [FILE]              adds a list of any form, or JSON, and commits\n"
       "  where DOMAIN [KEY]                the file that the application's value comes from, or\n"
       "                                    all its files, the strongest first, with their state\n"
       "\n"
       "DOMAIN is an application's identifier; kCFPreferencesAnyApplication stands for all of "
       "them.\n"
       "Without options the current user's preferences for any host are meant, by where all that\n"
       "the application sees. VALUE and --type are as for plist. Whoever runs sees a change at "
       "its\n"
       "next read.\n"
       "\n"
       "JSON: of read the value itself; of write, delete and import an object with domain, "
       "outcome\n"
       "(written, failed) and problem; of where an object for each file with path, state (value,\n"
       "used, absent, refused), anyUser, currentHost, anyApplication and problem.\n"
       "\n"
       "Exit status: 3 when there is no such key or file, 5 when the file is refused or cannot be\n"
       "written, 7 for bytes that mean nothing.\n",
       {{"--any-user", nullptr, "the machine's preferences"},
        {"--current-host", nullptr, "those for this host only"},
        {"--type", "TYPE", "of write: string, integer, real, bool, date, data, array or dict"},
        kJsonOption},
       2,
       4,
       RunPrefs,
       false},
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
