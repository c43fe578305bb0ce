#pragma once

#include <mach/mach.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "platform/host/base/mutex.h"
#include "platform/host/events/codec.h"
#include "platform/host/ports/connection.h"
#include "platform/host/ports/endpoint.h"
#include "platform/host/ports/intake.h"
#include "platform/host/ports/interest.h"
#include "platform/host/ports/local_waiter.h"
#include "platform/host/ports/port_object.h"
#include "platform/host/ports/receiver_lanes.h"
#include "platform/host/ports/receiver_output.h"
#include "platform/host/ports/turns.h"
#include "platform/host/wire/frame.h"

// HostReceiver serves a receive right: it accepts the connections of clients, reads their requests
// and hands them to run loops, one at a time. It is composed of these parts:
//
//   HostEndpoint        the listening socket and the port names
//   HostInterest        the run loops that watch the receiver
//   HostConnection      one for each client thread
//   HostReceiverLanes   the connections whose frames come through shared memory, and their doorbell
//   HostTurns           the order in which requests are served
//   HostReceiverOutput  replies, and those that wait until the client reads
//   HostIntake          the limits that all receivers of the process share
//
// A run loop that watches a receiver has the receiver's file descriptors in its epoll set, passes
// on what epoll reports, and takes one message at a time. Connections are served round robin, and a
// connection is not read on while a complete frame of it waits, so a client that floods fills its
// own socket and nothing else. What a client sends is bounded; what it does not read is bounded.
// Only Destroy, and FinishMessage of a destroyed right, may block: together at most a second.
//
// Shared by the port table, the run loops that watch it and the replies under way. Any thread;
// `mutex` guards all state and is never held during a callout. A run loop may hold its own lock
// when it calls; the locks of the intake and of the port table may be taken under `mutex`. The
// intake closes connections of other receivers, so its Relieve and FreeDescriptor are called with
// `mutex` released. In a forked child every operation of the parent's receivers does nothing.
class HostReceiver final : public std::enable_shared_from_this<HostReceiver>,
                           public HostPortObject,
                           private HostIntakeMember {
 public:
  explicit HostReceiver(mach_port_t portName);
  ~HostReceiver();

  mach_port_t Name() const { return name; }
  uint64_t PortID() const override { return endpoint.PortID(); }

  // Claims `service` and makes the port reachable under it. Returns the results of
  // bootstrap_register.
  kern_return_t Register(const char* service);
  bool IsRegisteredAs(const char* service);
  bool Unregister(const char* service);  // false if it is not registered

  // Enters the receiver's file descriptors into a run loop's epoll set. The data of their events
  // has `tag` in its high half and the connection's number in its low half, 0 for the listening
  // socket. A message that no file descriptor reports is announced by writing to `wakeDescriptor`.
  void Watch(int epollSet, uint32_t tag, int wakeDescriptor);
  void Unwatch(int epollSet);
  // Handles `events`, which epoll has reported for `connection`.
  void HandleEvent(uint32_t connection, uint32_t events);

  // A run loop that watches calls PrepareToSleep before each wait, even one of no length: it takes
  // what has come by lanes. If it returns true, there are messages, or more to come, and the loop
  // must not sleep. The loop calls WakeUp after the wait.
  bool PrepareToSleep(int epollSet);
  void WakeUp(int epollSet);

  bool HasMessages() const { return turns.HasMessages(); }
  bool IsDestroyed() const { return destroyed.load(std::memory_order_acquire); }
  int64_t Deadline() const { return deadline.load(std::memory_order_relaxed); }
  void HandleDeadline(int64_t now);

  // Takes the next message in turn; false if there is none. Each message that was taken is given to
  // FinishMessage after its callout.
  bool TakeMessage(HostMessage* message);
  void FinishMessage(const HostMessage& message);

  // Queues a request of this process. Returns 0; errAETimeout if the queue is full;
  // connectionInvalid if the right is destroyed; memFullErr.
  OSStatus PostLocal(const HostFrameHeader& header, HostGather& frame,
                     std::shared_ptr<HostLocalWaiter> waiter);

  OSStatus Reply(uint32_t connection, mach_port_t right, std::span<const iovec> pieces) override;

  // Stores the reply right of the latest request of `connection`. Returns the one before, or 0: the
  // sender does not wait for its reply any more.
  mach_port_t ExchangeReplyRight(uint32_t connection, mach_port_t right);

  // Ends the port: closes names and socket and drops the messages that wait. Replies that clients
  // have not read get one second.
  void Destroy() override;

  Counts Count() override;

 private:
  // HostIntakeMember
  void Survey(std::vector<HostCandidate>* candidates) override;
  void DropHolder(uint32_t connection) override;
  bool GiveUp(uint32_t connection, HostWorth worth) override;

  bool IsForeign() const;
  HostConnection* Find(uint32_t connection);

  void AcceptAll();
  HostEndpoint::Outcome AcceptOne();
  bool MakeSpare();
  void Admit(int fd, const HostPeer& peer);
  bool WatchListener(bool on);
  void PauseListener();
  void ResumeListener();

  void UpdateInterest(HostConnection& connection);
  void Read(HostConnection& connection);
  void AfterRead(HostConnection& connection);
  bool TakeFrom(HostConnection& connection, HostMessage* message);
  void Pause(HostConnection& connection);
  void Drop(HostConnection& connection);
  bool DropIfFinished(HostConnection& connection);

  bool VisitLanes();
  bool Visit(HostConnection& connection);
  void LookAtSocket(HostConnection& connection);
  bool DecideOffer(HostConnection& connection);

  void TrackPartial(HostConnection& connection);
  void RetrySoon();
  void UpdateDeadline();

  const mach_port_t name;
  const uint32_t generation;  // of the process, by forks
  HostIntake& intake;

  std::atomic<bool> destroyed{false};
  std::atomic<int64_t> deadline;

  HostMutex mutex;
  HostEndpoint endpoint;
  HostInterest interest;
  HostTurns turns;
  HostReceiverLanes lanes;
  HostReceiverOutput output;
  HostConnectionMap connections;
  HostConnection* found = nullptr;     // in `connections`: the last one that Find returned, or null
  HostConnectionMap::node_type spare;  // memory for the next connection, see MakeSpare
  // Threads of this process whose requests have been handled, but not replied to. Has room for all
  // that are still to come.
  std::vector<std::weak_ptr<HostLocalWaiter>> repliesDue;
  size_t waitersToCome = 0;  // of requests that this process sent itself, queued and in callouts
  bool listenerPaused = false;
  int64_t retryAt;     // when paused connections and the listener are tried again
  int64_t destroyEnd;  // until then unread replies have time after the port's end
  uint32_t lastConnection = 0;
  uint64_t acceptCount = 0;
  size_t partialConnections = 0;
};

// Makes the object that the port table keeps for a receive right.
std::shared_ptr<HostPortObject> HostMakeReceiver(mach_port_t name);

// Returns the receiver of a receive right, which is made on first use. Null if `name` is not a
// receive right.
std::shared_ptr<HostReceiver> HostReceiverOf(mach_port_t name);
