#pragma once

#include <CoreServices/MacTypes.h>
#include <mach/mach.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

// HostPortObject is what the port table knows of the object behind a receive right: what it asks of
// it when the right is looked up, counted or destroyed, and where replies go. Any thread; called
// without the table's lock, all but PortID.
class HostPortObject {
 public:
  struct Counts {
    size_t connections = 0;
    size_t lanes = 0;
    bool hasSocket = false;
  };

  virtual uint64_t PortID() const = 0;  // the same for all its life
  virtual Counts Count() = 0;
  virtual void Destroy() = 0;  // the right has gone; the second call does nothing

  // Writes or queues the frame of a reply on `connection`; `right` is used up by it. Never waits.
  // Result: 0; connectionInvalid (the sender has gone); memFullErr (the connection has been
  // closed).
  virtual OSStatus Reply(uint32_t connection, mach_port_t right, std::span<const iovec> pieces) = 0;

 protected:
  ~HostPortObject() = default;
};
