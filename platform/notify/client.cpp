#include "platform/notify/client.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-event.h>

#include <cerrno>
#include <string>

#include "platform/notify/desktop.h"

Client::Client(int theirSocket) : socket(theirSocket) {}

Client::~Client() { sd_event_source_unref(source); }

bool Client::Serve(sd_event* loop, Desktop* toShowOn) {
  int type = 0;
  socklen_t size = sizeof type;
  if (getsockopt(socket, SOL_SOCKET, SO_TYPE, &type, &size) != 0 || type != SOCK_SEQPACKET) {
    return false;
  }
  desktop = toShowOn;
  return sd_event_add_io(loop, &source, socket, EPOLLIN, SocketIsReady, this) >= 0;
}

int Client::SocketIsReady(sd_event_source*, int, uint32_t, void* client) {
  static_cast<Client*>(client)->TakeMessage();
  return 0;
}

void Client::TakeMessage() {
  unsigned char packet[kNoticePacketSize];
  const ssize_t size = recv(socket, packet, sizeof packet, MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  NoticeMessage message;
  const bool isMessage = size > 0 && ReadNoticeMessage(packet, static_cast<size_t>(size), &message);
  if (isMessage && message.kind == NoticeMessageKind::kShow) {
    desktop->Show(message);
  } else if (isMessage && message.kind == NoticeMessageKind::kRemove) {
    desktop->Remove(message.notice);
  } else {
    // The client has closed the connection, or sends something else.
    hasEnded = true;
    source = sd_event_source_disable_unref(source);
  }
}

void Client::Tell(NoticeMessageKind kind, uint32_t notice) {
  if (hasEnded) return;
  NoticeMessage message;
  message.kind = kind;
  message.notice = notice;
  unsigned char packet[kNoticePacketSize];
  const size_t size = WriteNoticeMessage(message, packet);
  // Never waits: the socket holds more messages than there can be notices.
  (void)!send(socket, packet, size, MSG_DONTWAIT | MSG_NOSIGNAL);
}
