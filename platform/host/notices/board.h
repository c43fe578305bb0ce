#pragma once

#include <Carbon/Notification.h>
#include <CoreFoundation/CFRunLoop.h>
#include <pthread.h>

#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>

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

  // The functions that add something throw std::bad_alloc and change nothing then.
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
    uint32_t number;
    NMRecPtr record;
    NMUPP response;
    std::string text;
  };
  // A response routine that is running. On the stack of the thread that runs it, so that running
  // one needs no memory.
  struct Calling {
    NMRecPtr record;
    pthread_t thread;
    Calling* next;
  };

  HostNoticeBoard() = default;

  static void NoticeGone(uint32_t number);
  static void NoticeLost(uint32_t number);
  static bool Settle();
  void MakeDue(uint32_t number, bool toLog);
  void RunDue();
  void ForgetTimerLocked();

  std::mutex mutex;
  std::condition_variable changed;       // a response routine has returned
  std::map<NMRecPtr, uint32_t> records;  // record -> its slot on the desktop
  std::list<Notice> onScreen;
  std::list<Notice> due;  // taken over from `onScreen`, which needs no memory
  Calling* calling = nullptr;
  std::shared_ptr<HostNoticeHelper> helper;
  CFRunLoopTimerRef timer = nullptr;  // makes the main run loop run the due response routines
  uint32_t lastNumber = 0;
  HostNoticeBoard* inherited = nullptr;  // the parent's board, in a forked child
};
