#include "platform/notify/titled.h"

#include <poll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "platform/notify/bus_names.h"
#include "platform/notify/notice_text.h"
#include "platform/notify/titled_notice.h"

namespace {

constexpr uint64_t kCallLimit = 5'000'000;  // microseconds

// The notice, from the client's message to its end. One thread.
class TitledShow {
 public:
  TitledShow(int theirSocket, std::string name) : socket(theirSocket), appName(std::move(name)) {}
  ~TitledShow() { sd_bus_flush_close_unref(bus); }
  TitledShow(const TitledShow&) = delete;
  TitledShow& operator=(const TitledShow&) = delete;

  bool Receive();
  void Show();
  void WaitForEnd();

 private:
  static int NoticeClosed(sd_bus_message* signal, void* show, sd_bus_error*);
  static int ButtonPressed(sd_bus_message* signal, void* show, sd_bus_error*);
  static int OwnerChanged(sd_bus_message* signal, void* show, sd_bus_error*);

  bool OpenBus();
  bool AskForCapabilities();
  bool AskToShow();
  uint32_t Replaced() const;
  std::string Place() const;
  void Tell(TitledNoticeKind kind, const std::vector<std::string>& texts);
  void End(const std::string& how, const std::string& detail = "");
  void GiveToLog(const std::string& reason);

