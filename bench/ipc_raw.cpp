#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "bench/ipc_transport.h"

// The bare socket: what the kernel charges for carrying the bytes, and nothing else. No header, no
// time-out, no check of what came; both sides know beforehand what comes next.

namespace {

// A larger payload goes in several messages. This is the largest round size that fits the buffer
// which the kernel gives an unprivileged process (212992 bytes); smaller pieces are slower.
constexpr size_t kLargestMessage = size_t{192} << 10;
constexpr int kSendBuffer = 1 << 20;  // the kernel cuts it to what it allows
constexpr size_t kNumberSize = sizeof(uint64_t);

// Descriptors end with their process.
int OpenSocket(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) return -1;
  memcpy(address->sun_path, path.c_str(), path.size() + 1);
  const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return descriptor;
}

bool SendAll(int descriptor, const uint8_t* bytes, size_t size) {
  while (size > 0) {
    const size_t piece = std::min(size, kLargestMessage);
    if (send(descriptor, bytes, piece, MSG_NOSIGNAL) != static_cast<ssize_t>(piece)) return false;
    bytes += piece;
    size -= piece;
  }
  return true;
}

bool ReceiveAll(int descriptor, uint8_t* bytes, size_t size) {
  while (size > 0) {
    const ssize_t piece = recv(descriptor, bytes, size, 0);
    if (piece <= 0) return false;
    bytes += piece;
    size -= static_cast<size_t>(piece);
  }
  return true;
}

// A lock on a file replaces the name, as the cheapest query that needs no other process.
bool LockName(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_len = 1;
  return descriptor >= 0 && fcntl(descriptor, F_OFD_SETLK, &lock) == 0;
}

class RawServer {
 public:
  explicit RawServer(const IpcWork& theWork)
      : work(theWork), buffer(std::max(work.size, kNumberSize)) {}

  // False when the client has gone.
  bool ServeOne(int client) {
    if (work.kind == IpcKind::kOneWay) return CountOne(client);
    if (!ReceiveAll(client, buffer.data(), work.size)) return false;
    if (work.kind == IpcKind::kEcho) return SendAll(client, buffer.data(), work.size);
    const uint64_t size = work.size;
    return send(client, &size, sizeof size, MSG_NOSIGNAL) == sizeof size;
  }

 private:
  // A message of another size than the payload's asks for the count.
  bool CountOne(int client) {
    const ssize_t size = recv(client, buffer.data(), buffer.size(), 0);
    if (size <= 0) return false;
    if (static_cast<size_t>(size) != kNumberSize) {
      ++count;
      return true;
    }
    return send(client, &count, sizeof count, MSG_NOSIGNAL) == sizeof count;
  }

  const IpcWork work;
  std::vector<uint8_t> buffer;
  uint64_t count = 0;
};

class RawClient : public IpcClient {
 public:
  RawClient(const IpcWork& theWork, std::string thePath)
      : work(theWork), path(std::move(thePath)) {}
  ~RawClient() override {
    if (descriptor >= 0) close(descriptor);
  }

  bool Connect() override {
    sockaddr_un address;
    descriptor = OpenSocket(path, &address);
    return connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }

  bool Request(const Bytes& payload, Bytes* answer) override {
    if (!SendAll(descriptor, payload.data(), payload.size())) return false;
    if (work.kind == IpcKind::kEcho) return ReceiveAll(descriptor, answer->data(), answer->size());
    uint64_t size = 0;
    return recv(descriptor, &size, sizeof size, 0) == sizeof size && size == payload.size();
  }

  bool Post(const Bytes& payload) override {
    return send(descriptor, payload.data(), payload.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(payload.size());
  }

  bool Counted(uint64_t* count) override {
    return send(descriptor, count, sizeof *count, MSG_NOSIGNAL) == sizeof *count &&
           recv(descriptor, count, sizeof *count, 0) == sizeof *count;
  }

  bool LookUp() override {
    const int file = open((path + ".name").c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0) return false;
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const bool asked = fcntl(file, F_OFD_GETLK, &lock) == 0;
    close(file);
    return asked && lock.l_type == F_WRLCK;
  }

 private:
  const IpcWork work;
  const std::string path;
  int descriptor = -1;
};

class RawTransport : public IpcTransport {
 public:
  explicit RawTransport(const std::string& theFolder) : folder(theFolder) {}
  const char* Name() const override { return "raw"; }

  bool Serve(const IpcWork& work, const std::string& place,
             const std::function<void()>& ready) override {
    const std::string path = Path(place);
    sockaddr_un address;
    const int listener = OpenSocket(path, &address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return false;
    if (listen(listener, work.clients) != 0) return false;
    if (work.kind == IpcKind::kLookUp && !LockName(path + ".name")) return false;
    ready();
    RawServer server(work);
    const bool served = work.clients == 1 ? ServeAlone(listener, server)
                                          : ServeMany(listener, work.clients, server);
    unlink(path.c_str());
    unlink((path + ".name").c_str());
    return served;
  }

  std::unique_ptr<IpcClient> NewClient(const IpcWork& work, const std::string& place) override {
    return std::make_unique<RawClient>(work, Path(place));
  }

 private:
  std::string Path(const std::string& place) const { return folder + "/" + place; }

  // One client is read without asking which.
  static bool ServeAlone(int listener, RawServer& server) {
    const int client = Accept(listener);
    if (client < 0) return false;
    while (server.ServeOne(client)) {
    }
    return true;
  }

  static bool ServeMany(int listener, int clients, RawServer& server) {
    const int set = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < clients; ++i) {
      epoll_event event = {};
      event.events = EPOLLIN;
      event.data.fd = Accept(listener);
      if (epoll_ctl(set, EPOLL_CTL_ADD, event.data.fd, &event) != 0) return false;
    }
    while (clients > 0) {
      epoll_event events[16];
      const int count = epoll_wait(set, events, 16, -1);
      if (count < 0) return false;
      for (int i = 0; i < count; ++i) {
        if (server.ServeOne(events[i].data.fd)) continue;
        close(events[i].data.fd);
        --clients;
      }
    }
    return true;
  }

  static int Accept(int listener) {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    setsockopt(client, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    return client;
  }

  const std::string folder;
};

}  // namespace

std::unique_ptr<IpcTransport> NewRawTransport(const std::string& folder) {
  return std::make_unique<RawTransport>(folder);
}
