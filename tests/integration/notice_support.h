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

// A notice record with a text of its own that counts its responses. The destructor removes it.
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

// While it lives, notices go to the desktop instead of a file. The log is empty at first.
class NoticeTest : public testing::Test {
 protected:
  NoticeTest() { ClearTestLog(); }

 private:
  const ScopedVariable noSink{"VLTHOST_NOTICES", nullptr};
};

// Returns how many lines of the log contain `text`.
int LinesInLog(const std::string& text);

// Returns the notice helpers of this test's session, without zombies.
std::vector<pid_t> NoticeHelpers();

// Declared first in a test, it waits at the end for the last helper and the thread that listens to
// it, and counts file descriptors like OpenDescriptorCheck.
class NoHelpersLeft {
 public:
  NoHelpersLeft();
  ~NoHelpersLeft();

 private:
  const OpenDescriptorCheck noLeaks;
  const size_t threads;
};
