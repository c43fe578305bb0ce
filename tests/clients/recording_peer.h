#pragma once

#include <string>

#include "tests/support/test_process.h"

// A server process that reports each event to its test and replies as the test has chosen before.
// The role "RecordingPeer" of every program that links it.
class RecordingPeer {
 public:
  explicit RecordingPeer(const char* portName) : process("RecordingPeer", portName, {}) {}

  // Chooses the reply to the next event: "" or parameters in the form of the command-line tool,
  // separated by "|"; "=-50" for a handler that fails; "silent" for no reply.
  void Answer(const std::string& answer) { process.Tell(answer); }

  // Returns the next event: class, id, "wait" or "none" for the reply, and the parameters in order
  // as the command-line tool prints them, separated by "|".
  std::string Event() { return process.Hear(20s).value_or("(no event)"); }
  // Returns whether another event has come.
  bool HasEvent() { return process.Hear(0ms).has_value(); }

  bool Kill() { return process.KillAndWait(20s); }

 private:
  ReadyProcess process;
};
