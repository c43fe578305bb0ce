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

// HostNoticeBoard knows which records are installed, whose notices are on screen, and which
// response routines are due. Any thread. No lock is held while a response routine runs.
class HostNoticeBoard {
 public:
  // This process's, never destroyed; a forked child begins with an empty one.
  static HostNoticeBoard& Get();

  void Install(NMRecPtr record);
  // False when it was not installed. Withdraws its notices. Afterwards no response of the record
  // begins, and one that is running on another thread has returned.
  bool Remove(NMRecPtr record);

  // Gives the text to the desktop; the response comes later. False when there is no desktop.
  bool Show(NMRecPtr record, NMUPP response, ConstStr255Param text);

  // The record's notice is over: runs its response routine, unless it has been removed.
  void Respond(NMRecPtr record, NMUPP response);

  static std::string TextOf(ConstStr255Param text);  // as UTF-8
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
  std::map<NMRecPtr, uint32_t> records;  // record -> its place on the desktop
  std::map<uint32_t, Notice> onScreen;
  std::vector<Notice> due;
  std::vector<Calling> calling;
  std::shared_ptr<HostNoticeHelper> helper;
  CFRunLoopTimerRef timer = nullptr;  // makes the main run loop run what is due
  uint32_t lastNumber = 0;
  HostNoticeBoard* inherited = nullptr;  // of the process that forked us
};
