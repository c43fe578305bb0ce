#include "platform/notify/desktop.h"

#include <syslog.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "platform/notify/bus_names.h"
#include "platform/notify/client.h"
#include "platform/notify/notice_text.h"

namespace {

constexpr uint64_t kScreenLimit = 5'000'000;  // microseconds
constexpr uint64_t kTimerAccuracy = 10'000;

uint64_t Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1'000'000 + uint64_t(now.tv_nsec) / 1000;
}

Desktop& DesktopOf(void* pointer) { return *static_cast<Desktop*>(pointer); }

}  // namespace

Desktop::Desktop(sd_event* eventLoop, Client* owner, std::string name)
    : loop(eventLoop), client(owner), appName(std::move(name)) {}

Desktop::~Desktop() {
  CloseBus();
  sd_event_source_disable_unref(timer);
}

// The bus.

bool Desktop::OpenBus() {
  if (bus != nullptr && sd_bus_is_open(bus) > 0) return true;
  CloseBus();
  if (sd_bus_open_user(&bus) < 0) return false;
  if (sd_bus_match_signal_async(bus, nullptr, kService, kPath, kInterface, "NotificationClosed",
                                NoticeClosed, nullptr, this) >= 0 &&
      sd_bus_add_match_async(bus, nullptr, kOwnerChanges, OwnerChanged, nullptr, this) >= 0 &&
      sd_bus_match_signal(bus, nullptr, nullptr, "/org/freedesktop/DBus/Local",
                          "org.freedesktop.DBus.Local", "Disconnected", BusEnded, this) >= 0 &&
      sd_bus_attach_event(bus, loop, SD_EVENT_PRIORITY_NORMAL) >= 0) {
    return true;
  }
  CloseBus();
  return false;
}

void Desktop::CloseBus() {
  call = sd_bus_slot_unref(call);
  bus = sd_bus_close_unref(bus);
}

int Desktop::BusEnded(sd_bus_message*, void* desktop, sd_bus_error*) {
  DesktopOf(desktop).LoseAll();
  return 0;
}

// The service has a new owner, and all notices on screen were shown by the one before. (At the
// service's first start there are none.)
int Desktop::OwnerChanged(sd_bus_message*, void* desktop, sd_bus_error*) {
  DesktopOf(desktop).LoseAll();
  return 0;
}

// No signal will arrive any more when these notices are dismissed, so the user may not have seen
// them.
void Desktop::LoseAll() {
  for (const auto& [place, shown] : std::exchange(onScreen, {})) {
    GiveToLog(shown.notice, shown.text);
  }
}

// One notice.

void Desktop::Show(const NoticeMessage& message) {
  std::string text = NoticeText(message.text, message.length);
  if (waiting.size() + onScreen.size() >= kNoticeLimit) {
    GiveToLog(message.notice, text);
    return;
  }
  waiting.push_back({message.notice, message.place, std::move(text), Now() + kScreenLimit, false});
  Next();
}

void Desktop::Remove(uint32_t notice) {
  for (auto request = waiting.begin(); request != waiting.end(); ++request) {
    if (request->notice != notice) continue;
    if (request == waiting.begin()) {
      request->isRemoved = true;
    } else {
      waiting.erase(request);
    }
    return;
  }
  const auto shown = std::find_if(onScreen.begin(), onScreen.end(), [notice](const auto& entry) {
    return entry.second.notice == notice;
  });
  if (shown == onScreen.end()) return;
  CloseNotice(shown->second.serviceID);
  onScreen.erase(shown);
}

void Desktop::Next() {
  while (!waiting.empty() && call == nullptr) {
    if (AskForCapabilities()) {
      timer = sd_event_source_disable_unref(timer);
      (void)sd_event_add_time(loop, &timer, CLOCK_MONOTONIC, waiting.front().deadline,
                              kTimerAccuracy, TimeIsUp, this);
      return;
    }
    FailFirst();
  }
}

bool Desktop::AskForCapabilities() {
  StackMessage question;
  return OpenBus() &&
         sd_bus_message_new_method_call(bus, &question.message, kService, kPath, kInterface,
                                        "GetCapabilities") >= 0 &&
         sd_bus_call_async(bus, &call, question.message, CapabilitiesCame, this, UINT64_MAX) >= 0;
}

int Desktop::CapabilitiesCame(sd_bus_message* reply, void* pointer, sd_bus_error*) {
  Desktop& desktop = DesktopOf(pointer);
  desktop.call = sd_bus_slot_unref(desktop.call);
  bool hasBody = false;
  bool hasMarkup = false;
  bool isShowing = !desktop.waiting.front().isRemoved;
  if (sd_bus_message_is_method_error(reply, nullptr) != 0) {
    // A service without this query may show notices nevertheless.
    isShowing &= sd_bus_message_is_method_error(reply, SD_BUS_ERROR_UNKNOWN_METHOD) != 0;
  } else if (sd_bus_message_enter_container(reply, 'a', "s") >= 0) {
    for (const char* word = ""; sd_bus_message_read(reply, "s", &word) > 0;) {
      hasBody |= std::string_view(word) == "body";
      hasMarkup |= std::string_view(word) == "body-markup";
    }
  }
  if (!isShowing || !desktop.AskToShow(hasBody, hasMarkup)) {
    desktop.FailFirst();
    desktop.Next();
  }
  return 0;
}

