#include "platform/host/ports/lane.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include <algorithm>

#include "platform/host/base/descriptors.h"

// Limits of the process. Each end of a lane counts: both map the memory; a client's end has three
// file descriptors (its eventfd, its epoll set, the server's doorbell), a server's end has one.
//
// Passed file descriptors are checked once and cannot change afterwards: a memfd that is sealed
// against shrinking has all its pages for ever, so no access to the mapping can fail. Writing to an
// eventfd never waits.

namespace {

constexpr size_t kLaneBytesInAll = size_t{64} << 20;
constexpr size_t kDescriptorShare = 4;  // lanes may have one file descriptor in so many
constexpr size_t kPart = size_t{64} << 10;
constexpr int kShapeSeals = F_SEAL_SHRINK | F_SEAL_GROW;

constinit std::atomic<size_t> sLanes{0};
constinit std::atomic<size_t> sDescriptors{0};

void ForgetInChild() {
  sLanes.store(0, std::memory_order_relaxed);
  sDescriptors.store(0, std::memory_order_relaxed);
}

// Adds to a count unless that makes it larger than `most`.
bool AddWithin(std::atomic<size_t>& count, size_t added, size_t most) {
  size_t before = count.load(std::memory_order_relaxed);
  do {
    if (before + added > most) return false;
  } while (!count.compare_exchange_weak(before, before + added, std::memory_order_relaxed));
  return true;
}

size_t DescriptorsForLanes() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
  return static_cast<size_t>(limit.rlim_cur / kDescriptorShare);
}

}  // namespace

int HostMapping::Map(int fd, size_t count, bool isWritable) {
  assert(memory == nullptr);
  const int protection = isWritable ? PROT_READ | PROT_WRITE : PROT_READ;
  const HostDescriptorOpening noFork;  // until a child would not inherit the mapping
  void* const mapped = mmap(nullptr, count, protection, MAP_SHARED, fd, 0);
  if (mapped == MAP_FAILED) return errno;
  if (madvise(mapped, count, MADV_DONTFORK) != 0) {
    const int error = errno;
    munmap(mapped, count);
    return error;
  }
  memory = mapped;
  size = count;
  generation = HostForkGeneration();
  return 0;
}

void HostMapping::Unmap() {
  // In a forked child something else may be mapped there.
  if (memory != nullptr && generation == HostForkGeneration()) munmap(memory, size);
  memory = nullptr;
}

void HostLaneDescriptor::Reset(int taken) {
  if (generation == HostForkGeneration()) HostCloseDescriptor(fd);
  fd = taken;
  generation = HostForkGeneration();
}

bool HostLaneShare::Take(size_t count) {
  static const bool sInstalled = (HostAtForkInChild(ForgetInChild), true);
  (void)sInstalled;
  assert(descriptors == 0);
  if (!AddWithin(sLanes, 1, kLaneBytesInAll / kHostLaneSize)) return false;
  if (!AddWithin(sDescriptors, count, DescriptorsForLanes())) {
    sLanes.fetch_sub(1, std::memory_order_relaxed);
    return false;
  }
  descriptors = count;
  generation = HostForkGeneration();
  return true;
}

HostLaneShare::~HostLaneShare() {
  if (descriptors == 0 || generation != HostForkGeneration()) return;
  sLanes.fetch_sub(1, std::memory_order_relaxed);
  sDescriptors.fetch_sub(descriptors, std::memory_order_relaxed);
}

// Both ends.

// Run loops and clients never read the counter. One that is full accepts no more and wakes no
// thread, so it is emptied then. Additions of 1 never fill it, but a peer may add any number; an
// emulated process of the other byte order adds 2^56 each time. A peer that keeps filling it harms
// only itself and the threads that wait for the same bell, as it could by emptying it.
void HostLaneEnd::Ring() {
  constexpr int kAttempts = 4;
  const uint64_t one = 1;
  uint64_t count = 0;
  for (int i = 0; i < kAttempts; i++) {
    if (write(peerBell.Get(), &one, sizeof one) >= 0 || errno != EAGAIN) return;
    (void)!read(peerBell.Get(), &count, sizeof count);
  }
}

ssize_t HostLaneEnd::Receive(HostFrameReader& reader) {
  const ssize_t size = reader.Receive(in);
  if (size > 0 && in.Release()) Ring();
  return size;
}

// Calls `put` until everything is in the ring, or the ring stays full. Publishes after each call,
// so that the peer can read in between.
template <class Put>
int HostLaneEnd::PutAll(Put put) {
  for (;;) {
    if (waitsForRoom) out.WithdrawWait();
    waitsForRoom = false;
    const int error = put();
    if (out.Publish()) Ring();
    if (error != EAGAIN) return error;
    if (brief.Wait([this] { return !out.Look() || out.Room() >= kPart; })) continue;
    out.AnnounceWait();
    waitsForRoom = true;
    if (!out.Look()) return EBADMSG;
    if (out.Room() == 0) return EAGAIN;
  }
}

