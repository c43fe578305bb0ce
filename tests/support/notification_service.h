#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.h"
#include "tests/support/scratch_folder.h"

// A message bus of a test's own, and a desktop's notification service on it. Programs that the test
// starts while the bus lives find it as their session's. Not thread-safe.
class PrivateBus {
 public:
  PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& Address() const { return address; }
  void Stop();  // SIGSTOP: it accepts connections but does not reply
  void Resume();
  void Kill();

 private:
  const ScratchFolder folder;
  const std::string address;
  const ScopedVariable variable;
  ChildProcess daemon;
};

// A call to a notification service.
struct NotificationCall {
  std::string method;  // "Notify" or "CloseNotification"
  uint32_t id = 0;     // Notify: the id in the reply
  uint32_t replaced = 0;
  std::string appName;
  std::string title;
  std::string body;
  int32_t expireTimeout = 0;
  std::vector<std::string> buttons = {};  // key, label, key, label ...
};

// NotificationService runs on a thread of its own until it is destroyed.
class NotificationService {
 public:
  struct Options {
    std::vector<std::string> capabilities = {"body", "body-markup"};
    bool refuses = false;   // replies to Notify with an error
    bool isSilent = false;  // never replies
    bool neverReplaces = false;
    bool closesFirst = false;  // dismisses a notice before the reply to Notify
    bool givesNoID = false;    // replies to Notify with the id 0
  };

  // Returns once it has its name on the bus.
  NotificationService(const PrivateBus& bus, Options options);
  explicit NotificationService(const PrivateBus& bus) : NotificationService(bus, Options()) {}
  ~NotificationService();  // leaves the bus: the service is gone
  NotificationService(const NotificationService&) = delete;
  NotificationService& operator=(const NotificationService&) = delete;

  // Returns all calls until now, once there are `count`; fewer after 10 seconds.
  std::vector<NotificationCall> Calls(size_t count);
  void Close(uint32_t id);                             // the user has dismissed it
  void Press(uint32_t id, const std::string& button);  // the user has pressed a button of it

 private:
  struct Worker;
  std::unique_ptr<Worker> worker;
};
