#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

// What a verb of the tool takes, and taking a command line apart by it. Pure functions, one thread.

// Exit statuses, the tool's contract with scripts.
enum ExitStatus : int {
  kExitOk = 0,
  kExitGeneral = 1,
  kExitUsage = 2,
  kExitNotFound = 3,   // nobody listens under the name
  kExitTimeout = 4,    // no answer, or no room, in time
  kExitRefused = 5,    // the peer answered with an error, or access is denied
  kExitPeerDied = 6,   // the peer ended before it answered
  kExitBadData = 7,    // bytes that mean nothing, or too many of them
  kExitNoSession = 8,  // the session directory cannot be used
};

struct OptionSpec {
  const char* name;       // "--timeout"
  const char* valueName;  // "SECONDS", or null for a switch
  const char* help;
};

// The words behind a verb, sorted out.
struct CommandLine {
  std::vector<std::string> words;              // in order, options left out
  std::map<std::string, std::string> options;  // by name; the value of a switch is empty

  bool Has(const std::string& option) const { return options.contains(option); }
};

// Options may stand anywhere before "--", values behind a blank or "=". False with a text that says
// what is wrong.
bool ParseCommandLine(const std::vector<OptionSpec>& specs, const std::vector<std::string>& words,
                      CommandLine& line, std::string& problem);

// The candidate with the smallest edit distance to `word`, or "" when none is near.
std::string NearestWord(std::string_view word, const std::vector<std::string_view>& candidates);

// Reads `text`, a decimal number above 0 and nothing else, as seconds. Stores them as ticks (1/60
// s, rounded up).
bool ParseSeconds(std::string_view text, int& ticks);

// Reads the option `name` as seconds. Without the option leaves `ticks` alone. Returns false with a
// message when the option's value is not a number of seconds.
bool ParseSecondsOption(const CommandLine& line, const char* name, int& ticks,
                        std::string& problem);

// The text in quotation marks, for messages that repeat what the user gave. At most 200 bytes of
// it.
std::string Quoted(std::string_view text);
