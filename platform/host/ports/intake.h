#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/host/base/mutex.h"

class HostIntake;

// One connection's part of the process's limits: bytes of an incomplete frame, and bytes of replies
// that its peer has not read. Part of the connection. HostIntake writes it while it holds its own
// lock and its caller holds the receiver's, so either lock is enough to read it.
struct HostAccount {
  class HostIntakeMember* member = nullptr;
  uint32_t number = 0;  // of the connection, within its member
  pid_t pid = 0;        // of its peer
  size_t partial = 0;
  size_t queued = 0;
  int64_t partialSince = 0;  // monotonic ns when the incomplete frame began; 0: there is none
  int64_t progressAt = 0;    // when that frame last grew, by the intake's clock
  int64_t queuedSince = 0;  // monotonic ns when replies began to wait or one was read; 0: none wait

 private:
  friend class HostIntake;
  bool isListed = false;  // exactly while it holds anything
  HostAccount* next = nullptr;
  HostAccount* previous = nullptr;
};

// How important a connection is when file descriptors run short.
enum class HostWorth {
  kSilent,   // its peer waits for nothing, or does not read its replies
  kHandled,  // a request of it is being handled
  kBusy,     // its replies are being read
};

struct HostCandidate {
  std::shared_ptr<HostIntakeMember> member;
  uint32_t number = 0;
  pid_t pid = 0;
  HostWorth worth = HostWorth::kBusy;
  uint64_t lastActivity = 0;
};

// The intake's view of a receiver. Its functions take the receiver's lock; the caller holds no lock
// of this room.
class HostIntakeMember {
 public:
  // Appends all connections.
  virtual void Survey(std::vector<HostCandidate>* candidates) = 0;
  // Closes a connection that holds too much; does nothing if it has gone meanwhile.
  virtual void DropHolder(uint32_t number) = 0;
  // Gives a connection up for its file descriptor. Returns true if that is free now, and false if
  // requests that the peer sent before have to be served first.
  virtual bool GiveUp(uint32_t number, HostWorth worth) = 0;

 protected:
  ~HostIntakeMember() = default;
};

// HostIntake owns the limits that all ports of the process share. When one is reached, it chooses
// the connection that is closed, whichever port that belongs to. A process has one intake.
//
// Any thread. Its own lock guards the accounts and the list of members; it is taken with a
// receiver's lock held and never the other way round, and nothing else is taken under it.
class HostIntake {
 public:
  // Returns the intake of this process; a forked child gets a new one.
  static HostIntake& OfThisProcess();

  void Join(std::weak_ptr<HostIntakeMember> member);
  void Leave(HostIntakeMember* member);

  // Both are called while the lock of the account's receiver is held.
  void SetPartial(HostAccount& account, size_t bytes);
  void SetQueued(HostAccount& account, size_t bytes);

  // Whether a connection may read more of its frame now. If not, the caller tries again later.
  bool MayReadOn(const HostAccount& account);

  // Closes connections until the process is within its limits, or no connection may be closed yet,
  // or there is no memory to choose one. The caller holds no receiver's lock.
  void Relieve() {
    if (IsOverLimit()) [[unlikely]]
      while (CloseHolder()) {
      }
  }

  // Gives up one connection for its file descriptor. Returns false if none may be given up, or
  // there is no memory to choose one. The caller holds no receiver's lock.
  bool FreeDescriptor();

  size_t PartialBytes() const { return partialInAll.load(std::memory_order_relaxed); }
  size_t QueuedBytes() const { return queuedInAll.load(std::memory_order_relaxed); }

 private:
  struct Member {
    HostIntakeMember* member;
    std::weak_ptr<HostIntakeMember> owner;
  };

  static HostIntake& Make();
  bool IsOverLimit() const;
  bool CloseHolder();
  bool FreeOne();
  void List(HostAccount& account);
  void Tick();
  bool IsStalled(const HostAccount& account) const;
  const HostAccount* Fullest() const;
  const HostAccount* HeaviestStalled() const;
  std::shared_ptr<HostIntakeMember> OwnerOf(const HostAccount& account) const;

  std::atomic<size_t> partialInAll{0};  // written under the lock
  std::atomic<size_t> queuedInAll{0};

  HostMutex mutex;
  std::vector<Member> members;
  HostAccount* first = nullptr;
  int64_t clock = 0;  // see intake.cpp
  int64_t lastTick = 0;
  const HostIntake* inherited = nullptr;  // the parent's, in a forked child: unused, but not freed
};
