#include <Carbon/AEInteraction.h>
#include <CoreServices/AEMach.h>
#include <CoreServices/MacErrors.h>
#include <CoreServices/Processes.h>
#include <servers/bootstrap.h>

#include <cstring>
#include <memory>

#include "platform/host/base/clock.h"
#include "platform/host/base/guard.h"
#include "platform/host/base/thread_object.h"
#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/events/storage.h"
#include "platform/host/ports/callout.h"
#include "platform/host/ports/conversation.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/ports/receiver.h"
#include "platform/host/processes/serial_number.h"
#include "platform/host/session/name_registry.h"

namespace {

constexpr int64_t kTicksPerSecond = 60;
constexpr int64_t kDefaultTicks = 60 * kTicksPerSecond;  // what kAEDefaultTimeout stands for
constexpr UInt32 kReplyModeMask = 3;

// Nanoseconds; kHostNever is for ever.
int64_t TimeoutOf(SInt32 ticks) {
  if (ticks == 0 || ticks == kNoTimeOut) return kHostNever;
  const int64_t count = ticks < 0 ? kDefaultTicks : ticks;
  return count * kHostSecond / kTicksPerSecond;
}

UInt32 WordAt(const UInt8* bytes) {
  UInt32 word;
  memcpy(&word, bytes, sizeof word);
  return word;
}

// One send: the event, and whether and how a reply is expected.
struct Delivery {
  const HostAEEvent& event;
  AppleEvent* reply;  // null unless the call waits for a reply
  bool replyWanted;
  SInt32 timeoutTicks;
};

HostFrameHeader RequestHeader(const Delivery& delivery) {
  HostFrameHeader header;
  header.kind = HostFrameKind::kRequest;
  header.flags = delivery.replyWanted ? kHostFrameReplyWanted : 0;
  header.requestNumber = HostNextRequestNumber();
  return header;
}

// Uses the thread's own gather list, so that a send allocates nothing.
OSStatus Flatten(const HostAEEvent& event, HostGather** frame) {
  return HostGuard(OSStatus{memFullErr}, [&] {
    HostGather& gather = HostThreadObject<HostGather>();
    gather.Clear();
    *frame = &gather;
    return HostFlattenEvent(event, gather);
  });
}

OSStatus SendToOwnPort(const std::shared_ptr<HostReceiver>& receiver, const Delivery& delivery) {
  HostGather* frame = nullptr;
  OSStatus err = Flatten(delivery.event, &frame);
  if (err != 0) return err;
  std::shared_ptr<HostLocalWaiter> waiter;
  if (delivery.reply != nullptr) waiter = std::make_shared<HostLocalWaiter>();
  err = receiver->PostLocal(RequestHeader(delivery), *frame, waiter);
  if (err != 0 || waiter == nullptr) return err;
  HostFrameSlice body;
  err = waiter->Wait(HostDeadlineAfter(HostNow(), TimeoutOf(delivery.timeoutTicks)), &body);
  return err == 0 ? HostDecodeEvent(std::move(body), delivery.reply) : err;
}

OSStatus SendToPeer(uint64_t portID, const Delivery& delivery) {
  HostGather* frame = nullptr;
  OSStatus err = Flatten(delivery.event, &frame);
  if (err != 0) return err;
  HostFrameSlice body;
  err = HostConverse(portID, RequestHeader(delivery), *frame, TimeoutOf(delivery.timeoutTicks),
                     delivery.reply == nullptr ? nullptr : &body);
  if (err != 0 || delivery.reply == nullptr) return err;
  return HostDecodeEvent(std::move(body), delivery.reply);
}

// Uses up the right, whatever the result: a request has one reply.
OSStatus DeliverReply(mach_port_t right, HostGather* frame) {
  HostReplyTarget target;
  if (!HostTakeReplyRight(right, &target)) return connectionInvalid;
  if (target.waiter != nullptr) {
    HostFrameSlice body = HostCopyFrameBody(*frame);
    if (!body.owner) return target.waiter->Fail(), memFullErr;
    target.waiter->Reply(std::move(body));
  }
  if (target.receiver == nullptr) return 0;
  HostFrameHeader header;
  header.kind = HostFrameKind::kReply;
  header.requestNumber = target.requestNumber;
  HostFillFrameHeader(header, frame);
  return target.receiver->Reply(target.connection, right, frame->Pieces());
}

OSStatus SendReply(mach_port_t right, const HostAEEvent& event) {
  HostGather* frame = nullptr;
  const OSStatus err = Flatten(event, &frame);
  if (err == 0) return DeliverReply(right, frame);
  // A reply that cannot be sent is replaced by one with the error, so that the sender does not wait
  // in vain.
  HostReplyTarget target;
  if (HostTakeReplyRight(right, &target)) {
    HostFailRequest(target, right, {event.fields.returnID, event.fields.transactionID}, err);
  }
  return err;
}

OSStatus SendToPort(mach_port_t port, const Delivery& delivery) {
  const HostDestination destination = HostResolvePort(port);
  switch (destination.kind) {
    case HostDestination::Kind::kOwn:
      return SendToOwnPort(std::static_pointer_cast<HostReceiver>(destination.receiver), delivery);
    case HostDestination::Kind::kRemote:
      return SendToPeer(destination.portID, delivery);
    case HostDestination::Kind::kReply:
      return SendReply(port, delivery.event);
    case HostDestination::Kind::kNone:
      break;
  }
  return connectionInvalid;
}

// The reply to an event that is addressed to the own process: there are no handlers for such.
OSStatus ReplyUnhandled(const Delivery& delivery) {
  if (delivery.reply == nullptr) return 0;
  OSStatus err = HostMakeReply(delivery.event, MACH_PORT_NULL, delivery.reply);
  const SInt32 result = errAEEventNotHandled;
  if (err == 0) {
    err = AEPutParamPtr(delivery.reply, keyErrorNumber, typeSInt32, &result, sizeof result);
  }
  return err;
}

OSStatus SendToProcess(const ProcessSerialNumber& psn, const Delivery& delivery) {
  if (psn.highLongOfPSN == 0 && psn.lowLongOfPSN == kCurrentProcess) {
    return ReplyUnhandled(delivery);
  }
  mach_port_t port = MACH_PORT_NULL;
  const std::string name = HostEventPortName(psn);
  if (bootstrap_look_up(kHostBootstrapPort, name.c_str(), &port) != 0) return procNotFound;
  const OSStatus err = SendToPort(port, delivery);
  mach_port_deallocate(mach_task_self(), port);
  return err;
}

OSStatus SendToAddress(const Delivery& delivery) {
  DescType type = typeNull;
  Size size = 0;
  UInt8 first[8] = {};
  const OSStatus err = HostGetEventAddress(delivery.event, &type, &size, first);
  if (err != 0) return procNotFound;
  ProcessSerialNumber psn = {WordAt(first), WordAt(first + 4)};
  switch (type) {
    case typeMachPort:
      return size == 4 ? SendToPort(WordAt(first), delivery) : OSStatus{connectionInvalid};
    case typeProcessSerialNumber:
      return size == 8 ? SendToProcess(psn, delivery) : OSStatus{procNotFound};
    case typeKernelProcessID:
      if (size != 4 || !HostSerialNumberOfPid(static_cast<pid_t>(WordAt(first)), &psn)) {
        return procNotFound;
      }
      return SendToProcess(psn, delivery);
    case typeApplSignature:
    case typeApplicationBundleID:
      return procNotFound;  // processes do not register these
    default:
      return errAEUnknownAddressType;
  }
}

}  // namespace

