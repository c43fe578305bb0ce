#pragma once

#include <string>

#include "tests/support/test_process.h"

// A server in a process of its own that tells its test of every event it gets, and answers each in
// the way that the test has chosen before. The role "RecordingPeer" of every program that links it.
class RecordingPeer {
 public:
  explicit RecordingPeer(const char* portName) : process("RecordingPeer", portName, {}) {}

  // How the next event, and the one after it, is answered: "" or parameters as the command-line
  // tool takes them, with "|" between; "=-50" for a handler that fails; "silent" for no answer.
  void Answer(const std::string& answer) { process.Tell(answer); }

  // The next event: class, id, "wait" or "none" for the reply, and the parameters in order, as the
  // command-line tool prints them, with "|" between.
  std::string Event() { return process.Hear(20s).value_or("(no event)"); }
  // Whether another event has come or comes at once.
  bool HasEvent() { return process.Hear(0ms).has_value(); }

  bool Kill() { return process.KillAndWait(20s); }

 private:
  ReadyProcess process;
};
