#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/notify/notice_protocol.h"

// HostNoticeHelper is a process that shows notices on the desktop, and this process's connection to
// it. It exists while notices are under way or on screen: with the last one the process is let go
// and the thread that listens to it ends. Any thread; a forked child has none of it.
class HostNoticeHelper {
 public:
  // What its owner is told, on the thread that listens, with no lock held.
  struct Events {
    // These notices are over; they have been seen, or the helper put them into the log.
    void (*gone)(const std::vector<uint32_t>& notices);
    // The helper has ended or hangs, and these notices with it.
    void (*lost)(const std::vector<uint32_t>& notices);
    // Called after the others, and again every 50 ms until it returns true.
    bool (*settle)();
  };

  // Null when there is no helper program, no desktop that it could show anything on, or no thread
  // or process to be had.
  static std::shared_ptr<HostNoticeHelper> Start(const Events& events);

  HostNoticeHelper(const HostNoticeHelper&) = delete;
  HostNoticeHelper& operator=(const HostNoticeHelper&) = delete;
  ~HostNoticeHelper();

  // Never waits. False when this helper takes no more notices: start another one.
  bool Show(const NoticeMessage& message);
  void Remove(uint32_t notice);  // nothing is told of it any more

 private:
  // Takes the descriptors over.
  HostNoticeHelper(int socket, int program, int wake, const Events& events);

  void Listen();
  bool ListenOnce(bool isSettled);
  bool TakeMessage();
  bool IsLate();
  bool CloseWhenIdle();
  void GiveUp();

  bool Send(const NoticeMessage& message);
  void Wake();
  void CloseLocked();

  const int socket;
  const int program;  // a descriptor that stands for the process; -1 without
  const int wake;     // makes the listening thread look again
  const Events events;

  std::mutex mutex;
  bool isClosed = false;
  // Notice -> when it must be on screen at the latest; kHostNever once it is.
  std::map<uint32_t, int64_t> notices;
};
