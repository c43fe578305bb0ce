#include "tests/integration/raw_peer.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <utility>

#include "platform/host/base/byte_order.h"
#include "platform/host/base/clock.h"
#include "platform/host/events/codec.h"
#include "platform/host/session/name_registry.h"
#include "platform/host/session/port_address.h"
#include "platform/host/session/session_directory.h"
#include "tests/support/passed_descriptors.h"

namespace {

constexpr timeval kSendLimit = {20, 0};
constexpr int64_t kLimit = 20 * kHostSecond;

// Returns whether the process that listens at the other end of a connection can answer now.
bool ServerRuns(int socket) {
  ucred owner = {};
  socklen_t size = sizeof owner;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &owner, &size) != 0) return false;
  if (owner.pid == getpid()) return false;
  std::ifstream file("/proc/" + std::to_string(owner.pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const size_t state = text.rfind(") ");  // the name before it may contain anything
  return state != std::string::npos && text[state + 2] != 'T';
}

}  // namespace

RawPeer::RawPeer(const char* name) : fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  uint64_t port = 0;
  sockaddr_un address = {};
  socklen_t size = 0;
  EXPECT_EQ(0, setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit));
  EXPECT_EQ(0, HostFindName(name, &port));
  EXPECT_TRUE(HostPortAddress(port, &address, &size));
  EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&address), size)) << strerror(errno);
  if (getenv("VLT_TEST_LANES") != nullptr && ServerRuns(fd)) TakeLane();
}

bool RawPeer::TakeLane() {
  lane = RawLane::On(fd);
  return HasLane();
}

RawPeer::RawPeer(RawPeer&& other) noexcept
    : fd(std::exchange(other.fd, -1)), lane(std::move(other.lane)) {}

RawPeer& RawPeer::operator=(RawPeer&& other) noexcept {
  std::swap(fd, other.fd);
  std::swap(lane, other.lane);
  return *this;
}

RawPeer::~RawPeer() {
  if (fd >= 0) close(fd);
}

bool RawPeer::Write(const std::string& bytes) {
  const int64_t end = HostNow() + kLimit;
  for (size_t sent = 0; HasLane();) {
    sent += lane->Write(bytes.data() + sent, bytes.size() - sent);
    if (sent == bytes.size()) return !HasHungUp();
    if (!lane->Wait(fd, true, end)) return false;
  }
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t size = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return false;
    sent += static_cast<size_t>(size);
  }
  return true;
}

