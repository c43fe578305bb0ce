#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>

// Counts what a test must give back: declared first in a test, it fails the test when at its end
// more descriptors are open or children left than at its beginning. What a process makes once and
// keeps (the session directory, the thread's run loop) is made before counting. A connection to
// another process belongs to the thread that sent, until that thread ends: send from RunOnThread.
class OpenDescriptorCheck {
 public:
  OpenDescriptorCheck();
  ~OpenDescriptorCheck();
  OpenDescriptorCheck(const OpenDescriptorCheck&) = delete;
  OpenDescriptorCheck& operator=(const OpenDescriptorCheck&) = delete;

 private:
  std::map<int, std::string> before;  // descriptor -> what it is open on
  bool hadChildren;
};

// Runs `body` on a thread of its own, to its end.
inline void RunOnThread(const std::function<void()>& body) { std::thread(body).join(); }

// Descriptors of this process and what they are open on.
std::map<int, std::string> OpenDescriptors();