OSStatus AESendMessage(const AppleEvent* event, AppleEvent* reply, AESendMode mode,
                       SInt32 timeoutTicks) {
  if (reply != nullptr) *reply = {typeNull, nullptr};
  HostAEEvent* found = nullptr;
  const OSStatus err = HostFindEvent(event, &found);
  if (err != 0) return err;
  const UInt32 replyMode = static_cast<UInt32>(mode) & kReplyModeMask;
  if (replyMode == 0) return errAEUnknownSendMode;
  HostSetInteraction(found, mode & kAEAlwaysInteract);

  // A call without an output for the reply still requests one and waits for it.
  AppleEvent unused = {typeNull, nullptr};
  AppleEvent* received = reply != nullptr ? reply : &unused;
  const Delivery delivery = {*found, replyMode == kAEWaitReply ? received : nullptr,
                             replyMode != kAENoReply, timeoutTicks};
  const OSStatus result = HostGuard(OSStatus{memFullErr}, [&] { return SendToAddress(delivery); });
  AEDisposeDesc(&unused);
  return result;
}

OSErr AESend(const AppleEvent* event, AppleEvent* reply, AESendMode mode, AESendPriority,
             SInt32 timeoutTicks, AEIdleUPP, AEFilterUPP) {
  return static_cast<OSErr>(AESendMessage(event, reply, mode, timeoutTicks));
}

OSStatus AEDecodeMessage(mach_msg_header_t* header, AppleEvent* event, AppleEvent* reply) {
  if (event == nullptr) return paramErr;
  *event = {typeNull, nullptr};
  if (reply != nullptr) *reply = {typeNull, nullptr};
  HostCallout* callout = HostCallout::Find(header);
  return callout == nullptr ? OSStatus{errAENotAppleEvent} : callout->Decode(event, reply);
}
