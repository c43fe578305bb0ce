#include "tests/clients/recording_peer.h"

#include <signal.h>

#include <CoreServices/CoreServices.h>

#include "aeport/params.h"
#include "aeport/port_listener.h"
#include "tests/support/test_role.h"
#include "tools/values/desc_model.h"
#include "tools/values/parameter_text.h"

namespace {

std::string Describe(const AEDesc& event) {
  UInt32 eventClass = 0;
  UInt32 eventID = 0;
  UInt8 wantsReply = 0;
  if (VLTGetAEDispatchAttributes(event, &eventClass, &eventID, &wantsReply) != 0) return "(torn)";
  std::string text =
      CodeText(eventClass) + " " + CodeText(eventID) + (wantsReply != 0 ? " wait" : " none");
  const char* separator = " ";
  for (const std::string& line : ParameterLines(ParametersModel(event))) {
    text += separator + line;
    separator = "|";
  }
  return text;
}

OSStatus Fill(const std::string& answer, AEDesc* reply) {
  if (answer.starts_with("=")) {
    const SInt32 number = std::stoi(answer.substr(1));
    return PutAELong(reply, keyErrorNumber, &number);
  }
  OSStatus err = 0;
  for (size_t at = 0; err == 0 && at < answer.size();) {
    const size_t end = std::min(answer.find('|', at), answer.size());
    ParameterValue value;
    std::string problem;
    err = paramErr;
    if (ParseParameter(answer.substr(at, end - at), value, problem)) {
      err = AEPutParamPtr(reply, value.key, value.type, value.bytes.data(),
                          static_cast<Size>(value.bytes.size()));
    }
    at = end + 1;
  }
  return err;
}

class PeerListener : public VLTPortAEMachPortListener {
 public:
  explicit PeerListener(TestRole& owner) : role(owner) {}

  OSStatus Listen() {
    const VLTAEDispatchCallback unused = [](UInt32, UInt32, const AEDesc*, AEDesc*, void*) {
      return OSStatus{errAEEventNotHandled};
    };
    return ListenOnPort(role.PortName(), CFRunLoopGetCurrent(), unused, nullptr);
  }

 private:
  void PortCallback(CFMachPortRef, void* message, CFIndex) override {
    AEDesc event, reply;
    if (AEDecodeMessage(static_cast<mach_msg_header_t*>(message), &event, &reply) != 0) return;
    role.Tell(Describe(event));
    const std::string answer = role.Hear(20s).value_or("silent");
    if (answer == "silent" || reply.descriptorType == typeNull) return;
    if (Fill(answer, &reply) != 0) raise(SIGABRT);  // the test's own mistake
    AESendMessage(&reply, nullptr, kAENoReply, kAEDefaultTimeout);
  }

  TestRole& role;
};

TEST_ROLE(RecordingPeer) {
  PeerListener listener(role);
  if (listener.Listen() != 0) return RoleFailed();
  role.SignalReady();
  CFRunLoopRun();
  return RoleFailed();  // the test kills us first
}

}  // namespace
