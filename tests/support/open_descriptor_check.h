#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>

// Declared first in a test, it fails the test if at its end more file descriptors are open, or more
// children left, than at its beginning. It first makes what a process keeps (the session directory,
// the thread's run loop). A connection belongs to the thread that sent, so send from RunOnThread.
class OpenDescriptorCheck {
 public:
  OpenDescriptorCheck();
  ~OpenDescriptorCheck();
  OpenDescriptorCheck(const OpenDescriptorCheck&) = delete;
  OpenDescriptorCheck& operator=(const OpenDescriptorCheck&) = delete;

 private:
  std::map<int, std::string> before;  // file descriptor -> its target
  bool hadChildren;
};

// Runs `body` on a thread of its own, to its end.
inline void RunOnThread(const std::function<void()>& body) { std::thread(body).join(); }

// Returns the file descriptors of this process and their targets.
std::map<int, std::string> OpenDescriptors();
