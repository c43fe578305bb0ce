#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "platform/notify/notice_protocol.h"

// HostNoticeHelper is a notice helper process and this process's connection to it. It exists while
// notices are under way or on screen. After the last one the connection is closed and the thread
// that listens to the helper ends. Any thread. A forked child does not have its parent's helper.
class HostNoticeHelper {
 public:
  // The owner's functions, called on the listening thread with no lock held. They must not throw.
  struct Events {
    // The notice has ended: it was dismissed, or the helper logged it.
    void (*gone)(uint32_t notice);
    // The helper has ended or hangs, so the notice is lost.
    void (*lost)(uint32_t notice);
    // Called after the others, and again every 50 ms until it returns true.
    bool (*settle)();
  };

  // Returns null if there is no helper program or no desktop, or if no thread or process can be
  // created. Throws std::bad_alloc.
  static std::shared_ptr<HostNoticeHelper> Start(const Events& events);

  HostNoticeHelper(const HostNoticeHelper&) = delete;
  HostNoticeHelper& operator=(const HostNoticeHelper&) = delete;
  ~HostNoticeHelper();

  // Never waits. Returns false if this helper accepts no more notices; then start another one.
  // Throws std::bad_alloc before it sends anything.
  bool Show(const NoticeMessage& message);
  void Remove(uint32_t notice);  // no event follows for it

 private:
  // Takes over the file descriptors.
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
  const int program;  // the helper's pidfd, or -1
  const int wake;     // an eventfd that wakes the listening thread
  const Events events;

  std::mutex mutex;
  bool isClosed = false;
  // Notice -> the time by which it must be on screen; kHostNever once it is.
  std::map<uint32_t, int64_t> notices;
};
