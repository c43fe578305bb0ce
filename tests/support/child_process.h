#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

// A program started by a test. The object owns the process: the destructor kills and reaps it. Any
// thread, one at a time.

using namespace std::chrono_literals;

// The start of a command that runs a program of this build: empty, or the emulator's path.
std::vector<std::string> TestLauncher();

struct ChildOptions {
  std::vector<std::string> arguments;              // the first is the program's path
  std::map<std::string, std::string> environment;  // added to this process's
  std::map<int, int> descriptors;                  // the child's -> this process's; above 2
  bool capture = false;                            // standard output and error into files
};

class ChildProcess {
 public:
  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  // Once per object. Returns false if the program cannot be started.
  bool Start(const ChildOptions& options);

  pid_t Pid() const { return pid; }  // 0 when not started; kept after the end
  void Signal(int number);           // does nothing once the child has been reaped

  // Returns the exit status, or the negated number of the signal that ended it; empty if it still
  // runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);
  bool KillAndWait(std::chrono::milliseconds limit);

  // The child's output until now. Only with ChildOptions::capture.
  std::string Output() const;
  std::string Errors() const;

 private:
  pid_t pid = 0;
  int pidDescriptor = -1;
  int output = -1;
  int errors = -1;
  std::optional<int> status;
};

// Runs a program of this build (through TestLauncher) to its end.
struct ProgramResult {
  int status = -1;  // as ChildProcess::Wait; -1000 if it did not start or did not end in time
  std::string output;
  std::string errors;
};
ProgramResult RunProgram(std::vector<std::string> arguments, std::chrono::milliseconds limit = 20s,
                         std::map<std::string, std::string> environment = {});
