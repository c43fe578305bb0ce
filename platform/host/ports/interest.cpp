#include "platform/host/ports/interest.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>

bool HostInterest::Remove(int epollSet) {
  return std::erase_if(watchers,
                       [epollSet](const Watcher& each) { return each.epollSet == epollSet; }) > 0;
}

bool HostInterest::ChangeIn(const Watcher& watcher, int fd, uint32_t number, uint32_t before,
                            uint32_t after) {
  if (before == after) return true;
  epoll_event event = {};
  event.events = after;
  event.data.u64 = uint64_t{watcher.tag} << 32 | number;
  // A file descriptor that is no longer watched is taken out explicitly: closing it alone does not
  // do that while a forked child holds a copy.
  const int operation = before == 0 ? EPOLL_CTL_ADD : after == 0 ? EPOLL_CTL_DEL : EPOLL_CTL_MOD;
  return epoll_ctl(watcher.epollSet, operation, fd, &event) == 0;
}

bool HostInterest::Change(int fd, uint32_t number, uint32_t before, uint32_t after) const {
  bool isTaken = true;
  for (const Watcher& watcher : watchers) {
    isTaken = ChangeIn(watcher, fd, number, before, after) && isTaken;
  }
  if (isTaken || after == 0) return true;
  for (const Watcher& watcher : watchers) ChangeIn(watcher, fd, number, after, 0);
  return false;
}

bool HostInterest::SetAsleep(int epollSet, bool isAsleep) {
  bool isAny = false;
  for (Watcher& watcher : watchers) {
    if (watcher.epollSet == epollSet) watcher.isAsleep = isAsleep;
    isAny |= watcher.isAsleep;
  }
  return isAny;
}

void HostInterest::Wake() const {
  for (const Watcher& watcher : watchers) {
    const uint64_t one = 1;
    // Fails if the counter is full; then the loop is being woken already.
    (void)!write(watcher.wakeDescriptor, &one, sizeof one);
  }
}
