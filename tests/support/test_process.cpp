#include "tests/support/test_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>
#include <servers/bootstrap.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/test_role.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kRoleOut = 3;  // descriptors of the role's ends
constexpr int kRoleIn = 4;

std::vector<std::string> OtherBuilds() {
  std::vector<std::string> folders;
  std::istringstream text(VLT_PEER_BUILDS);
  for (std::string folder; std::getline(text, folder, ':');) folders.push_back(folder);
  return folders;
}

// Returns the command that starts this test program as `peer`. Only a build that knows builds for
// other architectures registers tests that need them.
std::vector<std::string> PeerCommand(TestPeer peer) {
  const std::string own = std::filesystem::read_symlink("/proc/self/exe");
  if (peer == TestPeer::kSameHost) {
    std::vector<std::string> command = TestLauncher();
    command.push_back(own);
    return command;
  }
  const std::vector<std::string> builds = OtherBuilds();
  const size_t index = static_cast<size_t>(peer) - 1;
  if (index >= builds.size()) {
    ADD_FAILURE() << "this build was configured with " << builds.size() << " VLT_PEER_BUILDS";
    return {};
  }
  const std::string folder = builds[index] + "/tests";
  std::string emulator;
  std::ifstream file(folder + "/emulator.txt");
  EXPECT_TRUE(std::getline(file, emulator)) << folder;
  std::vector<std::string> command = {folder + own.substr(own.rfind('/'))};
  if (!emulator.empty()) command.insert(command.begin(), emulator);
  return command;
}

bool IsPublished(const std::string& name) {
  mach_port_t bootstrap = MACH_PORT_NULL;
  mach_port_t port = MACH_PORT_NULL;
  if (task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap) != 0) return false;
  if (bootstrap_look_up(bootstrap, name.c_str(), &port) != 0) return false;
  mach_port_deallocate(mach_task_self(), port);
  return true;
}

}  // namespace

std::vector<TestPeer> AllHosts() {
  std::vector<TestPeer> hosts = {TestPeer::kSameHost};
  for (size_t i = 1; i <= OtherBuilds().size(); i++) hosts.push_back(static_cast<TestPeer>(i));
  return hosts;
}

std::string UniquePortName() {
  static std::atomic<int> count;
  return "test." + std::to_string(getpid()) + "." + std::to_string(++count);
}

TestProcess::TestProcess(const std::string& role, std::vector<std::string> arguments, TestPeer peer)
    : portName(UniquePortName()) {
  Start(role, arguments, peer);
}

TestProcess::TestProcess(const std::string& role, const char* name,
                         std::vector<std::string> arguments, TestPeer peer)
    : portName(name) {
  Start(role, arguments, peer);
}

TestProcess::~TestProcess() {
  child.KillAndWait(10s);
  for (const int descriptor : {toRole, fromRole}) {
    if (descriptor >= 0) close(descriptor);
  }
}

void TestProcess::Start(const std::string& role, const std::vector<std::string>& arguments,
                        TestPeer peer) {
  int out[2];
  int in[2];
  ASSERT_EQ(0, pipe2(out, O_CLOEXEC));
  ASSERT_EQ(0, pipe2(in, O_CLOEXEC));
  fromRole = out[0];
  toRole = in[1];

  ChildOptions options;
  options.arguments = PeerCommand(peer);
  if (options.arguments.empty()) return;
  options.arguments.push_back("--role=" + role);
  options.arguments.push_back("--port-name=" + portName);
  options.arguments.push_back("--pipes=" + std::to_string(kRoleOut) + "," +
                              std::to_string(kRoleIn));
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.descriptors = {{kRoleOut, out[1]}, {kRoleIn, in[0]}};
  EXPECT_TRUE(child.Start(options)) << options.arguments[0];
  close(out[1]);
  close(in[0]);
}

std::optional<std::string> TestProcess::Hear(std::chrono::milliseconds limit) {
  return ReadLine(fromRole, heard, limit);
}

bool TestProcess::Tell(const std::string& line) { return WriteLine(toRole, line); }

ReadyProcess::ReadyProcess(const std::string& role, std::vector<std::string> arguments)
    : ReadyProcess(role, UniquePortName().c_str(), std::move(arguments)) {}

ReadyProcess::ReadyProcess(const std::string& role, const char* name,
                           std::vector<std::string> arguments)
    : TestProcess(role, name, std::move(arguments)) {
  EXPECT_TRUE(WaitReady(20s)) << role;
}

TestProcesses StartProcesses(int count, const std::string& role, const char* portName,
                             const std::vector<std::string>& arguments) {
  TestProcesses processes;
  for (int i = 0; i < count; i++) {
    processes.push_back(std::make_unique<TestProcess>(role, portName, arguments));
  }
  return processes;
}

void ExpectReady(TestProcesses& processes) {
  for (auto& process : processes) EXPECT_TRUE(process->WaitReady(60s));
}

void ExpectDone(TestProcesses& processes) {
  for (auto& process : processes) EXPECT_EQ(kRoleDone, process->Wait(60s));
}

bool IsDoneWithin(std::chrono::milliseconds limit, const std::function<void()>& work) {
  for (int attempt = 0; attempt < 10; attempt++) {
    const auto start = std::chrono::steady_clock::now();
    work();
    if (std::chrono::steady_clock::now() - start < limit) return true;
  }
  return false;
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    if (Clock::now() >= end) return false;
    poll(nullptr, 0, 2);
  }
  return true;
}

bool WaitForPort(const std::string& name, std::chrono::milliseconds limit) {
  return WaitUntil([&] { return IsPublished(name); }, limit);
}

bool WaitForNoPort(const std::string& name, std::chrono::milliseconds limit) {
  return WaitUntil([&] { return !IsPublished(name); }, limit);
}

bool RunLoopUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  while (!condition()) {
    const double left = std::chrono::duration<double>(end - Clock::now()).count();
    if (left <= 0) return false;
    if (CFRunLoopRunInMode(kCFRunLoopDefaultMode, left, true) == kCFRunLoopRunFinished) {
      return condition();  // nothing is left that could make it hold
    }
  }
  return true;
}
