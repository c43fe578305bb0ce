#include <algorithm>
#include <set>

#include <CoreServices/CoreServices.h>

#include <servers/bootstrap.h>
#include "aeport/event.h"

#include "tools/applications/event_list.h"
#include "tools/applications/program_state.h"
#include "tools/output.h"
#include "tools/values/absence.h"
#include "tools/values/desc_model.h"
#include "tools/values/error_names.h"
#include "tools/values/parameter_text.h"
#include "tools/values/port_text.h"
#include "tools/verbs/verb.h"

namespace {

constexpr int kDefaultTicks = 10 * 60;

struct Request {
  std::string port;
  FourCharCode eventClass = 0;
  FourCharCode eventID = 0;
  std::vector<ParameterValue> parameters;
  bool wantsReply = true;
  int timeoutTicks = kDefaultTicks;
};

// The requests that the port's application describes; none if it describes none.
std::vector<EventDescription> EventsOfPort(const std::string& port) {
  std::vector<EventDescription> events;
  const std::string bundle = BundleOf(port);
  std::string problem;
  if (!bundle.empty() && !ReadEvents(bundle, events, problem)) Say("send: " + problem);
  return events;
}

std::string UnknownRequest(const std::string& port, const std::string& word,
                           const std::vector<EventDescription>& events) {
  if (events.empty()) {
    return "nothing describes the requests of " + EscapedBytes(port) +
           ", so it needs CLASS and ID, two codes of four characters";
  }
  std::vector<std::string> names;
  for (const EventDescription& event : events) names.push_back(event.name);
  const std::vector<std::string> like = NamesLike(word, names);
  return EscapedBytes(port) + " has no request " + Quoted(word) +
         (like.empty() ? "; vltctl describe lists them" : "; did you mean " + like[0] + "?");
}

// The class and id: two codes, or the name of a request that the application describes. Stores the
// description if there is one, and the number of words that were taken.
bool ParseEvent(const CommandLine& line, const std::vector<EventDescription>& events,
                Request& request, const EventDescription*& event, size_t& taken,
                std::string& problem) {
  const std::vector<std::string>& words = line.words;
  event = FindEvent(events, words[1]);
  if (event != nullptr && (words.size() < 3 || words[2].find('=') != std::string::npos)) {
    taken = 2;
    return ParseCode(event->eventClass, request.eventClass) &&
           ParseCode(event->id, request.eventID);
  }
  if (words.size() < 3 || words[2].find('=') != std::string::npos) {
    return problem = UnknownRequest(request.port, words[1], events), false;
  }
  taken = 3;
  if (!ParseCode(words[1], request.eventClass)) {
    return problem = "event class " + Quoted(words[1]) + NotACode(words[1]), false;
  }
  if (!ParseCode(words[2], request.eventID)) {
    return problem = "event id " + Quoted(words[2]) + NotACode(words[2]), false;
  }
  event = FindEvent(events, words[1], words[2]);
  return true;
}

// Whether the arguments can be read without a description: two codes and full parameters.
bool IsPlain(const CommandLine& line) {
  FourCharCode code = 0;
  ParameterValue value;
  std::string problem;
  const std::vector<std::string>& words = line.words;
  if (words.size() < 3 || !ParseCode(words[1], code) || !ParseCode(words[2], code)) return false;
  return std::all_of(words.begin() + 3, words.end(), [&](const std::string& word) {
    return ParseParameter(word, value = {}, problem);
  });
}

bool ParseRequest(const CommandLine& line, Request& request, std::string& problem) {
  request.port = line.words[0];
  std::vector<EventDescription> events;
  if (!IsPlain(line)) events = EventsOfPort(request.port);
  const EventDescription* event = nullptr;
  size_t taken = 0;
  if (!ParseEvent(line, events, request, event, taken, problem)) return false;
  std::set<AEKeyword> keys;
  for (size_t i = taken; i < line.words.size(); ++i) {
    ParameterValue& value = request.parameters.emplace_back();
    const std::string word =
        event != nullptr ? FullParameter(*event, line.words[i]) : line.words[i];
    if (!ParseParameter(word, value, problem)) {
      if (event != nullptr) problem += "; vltctl describe lists the parameters";
      return false;
    }
    if (!keys.insert(value.key).second) {
      return problem = "the key " + Quoted(CodeText(value.key)) + " is given twice", false;
    }
  }
  // A request that is named has to be complete; one that is given by its codes may lack parameters.
  for (size_t i = 0; taken == 2 && i < event->parameters.size(); ++i) {
    const EventParameter& parameter = event->parameters[i];
    FourCharCode key = 0;
    if (parameter.isOptional || !ParseCode(parameter.key, key) || keys.contains(key)) continue;
    return problem = event->name + " needs " + parameter.name + "=VALUE (" + parameter.type + ")",
           false;
  }
  request.wantsReply = !line.Has("--no-reply");
  return ParseSecondsOption(line, "--timeout", request.timeoutTicks, problem);
}

OSStatus PutParameters(const Request& request, AEDesc& event) {
  OSStatus err = 0;
  for (const ParameterValue& value : request.parameters) {
    if (err != 0) break;
    err = AEPutParamPtr(&event, value.key, value.type, value.bytes.data(),
                        static_cast<Size>(value.bytes.size()));
  }
  return err;
}

JsonValue ReplyModel(const Request& request, OSStatus err, const AEDesc& reply) {
  JsonValue model = JsonValue::Object();
  model.AddBytes("port", request.port);
  model.Add("error", ErrorModel(err));
  model.Add("attributes", AttributesModel(reply));
  model.Add("parameters", ParametersModel(reply));
  return model;
}

}  // namespace