bool Desktop::AskToShow(bool hasBody, bool hasMarkup) {
  const Request& request = waiting.front();
  closedEarly.clear();
  const auto earlier = onScreen.find(request.place);
  const uint32_t replaced = earlier != onScreen.end() ? earlier->second.serviceID : 0;
  const std::string body = hasMarkup ? EscapedNoticeText(request.text) : request.text;
  const char* title = hasBody ? appName.c_str() : request.text.c_str();
  StackMessage question;
  return sd_bus_message_new_method_call(bus, &question.message, kService, kPath, kInterface,
                                        "Notify") >= 0 &&
         // No icon, no actions, no hints; stays until it is dismissed.
         sd_bus_message_append(question.message, "susssasa{sv}i", appName.c_str(), replaced, "",
                               title, hasBody ? body.c_str() : "", 0, 0, 0) >= 0 &&
         sd_bus_call_async(bus, &call, question.message, ShowReplied, this, UINT64_MAX) >= 0;
}

int Desktop::ShowReplied(sd_bus_message* reply, void* pointer, sd_bus_error*) {
  Desktop& desktop = DesktopOf(pointer);
  desktop.call = sd_bus_slot_unref(desktop.call);
  uint32_t serviceID = 0;
  // 0 is not an id: the service could not report that this notice was dismissed.
  if (sd_bus_message_is_method_error(reply, nullptr) != 0 ||
      sd_bus_message_read(reply, "u", &serviceID) < 0 || serviceID == 0) {
    desktop.FailFirst();
  } else {
    desktop.IsOnScreen(serviceID);
  }
  desktop.Next();
  return 0;
}

void Desktop::IsOnScreen(uint32_t serviceID) {
  Request request = std::move(waiting.front());
  waiting.pop_front();
  if (const auto earlier = onScreen.extract(request.place)) {
    // A service that cannot replace has shown a second one.
    if (earlier.mapped().serviceID != serviceID) CloseNotice(earlier.mapped().serviceID);
    client->Tell(NoticeMessageKind::kGone, earlier.mapped().notice);
  }
  if (request.isRemoved) {
    CloseNotice(serviceID);
    return;
  }
  if (std::find(closedEarly.begin(), closedEarly.end(), serviceID) != closedEarly.end()) {
    client->Tell(NoticeMessageKind::kGone, request.notice);
    return;
  }
  client->Tell(NoticeMessageKind::kOnScreen, request.notice);
  onScreen[request.place] = {request.notice, serviceID, std::move(request.text)};
}

int Desktop::NoticeClosed(sd_bus_message* signal, void* pointer, sd_bus_error*) {
  Desktop& desktop = DesktopOf(pointer);
  uint32_t serviceID = 0;
  uint32_t reason = 0;
  if (sd_bus_message_read(signal, "uu", &serviceID, &reason) < 0) return 0;
  const auto shown =
      std::find_if(desktop.onScreen.begin(), desktop.onScreen.end(),
                   [serviceID](const auto& entry) { return entry.second.serviceID == serviceID; });
  if (shown == desktop.onScreen.end()) {
    // This may be the notice whose id the service is about to return. The limit keeps a service
    // that sends many ids of other programs' notices from filling the memory.
    if (desktop.call != nullptr && desktop.closedEarly.size() < kNoticeLimit) {
      desktop.closedEarly.push_back(serviceID);
    }
    return 0;
  }
  const uint32_t notice = shown->second.notice;
  desktop.onScreen.erase(shown);
  desktop.client->Tell(NoticeMessageKind::kGone, notice);
  return 0;
}

// The reply does not matter.
void Desktop::CloseNotice(uint32_t serviceID) {
  (void)sd_bus_call_method_async(bus, nullptr, kService, kPath, kInterface, "CloseNotification",
                                 nullptr, nullptr, "u", serviceID);
}

// Failures.

int Desktop::TimeIsUp(sd_event_source*, uint64_t, void* pointer) {
  Desktop& desktop = DesktopOf(pointer);
  if (desktop.waiting.empty()) return 0;
  if (Now() < desktop.waiting.front().deadline) return 0;  // the timer was for an earlier one
  // A service that is slow may still close what it shows; a bus that is not even there by now
  // is given up.
  if (sd_bus_is_ready(desktop.bus) <= 0) desktop.CloseBus();
  desktop.FailFirst();
  desktop.Next();
  return 0;
}

void Desktop::FailFirst() {
  call = sd_bus_slot_unref(call);
  const Request request = std::move(waiting.front());
  waiting.pop_front();
  if (!request.isRemoved) GiveToLog(request.notice, request.text);
}

void Desktop::GiveToLog(uint32_t notice, const std::string& text) {
  syslog(LOG_NOTICE, "%s", text.c_str());
  client->Tell(NoticeMessageKind::kGone, notice);
}
