#include "tests/integration/raw_lane.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <utility>

#include "platform/host/base/clock.h"
#include "platform/host/wire/frame.h"
#include "tests/support/passed_descriptors.h"

namespace {

constexpr int kAnswerLimit = 20'000;  // ms

// Reads one frame header and its file descriptors. Returns false if it is not an acceptance.
bool ReadAcceptance(int socket, int descriptors[2]) {
  pollfd entry = {socket, POLLIN, 0};
  if (poll(&entry, 1, kAnswerLimit) != 1) return false;
  uint8_t bytes[kHostFrameHeaderSize];
  iovec piece = {bytes, sizeof bytes};
  alignas(cmsghdr) char control[CMSG_SPACE(2 * sizeof(int))];
  msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  HostFrameHeader header;
  if (recvmsg(socket, &message, MSG_CMSG_CLOEXEC) != static_cast<ssize_t>(sizeof bytes) ||
      !HostDecodeFrameHeader(bytes, &header) || header.kind != HostFrameKind::kLaneAccepted) {
    return false;
  }
  const cmsghdr* const rights = CMSG_FIRSTHDR(&message);
  if (rights == nullptr || rights->cmsg_len != CMSG_LEN(2 * sizeof(int))) return false;
  std::memcpy(descriptors, CMSG_DATA(rights), 2 * sizeof(int));
  return true;
}

}  // namespace

RawOffer::RawOffer(RawOffer&& other) noexcept
    : file(std::exchange(other.file, -1)), bell(std::exchange(other.bell, -1)) {}

RawOffer::~RawOffer() {
  if (file >= 0) close(file);
  if (bell >= 0) close(bell);
}

RawOffer RawOffer::Make() {
  RawOffer made;
  made.bell = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  made.file = memfd_create("raw-lane", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (ftruncate(made.file, kHostLaneSize) != 0) return RawOffer();
  void* const lane = mmap(nullptr, kHostLaneSize, PROT_READ | PROT_WRITE, MAP_SHARED, made.file, 0);
  HostFormatLane(lane);
  munmap(lane, kHostLaneSize);
  fcntl(made.file, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  return made;
}

bool RawOffer::SendOn(int socket, size_t count) const {
  HostFrameHeader header;
  header.kind = HostFrameKind::kLaneOffer;
  char bytes[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, reinterpret_cast<uint8_t*>(bytes));
  std::vector<int> passed(count, bell);
  if (count > 0) passed[0] = file;
  return SendPassing(socket, {bytes, sizeof bytes}, passed) == ssize_t{sizeof bytes};
}

std::unique_ptr<RawLane> RawLane::On(int socket) {
  std::unique_ptr<RawLane> made(new RawLane());
  RawOffer offer = RawOffer::Make();
  int descriptors[2];
  if (!offer.SendOn(socket) || !ReadAcceptance(socket, descriptors)) return nullptr;
  made->lane = mmap(nullptr, kHostLaneSize, PROT_READ | PROT_WRITE, MAP_SHARED, offer.file, 0);
  made->status = mmap(nullptr, kHostStatusPageSize, PROT_READ, MAP_SHARED, descriptors[1], 0);
  // Only the server may write to its page.
  EXPECT_EQ(MAP_FAILED, mmap(nullptr, kHostStatusPageSize, PROT_READ | PROT_WRITE, MAP_SHARED,
                             descriptors[1], 0));
  EXPECT_NE(0, mprotect(made->status, kHostStatusPageSize, PROT_READ | PROT_WRITE));
  EXPECT_EQ(-1, pwrite(descriptors[1], "x", 1, 0));
  close(descriptors[1]);
  made->doorbell = descriptors[0];
  made->out =
      HostRingProducer(made->lane, HostRingDirection::kToServer, HostServerSleepWord(made->status));
  made->in = HostRingConsumer(made->lane, HostRingDirection::kToClient);
  made->sleeper = HostSleeper(HostClientSleepWord(made->lane));
  std::swap(made->offer.bell, offer.bell);
  return made;
}

RawLane::~RawLane() {
  munmap(lane, kHostLaneSize);
  munmap(status, kHostStatusPageSize);
  close(doorbell);
}

void RawLane::Ring() {
  const uint64_t one = 1;
  (void)!write(doorbell, &one, sizeof one);
}

bool RawLane::FillDoorbell() {
  uint64_t count = UINT64_MAX - 1;
  uint64_t before = 0;
  (void)!read(doorbell, &before, sizeof before);
  return write(doorbell, &count, sizeof count) == sizeof count;
}

size_t RawLane::Write(const void* bytes, size_t size) {
  if (!out.Look()) return 0;
  const size_t written = out.Write(bytes, size);
  if (out.Publish()) Ring();
  return written;
}

void RawLane::WriteUnrung(const void* bytes, size_t size) {
  EXPECT_EQ(size, out.Write(bytes, size));
  (void)out.Publish();
}

size_t RawLane::Read(void* bytes, size_t size) {
  if (!in.Look()) return 0;
  const size_t read = in.Read(bytes, size);
  if (in.Release()) Ring();
  return read;
}

bool RawLane::Wait(int socket, bool forRoom, int64_t end) {
  sleeper.Announce();
  if (forRoom) out.AnnounceWait();
  const bool isReady =
      !in.Look() || in.Available() > 0 || (forRoom && out.Look() && out.Room() > 0);
  pollfd entries[] = {{offer.bell, POLLIN, 0}, {socket, POLLRDHUP, 0}};
  const int ready = isReady ? 1 : poll(entries, 2, HostMillisecondsUntil(end, HostNow()));
  sleeper.Withdraw();
  if (forRoom) out.WithdrawWait();
  uint64_t count = 0;
  (void)!read(offer.bell, &count, sizeof count);
  return ready != 0 && entries[1].revents == 0;
}
