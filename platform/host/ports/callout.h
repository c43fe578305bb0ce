#pragma once

#include <CoreServices/AEDataModel.h>
#include <mach/mach.h>

#include <memory>

#include "platform/host/ports/receiver.h"

// HostCallout is one message under way in a port's callout: what the callout is given as its
// message, and what AEDecodeMessage made of it. Lives on the stack of the run loop that serves the
// port; a thread's callouts form a stack, one level for each nested run. When it ends, also by an
// exception, what was decoded is reclaimed and the receiver learns that the request is through.
class HostCallout {
 public:
  // Borrows the message.
  HostCallout(std::shared_ptr<HostReceiver> servedBy, HostMessage* taken);
  ~HostCallout();
  HostCallout(const HostCallout&) = delete;
  HostCallout& operator=(const HostCallout&) = delete;

  // The callout of the calling thread that was given `header`, or null.
  static HostCallout* Find(const mach_msg_header_t* header);

  mach_msg_header_t* Header() { return &header; }
  OSStatus Decode(AppleEvent* event, AppleEvent* reply);

 private:
  mach_port_t MakeReplyRight();

  mach_msg_header_t header = {};
  std::shared_ptr<HostReceiver> receiver;
  HostMessage& message;
  HostCallout* outer;
  bool decoded = false;
  AppleEvent decodedEvent;
  AppleEvent decodedReply;
};
