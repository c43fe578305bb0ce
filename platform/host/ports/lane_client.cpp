#include "platform/host/ports/lane_client.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>
#include <cerrno>

#include "platform/host/base/clock.h"
#include "platform/host/base/descriptors.h"

namespace {

constexpr size_t kDescriptors = 3;
constexpr uint32_t kSocketData = 1;
// So soon after a check the next one is left out.
constexpr int64_t kLookAgain = 20'000;  // ns

int AddTo(int epollSet, int fd, uint32_t events, uint32_t data) {
  epoll_event event = {};
  event.events = events | EPOLLET;
  event.data.u32 = data;
  return epoll_ctl(epollSet, EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

}  // namespace

int HostClientLane::Offer(int socket, uint64_t portID, uint64_t sender) {
  int err = share.Take(kDescriptors) ? 0 : EMFILE;
  if (err == 0) err = Make(socket);
  if (err != 0) return err;
  HostLaneDescriptor file;
  file.Reset(HostMakeSharedFile(HostLaneFileName(portID).c_str(), kHostLaneSize));
  if (!file.IsOpen()) return errno;
  err = memory.Map(file.Get(), kHostLaneSize, true);
  if (err != 0) return err;
  HostFormatLane(memory.Get());
  if (fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) return errno;
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneOffer;
  header.sender = sender;
  return HostSendPassing(socket, header, file.Get(), bell.Get());
}

// Makes everything that may fail for lack of resources before the offer is sent.
int HostClientLane::Make(int socket) {
  bell.Reset(HostMakeBell());
  if (!bell.IsOpen()) return errno;
  {
    HostDescriptorOpening opening;
    epollSet.Reset(opening.Enter(epoll_create1(EPOLL_CLOEXEC), HostDescriptorKind::kEpoll));
  }
  if (!epollSet.IsOpen()) return errno;
  const int err = AddTo(epollSet.Get(), bell.Get(), EPOLLIN, 0);
  return err != 0 ? err : AddTo(epollSet.Get(), socket, EPOLLIN | EPOLLRDHUP, kSocketData);
}

int HostClientLane::Accept(HostPassedPair* passed) {
  if (!passed->IsComplete()) return EMFILE;
  int err = HostCheckBell(passed->At(0));
  if (err == 0) err = HostCheckSharedFile(passed->At(1), kHostStatusPageSize);
  if (err == 0) err = status.Map(passed->At(1), kHostStatusPageSize, false);
  if (err != 0) return err;
  const auto* serverSleeps = HostServerSleepWord(static_cast<const void*>(status.Get()));
  out = HostRingProducer(memory.Get(), HostRingDirection::kToServer, serverSleeps);
  in = HostRingConsumer(memory.Get(), HostRingDirection::kToClient);
  sleeper = HostSleeper(HostClientSleepWord(memory.Get()));
  peerBell.Reset(passed->TakeOut(0));
  return 0;
}

void HostClientLane::TakeEvents(int milliseconds, int* count) {
  epoll_event events[2];
  *count = epoll_wait(epollSet.Get(), events, 2, milliseconds);
  for (int i = 0; i < *count; i++) {
    if (events[i].data.u32 != kSocketData) continue;
    isSocketReadable |= (events[i].events & EPOLLIN) != 0;
    hasHungUp |= (events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0;
  }
}

int HostClientLane::Wait(int milliseconds, bool forRoom) {
  sleeper.Announce();
  // The write that found no room has announced that it waits for it.
  const bool isReady =
      hasHungUp || isSocketReadable || HasBytes() || (forRoom && (!out.Look() || out.Room() > 0));
  int count = 1;
  int error = 0;
  if (!isReady) {
    TakeEvents(milliseconds, &count);
    if (count < 0) error = errno;
  }
  sleeper.Withdraw();
  if (error != 0) return error == EINTR ? 0 : error;
  return count == 0 ? ETIMEDOUT : 0;
}

void HostClientLane::LookForHangUp() {
  const int64_t now = HostNow();
  if (now - lookedAt < kLookAgain) return;
  lookedAt = now;
  int count = 0;
  TakeEvents(0, &count);
}
