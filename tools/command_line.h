#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// The options of the tool's verbs, and parsing a command line by them. Pure functions, any thread.

// Exit statuses, on which scripts rely.
enum ExitStatus : int {
  kExitOk = 0,
  kExitGeneral = 1,
  kExitUsage = 2,
  kExitNotFound = 3,   // no process owns the port name; no such file or key
  kExitTimeout = 4,    // no reply, or no room, in time
  kExitRefused = 5,    // an error reply, or no permission
  kExitPeerDied = 6,   // the other process ended before it replied
  kExitBadData = 7,    // invalid or oversized data
  kExitNoSession = 8,  // the session directory cannot be used
};

struct OptionSpec {
  const char* name;       // "--timeout"
  const char* valueName;  // "SECONDS"; null for an option without a value
  const char* help;
  bool isRepeatable = false;        // may be given several times
  const char* shortName = nullptr;  // "-t"; null for none
};

// The arguments after a verb, separated.
struct CommandLine {
  std::vector<std::string> words;              // the arguments without the options, in order
  std::map<std::string, std::string> options;  // by name; "" without a value; the last one
  std::map<std::string, std::vector<std::string>> repeated;  // all values of a repeatable option

  bool Has(const std::string& option) const { return options.contains(option); }
};

// Parses the arguments after a verb. Options may be anywhere before "--", with their value after a
// space or "="; the value of a short one may follow it at once. Returns false with a message for a
// wrong argument.
bool ParseCommandLine(const std::vector<OptionSpec>& specs, const std::vector<std::string>& words,
                      CommandLine& line, std::string& problem);

// Whether one of the arguments is --help or -h, and neither an option's value nor after "--". The
// other arguments may be wrong.
bool AsksForHelp(const std::vector<OptionSpec>& specs, const std::vector<std::string>& words);

// Returns the candidate with the smallest edit distance to `word`, or "" if all are too different.
std::string NearestWord(std::string_view word, const std::vector<std::string_view>& candidates);

// Reads `text`, a decimal number above 0 and then nothing, "s", "ms" or "m", as a time in seconds
// unless a unit says otherwise. Stores it as ticks (1/60 s, rounded up).
bool ParseSeconds(std::string_view text, int& ticks);

// Reads the option `name` as seconds. Without the option leaves `ticks` alone. Returns false with a
// message when the option's value is not a number of seconds.
bool ParseSecondsOption(const CommandLine& line, const char* name, int& ticks,
                        std::string& problem);

// The text in quotation marks, for messages that repeat what the user gave. At most 200 bytes of
// it.
std::string Quoted(std::string_view text);
