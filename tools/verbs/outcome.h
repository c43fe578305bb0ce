#pragma once

#include <CoreServices/CoreServices.h>

#include <string>

#include "tools/command_line.h"

// What came of a verb that does one thing to one service.
struct Outcome {
  const char* name;  // as JSON has it, and as the text for people is chosen by
  OSStatus err = 0;  // of "failed", else 0
  ExitStatus exit = kExitOk;
  std::string problem = "";  // of "failed", instead of the error's own text
};

// Tells people on standard error, unless the outcome is what was asked for, and prints the JSON
// object when it is wanted. Returns the exit status.
int TellOutcome(const CommandLine& line, const std::string& port, const Outcome& outcome);

// As ExitForStatus, for a request that reached its service: what tells of no failure on the way is
// the service's own answer.
ExitStatus ExitForAnswer(OSStatus err);

// ErrorSentence for such a request.
std::string RequestErrorSentence(OSStatus err);
