#pragma once

#include <cstdint>
#include <string>

#include "platform/notify/titled_notice.h"

// Reports where a notice would go now, and shows notices with more than NMInstall has: a title,
// text in UTF-8, buttons, and a result. For tools, benchmarks and tests only. Any thread.

struct HostNoticeWay {
  std::string sink;         // the file that takes notices instead of the desktop, or ""
  std::string helper;       // path of the notice helper, or "" if there is none
  bool hasDesktop = false;  // a desktop's message bus is named
};
HostNoticeWay HostDescribeNotices();

enum class HostNoticeState {
  kOnScreen,
  kInSink,     // `detail` is the file
  kInLog,      // nobody may have read it; `detail` is the reason
  kDismissed,  // by the user
  kExpired,    // the desktop removed it
  kClosed,     // a program removed it
  kButton,     // the user pressed a button; `detail` is its key
};

struct HostNoticeResult {
  HostNoticeState state = HostNoticeState::kInLog;
  std::string detail = {};
  std::string token = {};   // of a notice on screen; "" if it cannot be replaced
  bool hasButtons = false;  // the desktop shows buttons
};

// HostTitledNotice is one notice and the helper process that shows it. When the object ends, a
// notice on screen stays there, and nobody learns what becomes of it. One thread.
class HostTitledNotice {
 public:
  HostTitledNotice() = default;
  HostTitledNotice(const HostTitledNotice&) = delete;
  HostTitledNotice& operator=(const HostTitledNotice&) = delete;
  ~HostTitledNotice();

  // Call it once. Returns when the notice is on screen, or at once if it goes elsewhere; after 10
  // seconds without either, it goes to the log. Throws std::bad_alloc.
  HostNoticeResult Show(const TitledNotice& notice);

  // Waits until a notice on screen has ended. Returns kOnScreen if that takes longer. Negative: no
  // limit.
  HostNoticeResult Wait(int64_t nanoseconds);

 private:
  bool Start(const std::string& helper);
  HostNoticeResult Receive(int64_t deadline);
  HostNoticeResult Fail(const std::string& reason);
  void Close();

  std::string logged;  // the notice as a line of the log
  int socket = -1;
  int program = -1;  // the helper's pidfd
};
