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
#include "platform/host/ports/turns.h"
#include "platform/host/wire/frame.h"

// HostReceiver is what a receive right does. It is put together of an endpoint (socket and names),
// the interest of run loops, the connections that clients made, and the turns in which their
// requests are served. The limits of the process belong to HostIntake.
//
// Connections with a lane bring their frames through shared memory (lane.h); they take part in the
// same turns. Their clients ring one doorbell, and only while a run loop reports that it sleeps.
//
// Run loops watch it: they enter its descriptors into their epoll sets, hand it what epoll reports,
// and take one message at a time. Connections are served round robin and one is not read on while
// a complete frame of it waits, so a flooding sender fills its own socket and nothing else. What a
// peer sends is bounded; what it does not read is bounded. Nothing here blocks but Destroy and
// FinishMessage of a destroyed right, together at most a second.
//
// Shared by the port table, the run loops that watch it and the replies under way. Any thread; all
// state under `mutex`, which is never held during a callout. A run loop may hold its own lock when
// it calls; under `mutex` those of the intake and of the port table may be taken. What concerns
// other receivers is left to the intake, which is called with `mutex` released. A forked child must
// not use the parent's receivers: every operation there does nothing.
class HostReceiver final : public std::enable_shared_from_this<HostReceiver>,
                           public HostPortObject,
                           private HostIntakeMember {
 public:
  explicit HostReceiver(mach_port_t portName);
  ~HostReceiver();

  mach_port_t Name() const { return name; }
  uint64_t PortID() const override { return endpoint.PortID(); }

  // Claims `service` and makes the port reachable under it. Results of bootstrap_register.
  kern_return_t Register(const char* service);
  bool IsRegisteredAs(const char* service);
  bool Unregister(const char* service);  // false when it is not registered so

  // A run loop's interest. Events of this receiver carry `tag` in the high and the connection (0:
  // the listening socket) in the low half of their data. `wakeDescriptor` is written to when a
  // message comes that no descriptor reports.
  void Watch(int epollSet, uint32_t tag, int wakeDescriptor);
  void Unwatch(int epollSet);
  void HandleEvent(uint32_t connection, uint32_t events);

  // A run loop that watches calls the first before each wait, even one of no length: what has come
  // by lanes is taken. True: there are messages, or more to come, and it must not sleep. It calls
  // the second after the wait.
  bool PrepareToSleep(int epollSet);
  void WakeUp(int epollSet);

  bool HasMessages() const { return turns.HasMessages(); }
  bool IsDestroyed() const { return destroyed.load(std::memory_order_acquire); }
  int64_t Deadline() const { return deadline.load(std::memory_order_relaxed); }
  void HandleDeadline(int64_t now);

  // The next message in turn. Each one taken is given to FinishMessage after its callout.
  bool TakeMessage(HostMessage* message);
  void FinishMessage(const HostMessage& message);

  // Queues a request of this process. Result: 0; errAETimeout (queue full); connectionInvalid
  // (destroyed); memFullErr.
  OSStatus PostLocal(const HostFrameHeader& header, HostGather& frame,
                     std::shared_ptr<HostLocalWaiter> waiter);

  OSStatus Reply(uint32_t connection, mach_port_t right, std::span<const iovec> pieces) override;

  // The reply right that stands for the latest request without a reply of `connection`; gives the
  // one before, for whose reply the sender no longer waits. 0: there is none.
  mach_port_t ExchangeReplyRight(uint32_t connection, mach_port_t right);

  // The port dies: name, socket and undispatched messages go, unread replies get a second.
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

  void LookAtSocket(HostConnection& connection);
  bool VisitLanes();
  bool Visit(HostConnection& connection);
  void LeaveLane(HostConnection& connection);
  bool DecideOffer(HostConnection& connection);
  int AcceptOffer(HostConnection& connection);
  int OpenHall();
  void CloseHall();
  bool WatchDoorbell(const HostInterest::Watcher& watcher, bool on);
  static bool IsDoorbell(uint32_t number);

  int Flush(HostConnection& connection);
  void FlushUntil(HostConnection& connection, int64_t end);
  void DiscardReplies(HostConnection& connection);

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
  HostLaneHall hall;
  std::vector<HostConnection*> lanes;  // those with a lane; null: gone since the visit began
  size_t firstLane = 0;                // which is visited first
  bool isVisiting = false;
  HostConnectionMap connections;
  HostConnection* found = nullptr;     // of `connections`: what Find gave last, or null
  HostConnectionMap::node_type spare;  // the place of the next connection, see MakeSpare
  // Their callouts have returned. Has room for all that are still to come.
  std::vector<std::weak_ptr<HostLocalWaiter>> repliesDue;
  size_t waitersToCome = 0;  // of requests that this process sent itself, queued and in callouts
  bool listenerPaused = false;
  int64_t retryAt;     // when paused things are tried again
  int64_t destroyEnd;  // of the time that unread replies get when the port dies
  uint32_t lastConnection = 0;
  uint64_t acceptCount = 0;
  size_t partialConnections = 0;
};

// What the port table makes for a receive right.
std::shared_ptr<HostPortObject> HostMakeReceiver(mach_port_t name);

// The receiver behind a receive right, made on first use. Null when `name` is not a receive right.
std::shared_ptr<HostReceiver> HostReceiverOf(mach_port_t name);
