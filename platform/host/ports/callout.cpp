#include "platform/host/ports/callout.h"

#include <CoreServices/AppleEvents.h>
#include <CoreServices/MacErrors.h>

#include <utility>

#include "platform/host/events/event.h"
#include "platform/host/ports/port_table.h"

namespace {

thread_local HostCallout* sInnermost = nullptr;

}  // namespace

HostCallout::HostCallout(std::shared_ptr<HostReceiver> servedBy, HostMessage* taken)
    : receiver(std::move(servedBy)),
      message(*taken),
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
  HostArrival arrival;
  arrival.replyRequested = message.header.ReplyWanted();
  arrival.source = message.connection == 0 ? kAESameProcess : kAELocalProcess;
  if (err == 0 && arrival.replyRequested) {
    arrival.replyPort = MakeReplyRight();
    err = arrival.replyPort == MACH_PORT_NULL
              ? OSStatus{memFullErr}
              : HostMakeAnswer(&decodedEvent, arrival.replyPort, &decodedReply);
  }
  if (err == 0) err = HostSetArrival(&decodedEvent, arrival);
  if (err != 0) {
    AEDisposeDesc(&decodedEvent);
    AEDisposeDesc(&decodedReply);
    return err;
  }
  *event = decodedEvent;
  if (reply != nullptr) *reply = decodedReply;
  return 0;
}

// The answer is addressed to a reply right of this process; the asker's own number for its reply
// port means nothing here.
mach_port_t HostCallout::MakeReplyRight() {
  if (message.connection != 0) {
    const mach_port_t right =
        HostInsertReplyRight({receiver, message.connection, message.header.requestNumber, nullptr});
    // A connection has one asker at a time: whoever asked before waits no more.
    const mach_port_t before = receiver->ExchangeReplyRight(message.connection, right);
    if (before != MACH_PORT_NULL) HostRemoveReplyRight(before);
    return right;
  }
  if (message.waiter == nullptr) return kHostDiscardPort;
  const mach_port_t right = HostInsertReplyRight({nullptr, 0, 0, message.waiter});
  if (right != MACH_PORT_NULL && !message.waiter->Expect(right)) HostRemoveReplyRight(right);
  return right;
}
