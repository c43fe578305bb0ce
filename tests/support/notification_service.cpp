#include "tests/support/notification_service.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <future>
#include <mutex>
#include <thread>

#include "tests/support/test_process.h"

namespace {

constexpr char kBusVariable[] = "DBUS_SESSION_BUS_ADDRESS";
constexpr char kName[] = "org.freedesktop.Notifications";
constexpr char kPath[] = "/org/freedesktop/Notifications";
constexpr uint32_t kDismissed = 2;

constexpr char kConfiguration[] =
    "<busconfig><type>session</type><auth>EXTERNAL</auth>"
    "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
    "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy>";

}  // namespace

PrivateBus::PrivateBus()
    : address("unix:path=" + folder.Path("bus")), variable(kBusVariable, address.c_str()) {
  const std::string configuration = folder.File(
      "bus.conf", kConfiguration + std::string("<listen>") + address + "</listen></busconfig>");
  ChildOptions options;
  options.arguments = {"/usr/bin/dbus-daemon", "--nofork", "--print-address=1",
                       "--config-file=" + configuration};
  options.capture = true;
  EXPECT_TRUE(daemon.Start(options));
  EXPECT_TRUE(WaitUntil([&] { return daemon.Output().find('\n') != std::string::npos; }, 20s))
      << "dbus-daemon does not start: " << daemon.Errors();
}

void PrivateBus::Stop() { daemon.Signal(SIGSTOP); }
void PrivateBus::Resume() { daemon.Signal(SIGCONT); }
void PrivateBus::Kill() { daemon.KillAndWait(10s); }

struct NotificationService::Worker {
  Options options;
  std::string address;
  int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  std::thread thread;
  std::promise<bool> hasName;

  std::mutex mutex;
  bool isEnding = false;
  std::vector<NotificationCall> calls;
  std::vector<uint32_t> toClose;
  std::vector<std::pair<uint32_t, std::string>> toPress;
  uint32_t lastID = 40;

  ~Worker() { close(wake); }

  void Run();
  bool Connect(sd_bus** bus);
  void SendClosed(sd_bus* bus);
  int Notify(sd_bus_message* call);
  int Serve(sd_bus_message* call);
  void Wake() {
    const uint64_t one = 1;
    (void)!write(wake, &one, sizeof one);
  }
};

bool NotificationService::Worker::Connect(sd_bus** bus) {
  const auto filter = [](sd_bus_message* call, void* worker, sd_bus_error*) {
    return static_cast<Worker*>(worker)->Serve(call);
  };
  return sd_bus_new(bus) >= 0 && sd_bus_set_address(*bus, address.c_str()) >= 0 &&
         sd_bus_set_bus_client(*bus, 1) >= 0 && sd_bus_start(*bus) >= 0 &&
         sd_bus_add_filter(*bus, nullptr, filter, this) >= 0 &&
         sd_bus_request_name(*bus, kName, 0) >= 0;
}

void NotificationService::Worker::Run() {
  sd_bus* bus = nullptr;
  const bool isConnected = Connect(&bus);
  hasName.set_value(isConnected);
  int processed = isConnected ? 0 : -1;
  while (processed >= 0) {
    while ((processed = sd_bus_process(bus, nullptr)) > 0) {
    }
    {
      const std::lock_guard<std::mutex> lock(mutex);
      if (isEnding) break;
    }
    SendClosed(bus);
    pollfd entries[] = {{sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0},
                        {wake, POLLIN, 0}};
    poll(entries, 2, -1);
    uint64_t count;
    if (entries[1].revents != 0) (void)!read(wake, &count, sizeof count);
  }
  sd_bus_close_unref(bus);
}

void NotificationService::Worker::SendClosed(sd_bus* bus) {
  std::vector<uint32_t> closing;
  std::vector<std::pair<uint32_t, std::string>> pressed;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    closing.swap(toClose);
    pressed.swap(toPress);
  }
  for (const auto& [id, button] : pressed) {
    sd_bus_emit_signal(bus, kPath, kName, "ActionInvoked", "us", id, button.c_str());
  }
  for (const uint32_t id : closing) {
    sd_bus_emit_signal(bus, kPath, kName, "NotificationClosed", "uu", id, kDismissed);
  }
}