void RawPeer::WriteAtOnce(const std::string& bytes) {
  if (HasLane()) {
    lane->Write(bytes.data(), bytes.size());
    return;
  }
  send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool RawPeer::WriteWithDescriptor(const std::string& bytes, int passed) {
  return SendPassing(fd, bytes, {passed}) == static_cast<ssize_t>(bytes.size());
}

bool RawPeer::WaitTaken(std::chrono::milliseconds limit) {
  int waiting = 0;
  if (HasLane()) return WaitUntil([&] { return lane->IsAllTaken() || HasHungUp(); }, limit);
  return WaitUntil([&] { return ioctl(fd, SIOCOUTQ, &waiting) == 0 && waiting == 0; }, limit);
}

bool RawPeer::Read(size_t size, std::string* bytes, std::chrono::milliseconds limit) {
  const int64_t end = HostNow() + limit.count() * kHostMillisecond;
  bytes->resize(size);
  if (HasLane()) return ReadFromLane(size, bytes, end);
  for (size_t got = 0; got < size;) {
    pollfd entry = {fd, POLLIN, 0};
    const int ready = poll(&entry, 1, HostMillisecondsUntil(end, HostNow()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t count = recv(fd, bytes->data() + got, size - got, MSG_DONTWAIT);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return false;
    got += static_cast<size_t>(count);
  }
  return true;
}

bool RawPeer::ReadFromLane(size_t size, std::string* bytes, int64_t end) {
  for (size_t got = 0;;) {
    got += lane->Read(bytes->data() + got, size - got);
    if (got == size) return true;
    if (lane->Wait(fd, false, end)) continue;
    const size_t last = lane->Read(bytes->data() + got, size - got);
    if (last == 0) return false;
    got += last;
  }
}

std::optional<RawPeer::Frame> RawPeer::ReadFrame(std::chrono::milliseconds limit) {
  Frame frame;
  std::string head;
  if (!Read(kHostFrameHeaderSize, &head, limit)) return std::nullopt;
  const auto* bytes = reinterpret_cast<const uint8_t*>(head.data());
  if (!HostDecodeFrameHeader(bytes, &frame.header)) return std::nullopt;
  if (!Read(frame.header.bodySize, &frame.body, limit)) return std::nullopt;
  if (frame.header.kind == HostFrameKind::kLaneOffer) return ReadFrame(limit);  // no reply
  return frame;
}

std::optional<FaultAnswer> RawPeer::Ask(const std::string& frame, std::chrono::milliseconds limit) {
  if (!Write(frame)) return std::nullopt;
  const std::optional<Frame> reply = ReadFrame(limit);
  if (!reply) return std::nullopt;
  HostFrameSlice body;
  body.owner = HostFrameRef(HostFrameBuffer::Create(reply->body.size()));
  body.bytes = body.owner->Bytes();
  body.size = reply->body.size();
  std::memcpy(body.bytes, reply->body.data(), body.size);
  AppleEvent event = {typeNull, nullptr};
  FaultAnswer answer;
  answer.status = HostDecodeEvent(std::move(body), &event);
  answer.number = NumberOf(event);
  answer.data = DataOf(event);
  AEDisposeDesc(&event);
  return answer;
}

bool RawPeer::Reply(uint64_t requestNumber, SInt32 number) {
  return Write(RawFrame(RawReply(requestNumber), kAEAnswer, number));
}

bool RawPeer::WaitHungUp(std::chrono::milliseconds limit) {
  const int64_t end = HostNow() + limit.count() * kHostMillisecond;
  std::vector<char> dropped(1 << 16);
  for (;;) {
    pollfd entry = {fd, POLLIN, 0};
    const int ready = poll(&entry, 1, HostMillisecondsUntil(end, HostNow()));
    if (ready == 0) return false;
    if (ready < 0) continue;
    const ssize_t count = recv(fd, dropped.data(), dropped.size(), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno == ECONNRESET)) return true;
  }
}

bool RawPeer::HasHungUp() const {
  pollfd entry = {fd, static_cast<short>(HasLane() ? POLLRDHUP : 0), 0};
  return poll(&entry, 1, 0) == 1;
}

std::string RawHeader(uint32_t bodySize) {
  HostFrameHeader header = RawRequest(1);
  header.sender = 99;
  uint8_t bytes[kHostFrameHeaderSize];
  HostEncodeFrameHeader(header, bytes);
  HostStoreBig32(bytes + 8, bodySize);
  return std::string(reinterpret_cast<const char*>(bytes), sizeof bytes);
}

std::string RawFrame(HostFrameHeader header, AEEventID eventID, SInt32 number,
                     const std::string& data) {
  AppleEvent event = {typeNull, nullptr};
  EXPECT_EQ(0, MakeFaultEvent(nullptr, eventID, number, data, &event));
  HostGather gather;
  EXPECT_EQ(0, HostFlattenEvent(&event, gather));
  HostFillFrameHeader(header, &gather);
  std::string bytes;
  for (const iovec& piece : gather.Pieces()) {
    bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
  }
  AEDisposeDesc(&event);
  return bytes;
}

HostFrameHeader RawRequest(uint64_t requestNumber) {
  HostFrameHeader header;
  header.flags = kHostFrameReplyWanted;
  header.requestNumber = requestNumber;
  return header;
}

HostFrameHeader RawReply(uint64_t requestNumber) {
  HostFrameHeader header;
  header.kind = HostFrameKind::kReply;
  header.requestNumber = requestNumber;
  return header;
}

RawPort::RawPort(int backlog, const std::string& itsName) : name(itsName) {
  static uint64_t sLast = static_cast<uint64_t>(getpid()) << 20;
  portID = ++sLast;  // the host layer's port ids are random
  sockaddr_un address = {};
  socklen_t size = 0;
  listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  EXPECT_TRUE(HostPortAddress(portID, &address, &size));
  EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), size));
  EXPECT_EQ(0, listen(listener, backlog));
  EXPECT_EQ(0, HostClaimName(name.c_str(), portID, &claim));
}

bool RawPort::HasCaller() const {
  pollfd entry = {listener, POLLIN, 0};
  return IsListening() && poll(&entry, 1, 0) == 1;
}

RawPeer RawPort::Accept() {
  pollfd entry = {listener, POLLIN, 0};
  EXPECT_EQ(1, poll(&entry, 1, 20000)) << "nobody connected";
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  // As much as the machine allows, so that a reader never catches up with a flood.
  const int buffer = 8 << 20;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer) != 0) {
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  }
  return RawPeer(fd);
}

void RawPort::StopListening() {
  if (listener < 0) return;
  char file[17];
  HostPortFileName(portID, file);
  unlinkat(HostGetSessionDirectory()->ports, file, 0);
  close(std::exchange(listener, -1));
}

void RawPort::Die() {
  StopListening();
  if (claim >= 0) HostReleaseName(name.c_str(), std::exchange(claim, -1));
}