  const int socket;
  const std::string appName;
  TitledNotice notice;
  sd_bus* bus = nullptr;
  std::string service;  // its unique name on the bus
  bool hasBody = false, hasMarkup = false, hasButtons = false;
  uint32_t serviceID = 0;
  bool hasEnded = false;
};

TitledShow& ShowOf(void* pointer) { return *static_cast<TitledShow*>(pointer); }

// Control characters become spaces; new lines stay in the text.
std::string Printable(std::string text, bool isTitle) {
  for (char& c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if ((byte < 0x20 && (isTitle || c != '\n')) || byte == 0x7F) c = ' ';
  }
  return text;
}

bool TitledShow::Receive() {
  std::vector<char> packet(kTitledNoticeSize);
  ssize_t size = 0;
  do {
    size = recv(socket, packet.data(), packet.size(), MSG_TRUNC);
  } while (size < 0 && errno == EINTR);
  if (size <= 0 || static_cast<size_t>(size) > packet.size()) return false;
  if (!ReadTitledNotice(packet.data(), static_cast<size_t>(size), notice)) return false;
  notice.title = Printable(notice.title, true);
  notice.text = Printable(notice.text, false);
  return true;
}

void TitledShow::Tell(TitledNoticeKind kind, const std::vector<std::string>& texts) {
  const std::string packet = WriteTitledTexts(kind, texts);
  (void)!send(socket, packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void TitledShow::End(const std::string& how, const std::string& detail) {
  if (hasEnded) return;
  hasEnded = true;
  Tell(TitledNoticeKind::kEnd, {how, detail});
}

void TitledShow::GiveToLog(const std::string& reason) {
  if (hasEnded) return;
  syslog(LOG_NOTICE, "%s: %s", notice.title.c_str(), notice.text.c_str());
  End("logged", reason);
}

// The signals are subscribed to before the notice is shown. Those that arrive while a call waits
// for its reply are kept, so they are looked at when the notice's number is known.
bool TitledShow::OpenBus() {
  return sd_bus_open_user(&bus) >= 0 && sd_bus_set_method_call_timeout(bus, kCallLimit) >= 0 &&
         sd_bus_match_signal(bus, nullptr, kService, kPath, kInterface, "NotificationClosed",
                             NoticeClosed, this) >= 0 &&
         sd_bus_match_signal(bus, nullptr, kService, kPath, kInterface, "ActionInvoked",
                             ButtonPressed, this) >= 0 &&
         sd_bus_add_match(bus, nullptr, kOwnerChanges, OwnerChanged, this) >= 0;
}

bool TitledShow::AskForCapabilities() {
  StackMessage reply;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  const int result = sd_bus_call_method(bus, kService, kPath, kInterface, "GetCapabilities", &error,
                                        &reply.message, "");
  // A service that does not know the question may show notices nevertheless.
  const bool isUnknown = sd_bus_error_has_name(&error, SD_BUS_ERROR_UNKNOWN_METHOD) != 0;
  sd_bus_error_free(&error);
  if (result < 0) return isUnknown;
  const char* const sender = sd_bus_message_get_sender(reply.message);
  service = sender != nullptr ? sender : "";
  if (sd_bus_message_enter_container(reply.message, 'a', "s") < 0) return true;
  for (const char* word = ""; sd_bus_message_read(reply.message, "s", &word) > 0;) {
    hasBody = hasBody || std::string_view(word) == "body";
    hasMarkup = hasMarkup || std::string_view(word) == "body-markup";
    hasButtons = hasButtons || std::string_view(word) == "actions";
  }
  return true;
}

// The part of a token before the notice's number.
std::string TitledShow::Place() const {
  sd_id128_t id;
  char text[SD_ID128_STRING_MAX] = "";
  if (service.empty() || sd_bus_get_bus_id(bus, &id) < 0) return "";
  return std::string(sd_id128_to_string(id, text)) + " " + service + " ";
}

// The service's number of the notice to replace, if it is this service's; else 0.
uint32_t TitledShow::Replaced() const {
  const std::string place = Place();
  if (place.empty() || !notice.replaces.starts_with(place)) return 0;
  return static_cast<uint32_t>(std::strtoul(notice.replaces.c_str() + place.size(), nullptr, 10));
}

bool TitledShow::AskToShow() {
  std::vector<char*> buttons;
  for (auto& [key, label] : notice.buttons) {
    if (hasButtons) buttons.insert(buttons.end(), {key.data(), label.data()});
  }
  buttons.push_back(nullptr);
  const std::string body = hasMarkup ? EscapedNoticeText(notice.text) : notice.text;
  const std::string title = hasBody ? notice.title : notice.title + ": " + notice.text;
  StackMessage question, reply;
  return sd_bus_message_new_method_call(bus, &question.message, kService, kPath, kInterface,
                                        "Notify") >= 0 &&
         sd_bus_message_append(question.message, "susss", appName.c_str(), Replaced(), "",
                               title.c_str(), hasBody ? body.c_str() : "") >= 0 &&
         sd_bus_message_append_strv(question.message, buttons.data()) >= 0 &&
         // No hints; stays until it is dismissed.
         sd_bus_message_append(question.message, "a{sv}i", 0, 0) >= 0 &&
         sd_bus_call(bus, question.message, kCallLimit, nullptr, &reply.message) >= 0 &&
         sd_bus_message_read(reply.message, "u", &serviceID) >= 0 && serviceID != 0;
}

void TitledShow::Show() {
  if (!OpenBus()) return GiveToLog("no message bus can be reached");
  if (!AskForCapabilities()) return GiveToLog("no notification service replies");
  if (!AskToShow()) return GiveToLog("the notification service does not show it");
  Tell(TitledNoticeKind::kOnScreen,
       {Place().empty() ? "" : Place() + std::to_string(serviceID), hasButtons ? "buttons" : ""});
}

int TitledShow::NoticeClosed(sd_bus_message* signal, void* pointer, sd_bus_error*) {
  uint32_t id = 0;
  uint32_t reason = 0;
  if (sd_bus_message_read(signal, "uu", &id, &reason) < 0 || id != ShowOf(pointer).serviceID) {
    return 0;
  }
  const char* const how = reason == 1 ? "expired" : reason == 2 ? "dismissed" : "closed";
  ShowOf(pointer).End(how);
  return 0;
}

int TitledShow::ButtonPressed(sd_bus_message* signal, void* pointer, sd_bus_error*) {
  uint32_t id = 0;
  const char* key = "";
  if (sd_bus_message_read(signal, "us", &id, &key) < 0 || id != ShowOf(pointer).serviceID) return 0;
  ShowOf(pointer).End("action", key);
  return 0;
}

int TitledShow::OwnerChanged(sd_bus_message*, void* pointer, sd_bus_error*) {
  // Its first start, by the first call, shows nothing yet.
  if (ShowOf(pointer).serviceID != 0) ShowOf(pointer).GiveToLog("the notification service ended");
  return 0;
}

void TitledShow::WaitForEnd() {
  while (!hasEnded) {
    int processed = 0;
    while (!hasEnded && (processed = sd_bus_process(bus, nullptr)) > 0) {
    }
    if (processed < 0 || sd_bus_is_open(bus) <= 0) GiveToLog("the message bus ended");
    if (hasEnded) return;
    pollfd entries[] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                        {socket, POLLIN, 0}};
    if (poll(entries, 2, -1) > 0 && entries[1].revents != 0) return;  // the client has ended
  }
}

}  // namespace

int ShowTitledNotice(int socket, const char* appName) {
  TitledShow show(socket, NoticeAppName(appName));
  if (!show.Receive()) return 1;
  show.Show();
  show.WaitForEnd();
  return 0;
}
