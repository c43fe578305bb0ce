#pragma once

#include <chrono>
#include <optional>
#include <source_location>
#include <string>
#include <vector>

// Roles are the other processes of a test. A test program that is started with a role's name runs
// that role instead of its tests, and exchanges lines with its test over two pipes. The role's body
// is written next to the test that uses it:
//
//   TEST_ROLE(NameHolder) {
//     ...
//     role.SignalReady();
//     CFRunLoopRun();
//     return kRoleDone;
//   }

enum { kRoleDone = 0, kRoleFailed = 99 };

// For a role that cannot go on: prints the position and errno to standard error and returns
// kRoleFailed.
int RoleFailed(std::source_location where = std::source_location::current());

class TestRole {
 public:
  TestRole(std::string port, std::vector<std::string> texts, int out, int in)
      : portName(std::move(port)), arguments(std::move(texts)), toTest(out), fromTest(in) {}

  const char* PortName() const { return portName.c_str(); }  // chosen by the test, unique
  const std::string& Argument(size_t index) const { return arguments.at(index); }
  const std::vector<std::string>& Arguments() const { return arguments; }
  int NumberOfArguments() const { return static_cast<int>(arguments.size()); }
  int NumberArgument(size_t index) const { return std::stoi(arguments.at(index)); }

  void SignalReady() { Tell("ready"); }
  void Tell(const std::string& line);
  int Pipe() const { return toTest; }  // what Tell writes to
  // Returns the test's next line; empty if the test has ended or `limit` has passed.
  std::optional<std::string> Hear(std::chrono::milliseconds limit);

 private:
  std::string portName;
  std::vector<std::string> arguments;
  int toTest;
  int fromTest;
  std::string heard;
};

using TestRoleBody = int (*)(TestRole& role);

// Enters a role under its name, before main.
struct TestRoleEntry {
  TestRoleEntry(const char* name, TestRoleBody body);
};

#define TEST_ROLE(Name)                                          \
  static int RoleBody##Name(TestRole& role);                     \
  static const TestRoleEntry sRole##Name(#Name, RoleBody##Name); \
  static int RoleBody##Name([[maybe_unused]] TestRole& role)

// If the command line names a role, runs it and returns its exit status.
std::optional<int> RunRoleOfCommandLine(int argc, char** argv);

// Returns one line from a file descriptor, and keeps bytes after it in `pending`.
std::optional<std::string> ReadLine(int descriptor, std::string& pending,
                                    std::chrono::milliseconds limit);
bool WriteLine(int descriptor, const std::string& line);
