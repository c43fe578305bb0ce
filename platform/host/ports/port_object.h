#pragma once

#include <CoreServices/MacTypes.h>
#include <mach/mach.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>

// HostPortObject is the port table's view of the object that serves a receive right. The table uses
// it when the right is looked up, counted or destroyed, and for replies. Any thread. The table's
// lock is not held during calls, except PortID.
class HostPortObject {
 public:
  struct Counts {
    size_t connections = 0;
    size_t lanes = 0;
    bool hasSocket = false;
  };

  virtual uint64_t PortID() const = 0;  // never changes
  virtual Counts Count() = 0;
  virtual void Destroy() = 0;  // the right has gone; a second call does nothing

  // Writes or queues the frame of a reply on `connection` and uses up `right`. Never waits. Returns
  // 0; connectionInvalid if the sender has gone; memFullErr, and then the connection has been
  // closed.
  virtual OSStatus Reply(uint32_t connection, mach_port_t right, std::span<const iovec> pieces) = 0;

 protected:
  ~HostPortObject() = default;
};
