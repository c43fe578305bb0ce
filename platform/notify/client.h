#pragma once

#include <cstdint>

#include "platform/notify/notice_protocol.h"

struct sd_event;
struct sd_event_source;
class Desktop;

// Client is the process whose notices this helper shows, at the other end of a socket pair. It
// passes the client's requests to the desktop. One thread.
class Client {
 public:
  // `socket` is borrowed.
  explicit Client(int socket);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Returns false if the socket is not a sequenced-packet socket.
  bool Serve(sd_event* loop, Desktop* desktop);

  bool HasEnded() const { return hasEnded; }
  void Tell(NoticeMessageKind kind, uint32_t notice);

 private:
  static int SocketIsReady(sd_event_source* source, int socket, uint32_t events, void* client);
  void TakeMessage();

  const int socket;
  bool hasEnded = false;
  Desktop* desktop = nullptr;
  sd_event_source* source = nullptr;
};