int NotificationService::Worker::Serve(sd_bus_message* call) {
  if (sd_bus_message_is_method_call(call, kName, nullptr) <= 0) return 0;
  if (options.isSilent) return 1;
  if (sd_bus_message_is_method_call(call, kName, "Notify") > 0) return Notify(call);
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  if (sd_bus_message_is_method_call(call, kName, "GetCapabilities") > 0) {
    sd_bus_message_open_container(reply, 'a', "s");
    for (const std::string& word : options.capabilities) {
      sd_bus_message_append(reply, "s", word.c_str());
    }
    sd_bus_message_close_container(reply);
  } else if (sd_bus_message_is_method_call(call, kName, "CloseNotification") > 0) {
    NotificationCall noted;
    noted.method = "CloseNotification";
    sd_bus_message_read(call, "u", &noted.id);
    const std::lock_guard<std::mutex> lock(mutex);
    calls.push_back(noted);
    toClose.push_back(noted.id);
  }
  sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return 1;
}

int NotificationService::Worker::Notify(sd_bus_message* call) {
  NotificationCall noted;
  noted.method = "Notify";
  const char *appName = "", *icon = "", *title = "", *body = "";
  const int read =
      sd_bus_message_read(call, "susss", &appName, &noted.replaced, &icon, &title, &body);
  EXPECT_GE(read, 0);
  char** buttons = nullptr;
  EXPECT_GE(sd_bus_message_read_strv(call, &buttons), 0);
  for (char** each = buttons; each != nullptr && *each != nullptr; ++each) {
    noted.buttons.push_back(*each);
    free(*each);
  }
  free(buttons);
  EXPECT_GE(sd_bus_message_skip(call, "a{sv}"), 0);
  EXPECT_GE(sd_bus_message_read(call, "i", &noted.expireTimeout), 0);
  noted.appName = appName;
  noted.title = title;
  noted.body = body;
  {
    const std::lock_guard<std::mutex> lock(mutex);
    const bool isNew = noted.replaced == 0 || options.neverReplaces;
    noted.id = isNew ? ++lastID : noted.replaced;
    calls.push_back(noted);
  }
  if (options.refuses) {
    sd_bus_reply_method_errorf(call, "org.example.Refused", "not today");
  } else {
    if (options.closesFirst) {
      sd_bus_emit_signal(sd_bus_message_get_bus(call), kPath, kName, "NotificationClosed", "uu",
                         noted.id, kDismissed);
    }
    sd_bus_reply_method_return(call, "u", options.givesNoID ? 0 : noted.id);
  }
  return 1;
}

NotificationService::NotificationService(const PrivateBus& bus, Options options)
    : worker(std::make_unique<Worker>()) {
  worker->options = std::move(options);
  worker->address = bus.Address();
  worker->thread = std::thread([this] { worker->Run(); });
  std::future<bool> hasName = worker->hasName.get_future();
  EXPECT_EQ(std::future_status::ready, hasName.wait_for(20s));
  EXPECT_TRUE(hasName.get()) << "the notification service has no name on the bus";
}

NotificationService::~NotificationService() {
  {
    const std::lock_guard<std::mutex> lock(worker->mutex);
    worker->isEnding = true;
  }
  worker->Wake();
  worker->thread.join();
}

std::vector<NotificationCall> NotificationService::Calls(size_t count) {
  WaitUntil(
      [&] {
        const std::lock_guard<std::mutex> lock(worker->mutex);
        return worker->calls.size() >= count;
      },
      10s);
  const std::lock_guard<std::mutex> lock(worker->mutex);
  return worker->calls;
}

void NotificationService::Close(uint32_t id) {
  {
    const std::lock_guard<std::mutex> lock(worker->mutex);
    worker->toClose.push_back(id);
  }
  worker->Wake();
}

void NotificationService::Press(uint32_t id, const std::string& button) {
  {
    const std::lock_guard<std::mutex> lock(worker->mutex);
    worker->toPress.emplace_back(id, button);
  }
  worker->Wake();
}
