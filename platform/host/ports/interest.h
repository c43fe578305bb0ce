#pragma once

#include <cstdint>
#include <vector>

// HostInterest has the run loops that watch a receiver, and enters the receiver's file descriptors
// into their epoll sets. The data of their events has the watcher's tag in its high half and the
// connection's number in its low half, 0 for the listening socket.
//
// Guarded by its receiver's lock.
class HostInterest {
 public:
  struct Watcher {
    int epollSet;
    uint32_t tag;
    int wakeDescriptor;
    bool isAsleep = false;  // as it reports itself, for the receiver's lanes
  };

  void Add(const Watcher& watcher) { watchers.push_back(watcher); }
  bool Remove(int epollSet);  // false if it does not watch
  void RemoveAll() { watchers.clear(); }

  // Changes the epoll events that `fd` is watched for in all sets, from `before` to `after`; 0
  // means that it is not in the sets. If a set refuses it, takes it out of all sets and returns
  // false.
  bool Change(int fd, uint32_t number, uint32_t before, uint32_t after) const;
  // Does the same in one set.
  static bool ChangeIn(const Watcher& watcher, int fd, uint32_t number, uint32_t before,
                       uint32_t after);

  // Wakes all watchers, for messages that no file descriptor reports.
  void Wake() const;

  // Notes that a watcher is about to sleep or has woken. Returns whether any of them sleeps.
  bool SetAsleep(int epollSet, bool isAsleep);

 private:
  std::vector<Watcher> watchers;
};
