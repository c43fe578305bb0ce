#pragma once

#include <mach/mach.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

class HostLocalWaiter;
class HostPortObject;

// This room is the transport: port rights, the connections of clients (conversation.h) and servers
// (receiver.h), and sending.
//
// The port table has this process's port rights by right number. A port has one number, whatever
// rights are held; a number contains a generation, so it is not reused soon. Any thread. A forked
// child starts with an empty table: it owns no rights.

inline constexpr mach_port_t kHostTaskPort = 0x103;
inline constexpr mach_port_t kHostBootstrapPort = 0x203;
inline constexpr mach_port_t kHostDiscardPort = 0x303;  // a reply right whose sender does not wait

// Where a reply is sent. It has one owner at a time: the table while the reply right exists, then
// the caller that took it.
struct HostReplyTarget {
  HostReplyTarget() = default;
  HostReplyTarget(std::shared_ptr<HostPortObject> port, uint32_t number, uint64_t request)
      : receiver(std::move(port)), connection(number), requestNumber(request) {}
  explicit HostReplyTarget(std::shared_ptr<HostLocalWaiter> thread) : waiter(std::move(thread)) {}
  HostReplyTarget(HostReplyTarget&&) = default;
  HostReplyTarget& operator=(HostReplyTarget&&) = default;

  std::shared_ptr<HostPortObject> receiver;  // with `connection`: the sender is in another process
  uint32_t connection = 0;
  uint64_t requestNumber = 0;
  std::shared_ptr<HostLocalWaiter> waiter;  // the sender is a thread of this process
};

// The destination that a right number stands for.
struct HostDestination {
  enum class Kind { kNone, kOwn, kRemote, kReply };
  Kind kind = Kind::kNone;
  uint64_t portID = 0;                       // kRemote
  std::shared_ptr<HostPortObject> receiver;  // kOwn
};
HostDestination HostResolvePort(mach_port_t name);

// Makes the object that serves the receive right `name`.
using HostPortObjectMaker = std::shared_ptr<HostPortObject> (*)(mach_port_t name);

// Makes a receive right, which is an entry only: `maker` makes its object on first use. All calls
// in a process pass the same maker. Returns MACH_PORT_NULL if the table is full.
mach_port_t HostAllocateReceiveRight(HostPortObjectMaker maker);

// Returns the object of a receive right, which is made on first use. Null if `name` is not a
// receive right.
std::shared_ptr<HostPortObject> HostPortObjectOf(mach_port_t name);

// Adds a reference to the send right to the port with this id, which is made if there is none. The
// number is that of the receive right if this process has it. Returns MACH_PORT_NULL if the table
// is full.
mach_port_t HostInsertSendRight(uint64_t portID);

// A reply right is made with its target, used up by HostTakeReplyRight, and removed when its sender
// has gone.
mach_port_t HostInsertReplyRight(HostReplyTarget target);
bool HostTakeReplyRight(mach_port_t name, HostReplyTarget* target);
void HostRemoveReplyRight(mach_port_t name);

// Removes the send right to a port that has turned out to be dead.
void HostForgetDeadPort(uint64_t portID);

kern_return_t HostAddSendReference(mach_port_t name);
kern_return_t HostDropReference(mach_port_t name);
kern_return_t HostDestroyRight(mach_port_t name);

// Ends all receive rights in order, at exit.
void HostDestroyAllReceivers();

struct HostTableCounts {
  size_t names = 0;
  size_t receivers = 0;
  size_t connections = 0;
  size_t lanes = 0;
};
HostTableCounts HostCountTable();

// Called (with no lock held) whenever a receive right has been destroyed.
void HostSetDeathObserver(void (*observer)(mach_port_t name));
