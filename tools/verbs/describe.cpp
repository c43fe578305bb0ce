#include <string>
#include <vector>

#include "launch/launch_spec.h"
#include "tools/applications/event_list.h"
#include "tools/applications/program_state.h"
#include "tools/applications/search.h"
#include "tools/output.h"
#include "tools/values/absence.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

static int RunDescribe(const CommandLine& line) {
  const std::string& word = line.words[0];
  const std::string bundle = BundleOf(word);
  if (bundle.empty()) {
    const bool isPort = StateOfPort(word).process.pid > 0;
    Say("describe: " + EscapedBytes(word) +
        (isPort ? ": the program that owns this port does not belong to an application bundle, so "
                  "nothing describes its requests"
                : ": neither a port that a process owns nor an application"));
    if (!isPort) {
      for (const std::string& hint : WhyNobodyOwns(word)) Say(hint);
    }
    return kExitNotFound;
  }
  std::vector<EventDescription> events;
  std::string problem;
  if (!ReadEvents(bundle, events, problem)) return Say("describe: " + problem), kExitBadData;
  if (events.empty()) {
    Say("describe: " + EscapedBytes(bundle) + " has no VLTEvents in its Info.plist");
    return kExitNotFound;
  }
  for (const EventDescription& event : events) {
    if (line.Has("--json")) {
      PrintJson(EventModel(event));
      continue;
    }
    for (const std::string& text : EventLines(event)) Print(OneLine(text) + "\n");
  }
  return kExitOk;
}

Verb DescribeVerb() {
  return {"describe",
          "PORT|PATH|BUNDLE-ID|'SIGN' [--json]",
          "Shows the requests that an application takes.",
          "The argument is a port name, whose owner's application is described, or an\n"
          "application as for launch. The description is the array VLTEvents in the\n"
          "Info.plist of its bundle.\n"
          "\n"
          "Prints for each request a line with its name, class and id, then a line for\n"
          "each parameter, KEY:TYPE and its name, and for each parameter of the reply. A\n"
          "parameter of type any may have every type. send accepts these names.\n"
          "\n"
          "Example: vltctl describe com.veltrane.vltsessiond.1.1\n"
          "\n"
          "JSON: one object for each request with name, class, id, text, parameters and\n"
          "reply, two arrays of objects with key, name, type, optional and text.\n",
          {kJsonOption},
          1,
          1,
          RunDescribe};
}
