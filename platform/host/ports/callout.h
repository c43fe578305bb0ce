#pragma once

#include <CoreServices/AEDataModel.h>
#include <mach/mach.h>

#include <memory>

#include "platform/host/events/codec.h"
#include "platform/host/events/event.h"
#include "platform/host/ports/port_table.h"
#include "platform/host/ports/receiver.h"

// Replies to a request with an error number and nothing else, so that its sender does not wait in
// vain where no real reply can be made. Uses up `right`, which is MACH_PORT_NULL if the request has
// no reply right yet. Needs no memory, unless the reply has to wait after others.
void HostFailRequest(const HostReplyTarget& target, mach_port_t right, const HostReplyIDs& ids,
                     OSStatus error);

// HostCallout is one message under way in a port's callout: the message that the callout is given,
// and the events that AEDecodeMessage made of it. Lives on the stack of the run loop that serves
// the port; a thread's callouts form a stack, one level for each nested run. When it ends, also by
// an exception, it disposes of what was decoded and reports to the receiver that the request has
// been handled.
class HostCallout {
 public:
  // Borrows the message.
  HostCallout(std::shared_ptr<HostReceiver> servedBy, HostMessage* taken);
  ~HostCallout();
  HostCallout(const HostCallout&) = delete;
  HostCallout& operator=(const HostCallout&) = delete;

  // Returns the callout of the calling thread that was given `header`, or null.
  static HostCallout* Find(const mach_msg_header_t* header);

  mach_msg_header_t* Header() { return &header; }
  // Returns the results of AEDecodeMessage. If a request that wants a reply cannot be decoded for
  // lack of memory, sends memFullErr as the reply.
  OSStatus Decode(AppleEvent* event, AppleEvent* reply);

 private:
  OSStatus DecodeRequest(HostArrival* arrival);
  mach_port_t MakeReplyRight();
  HostReplyTarget Target() const;

  mach_msg_header_t header = {};
  std::shared_ptr<HostReceiver> receiver;
  HostMessage& message;
  HostCallout* outer;
  bool decoded = false;
  AppleEvent decodedEvent;
  AppleEvent decodedReply;
};
