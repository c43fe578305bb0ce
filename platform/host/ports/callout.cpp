#include "platform/host/ports/callout.h"

#include <CoreServices/AppleEvents.h>
#include <CoreServices/MacErrors.h>

#include <cstring>
#include <utility>

#include "platform/host/base/guard.h"
#include "platform/host/events/event.h"
#include "platform/host/events/storage.h"
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
  const HostReplyIDs ids = HostPeekReplyIDs(message.body);
  HostArrival arrival;
  const OSStatus err = HostGuard(OSStatus{memFullErr}, [&] { return DecodeRequest(&arrival); });
  if (err != 0) {
    AEDisposeDesc(&decodedEvent);
    AEDisposeDesc(&decodedReply);
    HostReplyTarget target = Target();
    const bool isTaken =
        arrival.replyPort == MACH_PORT_NULL || HostTakeReplyRight(arrival.replyPort, &target);
    if (err == memFullErr && arrival.replyRequested && isTaken) {
      HostFailRequest(target, arrival.replyPort, ids, err);
    }
    return err;
  }
  *event = decodedEvent;
  if (reply != nullptr) *reply = decodedReply;
  return 0;
}

OSStatus HostCallout::DecodeRequest(HostArrival* arrival) {
  arrival->replyRequested = message.header.ReplyWanted();
  arrival->source = message.connection == 0 ? kAESameProcess : kAELocalProcess;
  OSStatus err = HostDecodeEvent(std::move(message.body), &decodedEvent);
  HostAEEvent* found = nullptr;
  if (err == 0) err = HostFindEvent(&decodedEvent, &found);
  if (err == 0 && arrival->replyRequested) {
    arrival->replyPort = MakeReplyRight();
    err = arrival->replyPort == MACH_PORT_NULL
              ? OSStatus{memFullErr}
              : HostMakeReply(*found, arrival->replyPort, &decodedReply);
  }
  if (err == 0) HostSetArrival(found, *arrival);
  return err;
}

// The reply goes to the connection, or to the waiting thread of this process.
HostReplyTarget HostCallout::Target() const {
  if (message.connection == 0) return HostReplyTarget(message.waiter);
  return {receiver, message.connection, message.header.requestNumber};
}

// The reply is addressed to a reply right of this process. The sender's number for its reply port
// means nothing here.
mach_port_t HostCallout::MakeReplyRight() {
  if (message.connection != 0) {
    const mach_port_t right = HostInsertReplyRight(Target());
    // A connection has one sender, which waits for one reply at a time: an earlier request of it
    // has timed out.
    const mach_port_t before = receiver->ExchangeReplyRight(message.connection, right);
    if (before != MACH_PORT_NULL) HostRemoveReplyRight(before);
    return right;
  }
  if (message.waiter == nullptr) return kHostDiscardPort;
  const mach_port_t right = HostInsertReplyRight(Target());
  if (right != MACH_PORT_NULL && !message.waiter->Expect(right)) HostRemoveReplyRight(right);
  return right;
}

void HostFailRequest(const HostReplyTarget& target, mach_port_t right, const HostReplyIDs& ids,
                     OSStatus error) {
  uint8_t frame[kHostFrameHeaderSize + kHostFailureReplySize];
  uint8_t reply[kHostFailureReplySize];
  HostFlattenFailureReply(ids, error, reply);
  if (target.waiter != nullptr) {
    HostFrameSlice body;
    body.owner = HostFrameRef(HostFrameBuffer::Create(sizeof reply));
    if (!body.owner) return target.waiter->Fail();
    body.bytes = body.owner->Bytes();
    body.size = sizeof reply;
    memcpy(body.bytes, reply, sizeof reply);
    target.waiter->Reply(std::move(body));
  }
  if (target.receiver == nullptr) return;
  HostFrameHeader header;
  header.kind = HostFrameKind::kReply;
  header.requestNumber = target.requestNumber;
  header.bodySize = sizeof reply;
  HostEncodeFrameHeader(header, frame);
  memcpy(frame + kHostFrameHeaderSize, reply, sizeof reply);
  const iovec piece = {frame, sizeof frame};
  target.receiver->Reply(target.connection, right, {&piece, 1});
}
