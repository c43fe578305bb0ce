#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

// The program of a role: this program, or the same program from one of the builds for other CPU
// architectures (VLT_PEER_BUILDS), started through its emulator. Numbers from kOtherHost on are
// those builds, in their order.
enum class TestPeer { kSameHost = 0, kOtherHost = 1 };

std::vector<TestPeer> AllHosts();  // kSameHost first

// A process of this test that plays a role (see test_role.h). The destructor ends it. Not
// thread-safe.

class TestProcess {
 public:
  explicit TestProcess(const std::string& role, std::vector<std::string> arguments = {},
                       TestPeer peer = TestPeer::kSameHost);
  // A role with a port name that the test chooses, for instance another process's.
  TestProcess(const std::string& role, const char* portName, std::vector<std::string> arguments,
              TestPeer peer = TestPeer::kSameHost);
  ~TestProcess();
  TestProcess(const TestProcess&) = delete;
  TestProcess& operator=(const TestProcess&) = delete;

  const char* PortName() const { return portName.c_str(); }
  pid_t Pid() const { return child.Pid(); }
  void Signal(int number) { child.Signal(number); }

  bool WaitReady(std::chrono::milliseconds limit) { return Hear(limit) == "ready"; }
  // Returns the role's next line; empty if it has ended or `limit` has passed.
  std::optional<std::string> Hear(std::chrono::milliseconds limit);
  bool Tell(const std::string& line);

  // As ChildProcess: the exit status, or the negated signal.
  std::optional<int> Wait(std::chrono::milliseconds limit) { return child.Wait(limit); }
  bool KillAndWait(std::chrono::milliseconds limit) { return child.KillAndWait(limit); }

 private:
  void Start(const std::string& role, const std::vector<std::string>& arguments, TestPeer peer);

  std::string portName;
  ChildProcess child;
  int toRole = -1;
  int fromRole = -1;
  std::string heard;
};

// A role whose constructor waits until it is ready, or fails the test.
class ReadyProcess : public TestProcess {
 public:
  explicit ReadyProcess(const std::string& role, std::vector<std::string> arguments = {});
  ReadyProcess(const std::string& role, const char* portName, std::vector<std::string> arguments);
};

// Starts `count` processes of one role with the same port name and arguments.
using TestProcesses = std::vector<std::unique_ptr<TestProcess>>;
TestProcesses StartProcesses(int count, const std::string& role, const char* portName,
                             const std::vector<std::string>& arguments = {});
void ExpectReady(TestProcesses& processes);
// Waits until all have ended by themselves, with kRoleDone.
void ExpectDone(TestProcesses& processes);

// A port name that no other test uses.
std::string UniquePortName();

// Polls `condition` every 2 ms until it holds, at most for `limit`. Returns whether it holds.
bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

// Returns whether `work` takes less than `limit` at least once in ten attempts. For work that waits
// longer than that if the code is wrong: a busy machine delays single attempts, a fault all.
bool IsDoneWithin(std::chrono::milliseconds limit, const std::function<void()>& work);
bool WaitForPort(const std::string& name, std::chrono::milliseconds limit);    // published
bool WaitForNoPort(const std::string& name, std::chrono::milliseconds limit);  // owned by nobody

// Runs the calling thread's run loop until `condition` holds after a callout, at most for `limit`.
bool RunLoopUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);
