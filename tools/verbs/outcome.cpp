#include "tools/verbs/outcome.h"

#include "tools/values/error_names.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

namespace {

// The message for people, after the port's name; null for none.
const char* TextFor(const std::string& outcome) {
  if (outcome == "notRunning") return " is not running";
  if (outcome == "notFound") return ": no process owns this port name";
  if (outcome == "notOwned") return ": no process claimed this port name in time";
  if (outcome == "stillOwned") return ": its owner did not end in time";
  if (outcome == "killed") return ": ended by a signal";
  if (outcome == "ended") return ": ended before it could be reached";
  if (outcome == "noPort") return ": did not claim its port in time";
  if (outcome == "alreadyRunning") return " is already running";
  if (outcome == "stillRunning") return ": did not end in time";
  return nullptr;
}

}  // namespace

ExitStatus ExitForReply(OSStatus err) {
  const ExitStatus exit = ExitForStatus(err);
  return exit == kExitGeneral ? kExitRefused : exit;
}

std::string RequestErrorSentence(OSStatus err) {
  // The text of a number that a server chose may mean something else there.
  if (ExitForReply(err) != kExitRefused) return ErrorSentence(err);
  return "the request was refused " + ErrorNumber(err);
}

JsonValue OutcomeModel(const std::string& port, const Outcome& outcome) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("port", port);
  model.Add("outcome", outcome.name);
  model.Add("error", outcome.err != 0 ? ErrorModel(outcome.err) : JsonValue());
  return model;
}

void SayOutcome(const std::string& port, const Outcome& outcome) {
  const std::string shown = EscapedBytes(port);
  if (outcome.err != 0) {
    Say(shown + ": " +
        (outcome.problem.empty() ? RequestErrorSentence(outcome.err)
                                 : outcome.problem + " " + ErrorNumber(outcome.err)));
  } else if (const char* text = TextFor(outcome.name)) {
    Say(shown + text);
  }
  for (const std::string& hint : outcome.hints) Say(hint);
}

int TellOutcome(const CommandLine& line, const std::string& port, const Outcome& outcome) {
  SayOutcome(port, outcome);
  if (line.Has("--json")) PrintJson(OutcomeModel(port, outcome));
  return outcome.exit;
}
