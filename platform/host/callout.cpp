#include "platform/host/callout.h"

#include <CoreServices/AppleEvents.h>
#include <CoreServices/MacErrors.h>

#include <utility>

#include "platform/host/ae_event.h"
#include "platform/host/port_table.h"

namespace {

thread_local HostCallout* sInnermost = nullptr;

// Values of the event source attribute, as the Apple Event Manager documents them.
constexpr SInt16 kSameProcess = 2;
constexpr SInt16 kLocalProcess = 3;

}  // namespace

HostCallout::HostCallout(std::shared_ptr<HostReceiver> servedBy, HostMessage taken)
    : receiver(std::move(servedBy)),
      message(std::move(taken)),
      outer(sInnermost),
      decodedEvent{typeNull, nullptr},
      decodedReply{typeNull, nullptr} {
  header.msgh_size = static_cast<mach_msg_size_t>(message.header.FrameSize());
  header.msgh_local_port = receiver->Name();
  sInnermost = this;
}

HostCallout::~HostCallout() {
  sInnermost = outer;
  AEDisposeDesc(&decodedEvent);
  AEDisposeDesc(&decodedReply);
  receiver->FinishMessage(message);
}

HostCallout* HostCallout::Find(const mach_msg_header_t* header) {
  for (HostCallout* callout = sInnermost; callout != nullptr; callout = callout->outer) {
    if (&callout->header == header) return callout;
  }
  return nullptr;
}

OSStatus HostCallout::Decode(AppleEvent* event, AppleEvent* reply) {
  if (std::exchange(decoded, true)) return errAENotAppleEvent;
  OSStatus err = HostDecodeEvent(std::move(message.body), &decodedEvent);
  if (err == 0) err = SetArrivalAttributes(&decodedEvent);
  if (err == 0 && message.header.ReplyWanted()) err = MakeReply(&decodedEvent, &decodedReply);
  if (err != 0) {
    AEDisposeDesc(&decodedEvent);
    AEDisposeDesc(&decodedReply);
    return err;
  }
  *event = decodedEvent;
  if (reply != nullptr) *reply = decodedReply;
  return 0;
}

OSStatus HostCallout::SetArrivalAttributes(AppleEvent* request) const {
  const UInt8 wanted = message.header.ReplyWanted() ? 1 : 0;
  const SInt16 source = message.connection == 0 ? kSameProcess : kLocalProcess;
  OSStatus err = HostSetEventAttribute(request, keyReplyRequestedAttr, typeBoolean, &wanted, 1);
  if (err != 0) return err;
  return HostSetEventAttribute(request, keyEventSourceAttr, typeSInt16, &source, sizeof source);
}

// The answer is addressed to a reply right of this process; the asker's own number for its reply
// port means nothing here.
OSStatus HostCallout::MakeReply(AppleEvent* request, AppleEvent* answer) {
  HostEventHead head;
  OSStatus err = HostGetEventHead(request, &head);
  if (err == 0) {
    err = AECreateAppleEvent(kCoreEventClass, kAEAnswer, nullptr, head.returnID,
                             head.transactionID, answer);
  }
  if (err != 0) return err;

  mach_port_t right = kHostDiscardPort;
  if (message.connection != 0) {
    right = HostInsertReplyRight(
        {receiver, message.connection, message.header.requestNumber, nullptr});
    // A connection has one asker at a time: whoever asked before waits no more.
    const mach_port_t before = receiver->ExchangeReplyRight(message.connection, right);
    if (before != MACH_PORT_NULL) HostRemoveReplyRight(before);
  } else if (message.waiter != nullptr) {
    right = HostInsertReplyRight({nullptr, 0, 0, message.waiter});
    if (right != MACH_PORT_NULL && !message.waiter->Expect(right)) HostRemoveReplyRight(right);
  }
  if (right == MACH_PORT_NULL) return memFullErr;
  err = HostSetEventAttribute(request, keyReplyPortAttr, typeMachPort, &right, sizeof right);
  if (err == 0) {
    err = HostSetEventAttribute(request, keyAddressAttr, typeMachPort, &right, sizeof right);
  }
  if (err != 0) return err;
  return HostSetEventAttribute(answer, keyAddressAttr, typeMachPort, &right, sizeof right);
}
