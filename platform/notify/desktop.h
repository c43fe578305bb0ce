#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "platform/notify/notice_protocol.h"

class Client;

// Desktop is the notification service on the session's message bus. It is sent one notice at a
// time; each must be on screen within 5 seconds of its arrival here. A notice that fails to, or
// whose service ends before the user has dismissed it, is logged once.
//
// waiting --(its turn)--> asked for capabilities --> asked to show --> on screen --> gone
//    |                            |                       |               |
//    +--------- removed, out of time, refused, bus or service gone -------+--> gone
//
// One thread; nothing here waits.
class Desktop {
 public:
  // `appName`, in UTF-8, is the sender that the service shows to the user.
  Desktop(sd_event* loop, Client* client, std::string appName);
  ~Desktop();
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;

  void Show(const NoticeMessage& message);
  void Remove(uint32_t notice);

  bool IsBusy() const { return !waiting.empty(); }

 private:
  struct Request {
    uint32_t notice;
    uint32_t place;
    std::string text;   // UTF-8
    uint64_t deadline;  // microseconds of the monotonic clock
    bool isRemoved;     // while a request to the service was under way
  };
  struct Shown {
    uint32_t notice;
    uint32_t serviceID;
    std::string text;
  };

  static int CapabilitiesCame(sd_bus_message* reply, void* desktop, sd_bus_error* error);
  static int ShowReplied(sd_bus_message* reply, void* desktop, sd_bus_error* error);
  static int NoticeClosed(sd_bus_message* signal, void* desktop, sd_bus_error* error);
  static int OwnerChanged(sd_bus_message* signal, void* desktop, sd_bus_error* error);
  static int BusEnded(sd_bus_message* signal, void* desktop, sd_bus_error* error);
  static int TimeIsUp(sd_event_source* source, uint64_t now, void* desktop);

  bool OpenBus();
  void CloseBus();
  void Next();
  bool AskForCapabilities();
  bool AskToShow(bool hasBody, bool hasMarkup);
  void IsOnScreen(uint32_t serviceID);
  void FailFirst();
  void LoseAll();
  void CloseNotice(uint32_t serviceID);
  void GiveToLog(uint32_t notice, const std::string& text);

  sd_event* const loop;
  Client* const client;
  const std::string appName;
  sd_bus* bus = nullptr;
  sd_bus_slot* call = nullptr;  // the request under way, for the first of `waiting`
  sd_event_source* timer = nullptr;
  std::deque<Request> waiting;
  std::map<uint32_t, Shown> onScreen;  // by slot on the desktop
  // Ids that the service closed while a request was under way: it may close a notice before it
  // replies with the notice's id.
  std::vector<uint32_t> closedEarly;
};
