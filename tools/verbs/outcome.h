#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "tools/command_line.h"
#include "tools/values/json_value.h"

// The result of a verb that does one thing with one server. One thread.
struct Outcome {
  const char* name;  // in JSON; also selects the text for people
  OSStatus err = 0;  // of "failed"; else 0
  ExitStatus exit = kExitOk;
  std::string problem = "";             // of "failed", instead of the error's own text
  std::vector<std::string> hints = {};  // further lines for people
};

// Prints a message to standard error, unless the outcome is the requested one, and the JSON object
// if the command line has --json. Returns the exit status.
int TellOutcome(const CommandLine& line, const std::string& port, const Outcome& outcome);

// The two halves of TellOutcome: the JSON object, which more members can be added to, and the
// message.
JsonValue OutcomeModel(const std::string& port, const Outcome& outcome);
void SayOutcome(const std::string& port, const Outcome& outcome);

// Like ExitForStatus, for the result of a request to a server: an error that is not known as one of
// the transport is the server's reply, so it gives kExitRefused.
ExitStatus ExitForReply(OSStatus err);

// ErrorSentence for such a request.
std::string RequestErrorSentence(OSStatus err);