// A large piece is shown to the peer part by part, so that it reads while the rest is written.
int HostLaneEnd::Write(std::span<const iovec> pieces, size_t* written) {
  return PutAll([&] {
    size_t before = 0;
    for (const iovec& piece : pieces) {
      while (*written - before < piece.iov_len) {
        const size_t at = *written - before;
        const iovec part = {static_cast<uint8_t*>(piece.iov_base) + at,
                            std::min(piece.iov_len - at, kPart)};
        size_t done = 0;
        const int error = out.Write({&part, 1}, &done);
        *written += done;
        if (error != 0) return error;
        if (done == kPart && out.Publish()) Ring();
      }
      before += piece.iov_len;
    }
    return 0;
  });
}

int HostLaneEnd::Flush(HostOutQueue& queue) {
  return PutAll([&] { return queue.Flush(out); });
}

// The server's end.

int HostServerLane::Open(HostPassedPair* offered) {
  if (!offered->IsComplete()) return EMFILE;
  int err = HostCheckSharedFile(offered->At(0), kHostLaneSize);
  if (err == 0) err = HostCheckBell(offered->At(1));
  if (err == 0 && !share.Take(1)) err = EMFILE;
  if (err == 0) err = memory.Map(offered->At(0), kHostLaneSize, true);
  if (err == EACCES || err == EPERM)
    err = EBADMSG;  // it is sealed against writing, or open for reading only
  if (err == 0 && !HostIsLane(memory.Get())) err = EBADMSG;
  if (err != 0) return err;
  out = HostRingProducer(memory.Get(), HostRingDirection::kToClient,
                         HostClientSleepWord(memory.Get()));
  in = HostRingConsumer(memory.Get(), HostRingDirection::kToServer);
  peerBell.Reset(offered->TakeOut(1));
  return 0;
}

int HostLaneHall::Open() {
  assert(!IsOpen());
  doorbell.Reset(HostMakeBell());
  int err = doorbell.IsOpen() ? 0 : errno;
  if (err == 0) statusFile.Reset(HostMakeSharedFile("veltrane-status", kHostStatusPageSize));
  if (err == 0 && !statusFile.IsOpen()) err = errno;
  if (err == 0) err = status.Map(statusFile.Get(), kHostStatusPageSize, true);
  // From here on the page can be mapped for reading only.
  const int seals = kShapeSeals | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL;
  if (err == 0 && fcntl(statusFile.Get(), F_ADD_SEALS, seals) != 0) err = errno;
  if (err != 0) {
    Close();
    return err;
  }
  sleeper = HostSleeper(HostServerSleepWord(status.Get()));
  isOpen.store(true, std::memory_order_release);
  return 0;
}

void HostLaneHall::Close() {
  isOpen.store(false, std::memory_order_release);
  status.Unmap();
  statusFile.Reset(-1);
  doorbell.Reset(-1);
}

void HostLaneHall::ClearDoorbell() {
  uint64_t count = 0;
  (void)!read(doorbell.Get(), &count, sizeof count);
}

int HostLaneHall::SendAcceptance(int connection) const {
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneAccepted;
  return HostSendPassing(connection, header, doorbell.Get(), statusFile.Get());
}

// Making, checking and passing.

int HostMakeBell() {
  HostDescriptorOpening opening;
  return opening.Enter(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), HostDescriptorKind::kWake);
}

int HostMakeSharedFile(const char* name, size_t size) {
  int fd = -1;
  {
    HostDescriptorOpening opening;
    fd = opening.Enter(memfd_create(name, MFD_CLOEXEC | MFD_ALLOW_SEALING),
                       HostDescriptorKind::kWake);
  }
  if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) == 0) return fd;
  const int error = errno;
  HostCloseDescriptor(fd);
  errno = error;
  return -1;
}

std::string HostLaneFileName(uint64_t portID) {
  char name[32];
  snprintf(name, sizeof name, "veltrane-lane-%016" PRIx64, portID);
  return name;
}

int HostCheckBell(int fd) {
  char link[32], target[32] = {};
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  if (readlink(link, target, sizeof target - 1) < 0) return errno;
  if (strcmp(target, "anon_inode:[eventfd]") != 0) return EBADMSG;
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_NONBLOCK) != 0 ? 0 : EBADMSG;
}

int HostCheckSharedFile(int fd, size_t size) {
  struct stat info = {};
  const int seals = fcntl(fd, F_GET_SEALS);  // fails for other files than a memfd
  if (seals < 0 || (seals & kShapeSeals) != kShapeSeals) return EBADMSG;
  if (fstat(fd, &info) != 0) return errno;
  return info.st_size == static_cast<off_t>(size) ? 0 : EBADMSG;
}

int HostSendPassing(int socket, const HostFrameHeader& header, int first, int second) {
  assert(HostCarriesDescriptors(header.kind) && header.bodySize == 0);
  uint8_t frame[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, frame);
  iovec piece = {frame, sizeof frame};
  const int passed[2] = {first, second};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof passed)] = {};
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  rights->cmsg_level = SOL_SOCKET;
  rights->cmsg_type = SCM_RIGHTS;
  rights->cmsg_len = CMSG_LEN(sizeof passed);
  memcpy(CMSG_DATA(rights), passed, sizeof passed);
  ssize_t sent = 0;
  do {
    sent = sendmsg(socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return errno;
  return sent == static_cast<ssize_t>(sizeof frame) ? 0
                                                    : EPIPE;  // so few bytes are never sent in part
}
