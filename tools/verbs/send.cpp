#include <set>

#include <CoreServices/CoreServices.h>

#include "aeport/event.h"
#include "tools/output.h"
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

bool ParseRequest(const CommandLine& line, Request& request, std::string& problem) {
  request.port = line.words[0];
  if (!ParseCode(line.words[1], request.eventClass)) {
    return problem = "event class " + Quoted(line.words[1]) + kNotACode, false;
  }
  if (!ParseCode(line.words[2], request.eventID)) {
    return problem = "event id " + Quoted(line.words[2]) + kNotACode, false;
  }
  std::set<AEKeyword> keys;
  for (size_t i = 3; i < line.words.size(); ++i) {
    ParameterValue& value = request.parameters.emplace_back();
    if (!ParseParameter(line.words[i], value, problem)) return false;
    if (!keys.insert(value.key).second) {
      return problem = "the key " + Quoted(CodeText(value.key)) + " is given twice", false;
    }
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
  Say(request.port + ": " + ErrorSentence(err));
  return ExitForStatus(err);
}

Verb SendVerb() {
  return {"send",
          "PORT CLASS ID [KEY:TYPE=VALUE ...] [--no-reply] [--timeout SECONDS] [--json]",
          "Sends an event to a port and prints the reply's parameters.",
          "CLASS, ID and KEY are four characters, or 0x and eight hexadecimal digits.\n"
          "TYPE is bool, short, ushort, long, ulong, comp, ucomp, float, double, text,\n"
          "utf8, utf16, type, enum or data. The value of data is hexadecimal digits. TYPE\n"
          "may also be a code in single quotes; the value is then hexadecimal digits, the\n"
          "most significant byte of each number first. Separate several numbers or codes\n"
          "with commas.\n"
          "\n"
          "Each parameter of the reply is printed on a line, in the same form. Lists,\n"
          "records and events are printed in brackets.\n"
          "\n"
          "Example: vltctl send com.veltrane.vltdeviced.1.1 CmoN GtPf \\\n"
          "             DvI#:long=1 PKey:text=gain\n"
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
          3,
          SIZE_MAX,
          RunSend};
}
