#include "tools/verbs/outcome.h"

#include "tools/values/error_names.h"
#include "tools/verbs/verb.h"

namespace {

// The message for people, after the port's name; null for none.
const char* TextFor(const std::string& outcome) {
  if (outcome == "notRunning") return " is not running";
  if (outcome == "alreadyRunning") return " is already running";
  if (outcome == "stillRunning") return ": replied, but did not end in time";
  return nullptr;
}

}  // namespace

ExitStatus ExitForAnswer(OSStatus err) {
  const ExitStatus exit = ExitForStatus(err);
  return exit == kExitGeneral ? kExitRefused : exit;
}

std::string RequestErrorSentence(OSStatus err) {
  // The text of a number that a server chose may mean something else there.
  if (ExitForAnswer(err) != kExitRefused) return ErrorSentence(err);
  return "the request was refused " + ErrorNumber(err);
}

int TellOutcome(const CommandLine& line, const std::string& port, const Outcome& outcome) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("port", port);
  model.Add("outcome", outcome.name);
  model.Add("error", outcome.err != 0 ? ErrorModel(outcome.err) : JsonValue());
  if (outcome.err != 0) {
    Say(port + ": " +
        (outcome.problem.empty() ? RequestErrorSentence(outcome.err)
                                 : outcome.problem + " " + ErrorNumber(outcome.err)));
  } else if (const char* text = TextFor(outcome.name)) {
    Say(port + text);
  }
  if (line.Has("--json")) PrintJson(model);
  return outcome.exit;
}
