#pragma once

#include <Carbon/Notification.h>
#include <CoreFoundation/CFRunLoop.h>
#include <pthread.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/host/notices/helper.h"

// The room of notices: the Notification Manager's calls (calls.cpp), the board, and the connection
// to the notice helper.
//
// HostNoticeBoard stores which notice records are installed, whose notices are on screen, and which
// response routines are due. Each notice ends once: dismissed, replaced, logged, or withdrawn with
// its record; its response routine runs then, except for a withdrawn one. Any thread. No lock is
// held while a response routine runs.
class HostNoticeBoard {
 public:
  // Returns this process's board, which is never destroyed. A forked child begins with an empty
  // one.
  static HostNoticeBoard& Get();

  void Install(NMRecPtr record);
  // Removes the record and withdraws its notices. Returns false if it was not installed. Afterwards
  // no response routine of the record starts, and one that was running on another thread has
  // returned.
  bool Remove(NMRecPtr record);

  // Sends the text to the notice helper; the response routine runs later. Returns false if there is
  // no helper or desktop, or too many notices are on screen.
  bool Show(NMRecPtr record, NMUPP response, ConstStr255Param text);

  // Ends a notice: runs the response routine unless the record has been removed.
  void Respond(NMRecPtr record, NMUPP response);

  static std::string TextOf(ConstStr255Param text);  // in UTF-8
  static void Log(const std::string& text);

 private:
  struct Notice {
    NMRecPtr record;
    NMUPP response;
    std::string text;
  };
  struct Calling {
    NMRecPtr record;
    pthread_t thread;
  };

  HostNoticeBoard() = default;

  static void NoticesGone(const std::vector<uint32_t>& numbers);
  static void NoticesLost(const std::vector<uint32_t>& numbers);
  static bool Settle();
  void MakeDue(const std::vector<uint32_t>& numbers, bool toLog);
  void RunDue();
  void ForgetTimerLocked();

  std::mutex mutex;
  std::condition_variable changed;       // a response routine has returned
  std::map<NMRecPtr, uint32_t> records;  // record -> its slot on the desktop
  std::map<uint32_t, Notice> onScreen;
  std::vector<Notice> due;
  std::vector<Calling> calling;
  std::shared_ptr<HostNoticeHelper> helper;
  CFRunLoopTimerRef timer = nullptr;  // makes the main run loop run the due response routines
  uint32_t lastNumber = 0;
  HostNoticeBoard* inherited = nullptr;  // the parent's board, in a forked child
};
