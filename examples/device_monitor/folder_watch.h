#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>

// FolderWatch calls a function on a run loop after entries of folders have appeared or gone, or a
// file has been written. It reports that something has happened, not what: the function looks
// for itself, so nothing is lost when the kernel's queue overflows or several changes come at once.
//
// A thread of its own reads the kernel's events and signals a run-loop source. All functions are
// called on the run loop's thread.
class FolderWatch {
 public:
  // `changed` is called on `loop`, in its default mode.
  FolderWatch(CFRunLoopRef loop, std::function<void()> changed);
  ~FolderWatch();  // ends the thread; `changed` is not called afterwards
  FolderWatch(const FolderWatch&) = delete;
  FolderWatch& operator=(const FolderWatch&) = delete;

  // Returns false if the kernel has no room for another watch or no thread can be made.
  bool Start();

  // Watches a folder, for the file `name` or, if that is "", for all. May be repeated: a folder
  // that was removed and made again is another one. Returns false if there is no such folder.
  bool Add(const std::string& folder, const std::string& name = "");

 private:
  void Read();
  bool Concerns(int watch, const std::string& name);

  CFRunLoopRef loop;
  std::function<void()> changed;
  CFRunLoopSourceRef source = nullptr;
  int queue = -1;
  int wake = -1;  // the watch whose removal ends the thread's read
  std::atomic<bool> isEnding = false;
  std::mutex mutex;
  std::map<int, std::string> names;  // watch -> the file's name, or ""
  std::thread reader;
};
