#pragma once

#include <Carbon/Carbon.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/notification_service.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/session_directory.h"
#include "tests/support/test_process.h"

// A record with a text of its own, and what became of its notice. Removed with the object.
class TestNotice {
 public:
  explicit TestNotice(const std::string& text);
  ~TestNotice() { NMRemove(&record); }
  TestNotice(const TestNotice&) = delete;
  TestNotice& operator=(const TestNotice&) = delete;

  OSErr Install() { return NMInstall(&record); }
  OSErr Remove() { return NMRemove(&record); }

  int Responses();
  bool WaitForResponses(int count, std::chrono::milliseconds limit = 20s);
  std::thread::id LastThread();

 private:
  static void Respond(NMRecPtr record);

  NMRec record = {};
  Str255 text;
  std::mutex mutex;
  std::condition_variable changed;
  int responses = 0;
  std::thread::id thread;
};

// Notices go to the desktop instead of a file while it lives; the log is empty at first.
class NoticeTest : public testing::Test {
 protected:
  NoticeTest() { ClearTestLog(); }

 private:
  const ScopedVariable noSink{"VLTHOST_NOTICES", nullptr};
};

// How many lines of the log have `text`.
int LinesInLog(const std::string& text);

// The notice helpers of this test's session, without ended ones that nobody has reaped.
std::vector<pid_t> NoticeHelpers();

// Declared first in a test, it waits at its end for the last helper and the thread that listened to
// it, and counts descriptors as OpenDescriptorCheck does.
class NoHelpersLeft {
 public:
  NoHelpersLeft();
  ~NoHelpersLeft();

 private:
  const OpenDescriptorCheck noLeaks;
  const size_t threads;
};
