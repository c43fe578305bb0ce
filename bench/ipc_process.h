#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// The processes of one measurement. Everything measured runs in processes of its own, which end
// with the program that started them, whatever ends that. The program that starts them stays
// single-threaded.

// A few numbers at a time, between a process and the one that started it. Every wait is bounded.
class IpcChannel {
 public:
  IpcChannel() = default;
  explicit IpcChannel(int taken) : descriptor(taken) {}
  IpcChannel(const IpcChannel&) = delete;
  IpcChannel& operator=(const IpcChannel&) = delete;
  ~IpcChannel() { Close(); }

  void Reset(int taken);
  void Close() { Reset(-1); }

  static constexpr int kPatienceMs = 120'000;
  static constexpr size_t kMostNumbers = 16;

  // False when the other side has gone.
  bool Tell(const std::vector<double>& numbers);
  // Returns false if the other side is gone or silent too long, or if this process is to end.
  bool Hear(std::vector<double>* numbers, int patienceMs = kPatienceMs);

 private:
  int descriptor = -1;
};

// The processors that a process may run on; empty: all that its parent may.
using IpcProcessors = std::vector<int>;

// The processors that this program was given.
IpcProcessors IpcAllowedProcessors();
bool IpcPin(pid_t pid, const IpcProcessors& processors);

// Owns one process: the destructor kills and reaps it.
class IpcProcess {
 public:
  // Runs in the new process; false is a failure of the measurement.
  using Body = std::function<bool(IpcChannel& parent)>;

  IpcProcess() = default;
  IpcProcess(const IpcProcess&) = delete;
  IpcProcess& operator=(const IpcProcess&) = delete;
  ~IpcProcess() { Kill(); }

  // A copy of this program that runs `body` and exits.
  bool Fork(const IpcProcessors& processors, const Body& body);

  // Another program, found by its path. `passed` (or -1) keeps its number in it. Standard output
  // goes nowhere, standard error to `errors` unless that is -1.
  bool Exec(const IpcProcessors& processors, const std::vector<std::string>& arguments, int passed,
            int errors = -1);

  IpcChannel& Channel() { return channel; }
  pid_t Pid() const { return pid; }
  int64_t ExecTime() const;  // nanoseconds of the monotonic clock, right before the exec

  // Reaps a process that ends by itself. True for exit status 0 in time; else it is killed.
  bool Join(int patienceMs = 10'000);
  void Kill();

 private:
  bool Prepare();
  static void EnterChild(pid_t parent, const IpcProcessors& processors);
  void Reap();

  pid_t pid = 0;
  int pidDescriptor = -1;
  int status = -1;
  int64_t* execTime = nullptr;  // shared with the child
  IpcChannel channel;
};

// Makes SIGINT, SIGTERM and SIGHUP end the waits above, so that the program tidies up.
void IpcCatchSignals();
bool IpcIsInterrupted();

// Waits until `descriptor` can be read, or has hung up. False when the time runs out first.
bool IpcWaitReadable(int descriptor, int patienceMs);

// Nothing but the time ends this wait, an interruption excepted.
void IpcPause(int milliseconds);
