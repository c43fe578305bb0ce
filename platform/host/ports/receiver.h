#pragma once

#include <mach/mach.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/host/base/mutex.h"
#include "platform/host/events/codec.h"
#include "platform/host/ports/connection.h"
#include "platform/host/ports/local_waiter.h"
#include "platform/host/wire/frame.h"

class HostReceiver;

// One request taken off a receiver.
struct HostMessage {
  HostFrameHeader header;
  HostFrameSlice body;
  uint32_t connection = 0;                  // 0: this process sent it
  std::shared_ptr<HostLocalWaiter> waiter;  // of a thread of this process, or null
};

// HostReceiver is what a receive right does: a listening socket once it has a name, the connections
// that clients made to it, and the queue of what this process sends itself.
//
// Run loops watch it: they enter its descriptors into their epoll sets, hand it what epoll tells,
// and take one message at a time. Connections are served round robin and one is not read on while
// a complete frame of it waits, so a flooding sender fills its own socket and nothing else. What a
// peer sends is bounded; what it does not read is bounded. Nothing here blocks but Destroy and
// FinishMessage of a destroyed right, together at most a second.
//
// Shared by the port table, the run loops that watch it and the replies under way. Any thread; all
// state under `mutex`, which is never held during a callout. A forked child must not use the
// parent's receivers: every operation there does nothing.
class HostReceiver : public std::enable_shared_from_this<HostReceiver> {
 public:
  explicit HostReceiver(mach_port_t portName);
  ~HostReceiver();

  mach_port_t Name() const { return name; }
  uint64_t PortID() const { return portID; }

  // Claims `service` and makes the port reachable under it. Results of bootstrap_register.
  kern_return_t Register(const char* service);
  bool IsRegisteredAs(const char* service);
  bool Unregister(const char* service);  // false when it is not registered so

  // A run loop's interest. Events of this receiver carry `tag` in the high and the connection (0:
  // the listening socket) in the low half of their data. `wakeDescriptor` is written to when a
  // message comes that no descriptor tells of.
  void Watch(int epollSet, uint32_t tag, int wakeDescriptor);
  void Unwatch(int epollSet);
  void HandleEvent(uint32_t connection, uint32_t events);

  bool HasMessages() const { return messagesWait.load(std::memory_order_acquire); }
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

  // Writes or queues the frame of a reply on `connection`; `right` is used up by it. Never waits.
  // Result: 0; connectionInvalid (the asker has gone); memFullErr (the connection has been closed).
  OSStatus Reply(uint32_t connection, mach_port_t right, std::span<const iovec> pieces);

  // The reply right that stands for the latest unanswered request of `connection`; gives the one
  // before, which no longer has an asker that waits for it. 0 for none.
  mach_port_t ExchangeReplyRight(uint32_t connection, mach_port_t right);

  // The port dies: name, socket and undispatched messages go, unread replies get a second.
  void Destroy();

  struct Counts {
    size_t connections = 0;
    size_t queuedBytes = 0;
    size_t partialBytes = 0;
    bool hasSocket = false;
  };
  Counts Count();

 private:
  struct Watcher {
    int epollSet;
    uint32_t tag;
    int wakeDescriptor;
  };
  struct Claim {
    std::string service;
    int descriptor;
  };
  struct LocalMessage {
    HostFrameHeader header;
    HostFrameSlice body;
    std::shared_ptr<HostLocalWaiter> waiter;
  };
  using ConnectionMap = std::unordered_map<uint32_t, std::unique_ptr<HostConnection>>;

  bool IsForeign() const;
  HostConnection* Find(uint32_t connection);

  kern_return_t OpenSocket();
  void CloseSocket();
  void WatchListener(bool on);
  void Accept();
  bool MakeSpare();
  void PauseListener();
  void Admit(int fd, const HostPeer& peer);
  bool GiveUpSilentConnection();
  void GiveUp(HostConnection& connection);

  void SetInterest(HostConnection& connection, uint32_t interest);
  void UpdateInterest(HostConnection& connection);
  void Read(HostConnection& connection);
  void Pause(HostConnection& connection);
  void AfterRead(HostConnection& connection);
  void Identify(HostConnection& connection);
  void MakeReady(HostConnection& connection);
  bool TakeFrom(HostConnection& connection, HostMessage* message);
  bool TakeLocal(HostMessage* message);
  void UpdateWaiting();
  void Drop(HostConnection& connection);
  bool DropIfFinished(HostConnection& connection);
  void FlushUntil(HostConnection& connection, int64_t end);

  void TrackPartial(HostConnection& connection);
  bool MayReadOn(const HostConnection& connection) const;
  void UpdateDeadline();
  void EnforceQueueLimits(HostConnection& connection);
  void CountQueued(HostConnection& connection);

  const mach_port_t name;
  const uint64_t portID;
  const uint32_t generation;  // of the process, by forks

  std::atomic<bool> messagesWait{false};
  std::atomic<bool> destroyed{false};
  std::atomic<int64_t> deadline;

  HostMutex mutex;
  int listener = -1;
  bool listenerPaused = false;
  int64_t retryAt;  // when paused things are tried again
  int64_t destroyEnd;
  std::vector<Claim> claims;
  std::vector<Watcher> watchers;
  ConnectionMap connections;
  HostConnection* found = nullptr;  // of `connections`: what Find gave last, or null
  ConnectionMap::node_type spare;   // the place of the next connection, made before it is accepted
  HostReadyConnections ready;
  std::deque<LocalMessage> local;
  // Their callouts have returned. Has room for all that are still to come.
  std::vector<std::weak_ptr<HostLocalWaiter>> unanswered;
  size_t waitersToCome = 0;  // of requests in `local` and in callouts
  size_t localBytes = 0;
  bool localTurn = false;
  uint32_t lastConnection = 0;
  uint64_t acceptCount = 0;
  uint64_t activity = 0;
  size_t partialConnections = 0;
  size_t pausedConnections = 0;
};