static int RunSend(const CommandLine& line) {
  Request request;
  std::string problem;
  if (!ParseRequest(line, request, problem)) return Say("send: " + problem), kExitUsage;

  VLTPortDestinationAddress address(request.port.c_str());
  VLTPortAppleEvent event(request.eventClass, request.eventID,
                          request.wantsReply ? kAEWaitReply : kAENoReply, &address,
                          kAutoGenerateReturnID, kAnyTransactionID);
  OSStatus err = address.initialize();
  if (err == -1) return Say("send: " + NotAPortName(request.port)), kExitUsage;
  if (err == 0) err = event.createEvent();
  if (err == 0) err = PutParameters(request, event.event);
  if (err == 0) err = event.sendEvent(0, request.timeoutTicks, kAENormalPriority);
  event.finalizeEvent();

  const JsonValue model = ReplyModel(request, err, event.reply);
  if (line.Has("--json")) {
    PrintJson(model);
  } else {
    for (const std::string& text : ParameterLines(*model.Find("parameters"))) {
      Print(text + "\n");
    }
  }
  if (err == 0) return kExitOk;
  if (event.getReplyHasError()) {
    Say(request.port + ": the server replied with an error " + ErrorNumber(err));
    return kExitRefused;
  }
  Say(EscapedBytes(request.port) + ": " + ErrorSentence(err));
  if (err == BOOTSTRAP_UNKNOWN_SERVICE) {
    for (const std::string& hint : WhyNobodyOwns(request.port)) Say(hint);
  }
  return ExitForStatus(err);
}

Verb SendVerb() {
  return {"send",
          "PORT CLASS ID|REQUEST [KEY:TYPE=VALUE|NAME=VALUE ...] [--no-reply] "
          "[--timeout SECONDS] [--json]",
          "Sends an event to a port and prints the reply's parameters.",
          "CLASS, ID and KEY are four characters, or 0x and eight hexadecimal digits.\n"
          "TYPE is bool, short, ushort, long, ulong, comp, ucomp, float, double, text,\n"
          "utf8, utf16, type, enum or data. The value of data is hexadecimal digits. TYPE\n"
          "may also be a code in single quotes; the value is then hexadecimal digits, the\n"
          "most significant byte of each number first. Separate several numbers or codes\n"
          "with commas.\n"
          "\n"
          "REQUEST and NAME are names that vltctl describe shows for the application. They\n"
          "stand for class and id, and for a key with its type. A parameter of type any\n"
          "takes TYPE=VALUE.\n"
          "\n"
          "Each parameter of the reply is printed on a line, in the same form. Lists,\n"
          "records and events are printed in brackets.\n"
          "\n"
          "Examples: vltctl send com.veltrane.vltdeviced.1.1 CmoN GtPf \\\n"
          "              DvI#:long=1 PKey:text=gain\n"
          "          vltctl send com.veltrane.vltdeviced.1.1 get-preference \\\n"
          "              device=1 key=gain\n"
          "\n"
          "JSON: one object with port, error (number and name), attributes and\n"
          "parameters. The last two are null if no reply arrived. A descriptor is an\n"
          "object with type and, depending on that, value, values, high and low, text,\n"
          "items (of a list), fields (of a record), or attributes and parameters (of an\n"
          "event). hex has all bytes if the other members cannot give them back. Integers\n"
          "beyond 2^53 - 1, NaN, Infinity and -Infinity are strings.\n",
          {{"--no-reply", nullptr, "neither request a reply nor wait for one"},
           kTimeoutOption,
           kJsonOption},
          2,
          SIZE_MAX,
          RunSend};
}
