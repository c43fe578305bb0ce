#pragma once

#include <cstdint>
#include <vector>

// HostInterest holds the run loops that watch a receiver, and tells their epoll sets which of the
// receiver's descriptors are to be reported. A descriptor's events carry the watcher's tag in the
// high half of their data and the connection's number in the low half (0: the listening socket).
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
  bool Remove(int epollSet);  // false when it does not watch
  void RemoveAll() { watchers.clear(); }

  // Changes what `fd` is watched for, from `before` to `after` (epoll events; 0: it is not in the
  // sets), in all sets. False when a set does not take it: then no set has it.
  bool Change(int fd, uint32_t number, uint32_t before, uint32_t after) const;
  // As above, in one set.
  static bool ChangeIn(const Watcher& watcher, int fd, uint32_t number, uint32_t before,
                       uint32_t after);

  // Wakes all watchers, for what no descriptor reports.
  void Wake() const;

  // A watcher sleeps or has woken. The result is whether any of them sleeps.
  bool SetAsleep(int epollSet, bool isAsleep);

 private:
  std::vector<Watcher> watchers;
};
