#include "bench/ipc_system.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <CoreServices/CoreServices.h>
#include <mach/mach.h>

#include "aeport/event.h"
#include "aeport/port_listener.h"
#include "bench/ipc_dbus_daemon.h"
#include "bench/ipc_proc.h"
#include "daemon/event_service.h"
#include "platform/host/base/clock.h"
#include "platform/host/session/introspect.h"

namespace {

constexpr int kStartMs = 10'000;
constexpr int kSettleStepMs = 50;
constexpr int kSettleSteps = 100;

// A program that starts, and ends on request. Used in a process of its own, for the session
// daemon is watched through the library.
class Subject {
 public:
  virtual ~Subject() = default;
  virtual bool Start(const IpcProcessors& processors) = 0;
  virtual double StartMicroseconds() const = 0;
  virtual pid_t Pid() const = 0;
  virtual bool Stop() = 0;
};

class EmptyProgram : public Subject {
 public:
  bool Start(const IpcProcessors& processors) override {
    // The end of file comes with the process's end.
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return false;
    const bool started = process.Exec(processors, {VLT_BENCH_EMPTY}, ends[1]);
    close(ends[1]);
    const bool ended = started && IpcWaitReadable(ends[0], kStartMs);
    nanoseconds = HostNow() - process.ExecTime();
    close(ends[0]);
    return ended;
  }
  double StartMicroseconds() const override { return static_cast<double>(nanoseconds) / 1e3; }
  pid_t Pid() const override { return process.Pid(); }
  bool Stop() override { return process.Join(); }

 private:
  IpcProcess process;
  int64_t nanoseconds = 0;
};

class SessionDaemon : public Subject {
 public:
  SessionDaemon() = default;
  ~SessionDaemon() override {
    if (watch >= 0) close(watch);
  }

  bool Start(const IpcProcessors& processors) override {
    const std::string names = HostDescribeSessionDirectory().path + "/names";
    watch = inotify_init1(IN_CLOEXEC);
    if (inotify_add_watch(watch, names.c_str(), IN_CREATE | IN_MODIFY | IN_ATTRIB) < 0) {
      return false;
    }
    if (!process.Exec(processors, {VLT_BENCH_DAEMON}, -1)) return false;
    while (!IsClaimed()) {
      char events[4096];
      if (!IpcWaitReadable(watch, kStartMs)) return false;
      if (read(watch, events, sizeof events) <= 0) return false;
    }
    nanoseconds = HostNow() - process.ExecTime();
    return true;
  }
  double StartMicroseconds() const override { return static_cast<double>(nanoseconds) / 1e3; }
  pid_t Pid() const override { return process.Pid(); }

  bool Stop() override {
    VLTPortDestinationAddress address(kSessionDaemonPortName);
    VLTPortAppleEvent quit(kCoreEventClass, kAEQuitApplication, kAEWaitReply, &address,
                           kAutoGenerateReturnID, kAnyTransactionID);
    OSStatus err = address.initialize();
    if (err == 0) err = quit.createEvent();
    if (err == 0) err = quit.sendEvent(0, kAEDefaultTimeout, kAENormalPriority);
    quit.finalizeEvent();
    return err == 0 && process.Join();
  }

 private:
  static bool IsClaimed() {
    mach_port_t port = MACH_PORT_NULL;
    return VLTPortAEMachPortListener::CheckPortRegistered(kSessionDaemonPortName, port) == 0;
  }

  IpcProcess process;
  int watch = -1;
  int64_t nanoseconds = 0;
};

class MessageBus : public Subject {
 public:
  explicit MessageBus(const std::string& folder) : daemon(folder) {}

  bool Start(const IpcProcessors& processors) override { return daemon.Start(processors); }
  double StartMicroseconds() const override {
    return static_cast<double>(daemon.StartTime()) / 1e3;
  }
  pid_t Pid() const override { return daemon.Pid(); }
  bool Stop() override {
    daemon.Stop();
    unlink(daemon.Address().substr(daemon.Address().find('=') + 1).c_str());
    return true;
  }

 private:
  IpcDBusDaemon daemon;
};

std::unique_ptr<Subject> NewSubject(IpcProgram program, const std::string& folder) {
  switch (program) {
    case IpcProgram::kEmpty:
      return std::make_unique<EmptyProgram>();
    case IpcProgram::kSessionDaemon:
      return std::make_unique<SessionDaemon>();
    case IpcProgram::kDBusDaemon:
      return std::make_unique<MessageBus>(folder);
  }
  return nullptr;
}

// Waits until two looks in a row show no wake-up: the start is over.
bool Settle(pid_t pid, IpcProcSnapshot* now) {
  int64_t wakeUps = -1;
  for (int step = 0; step < kSettleSteps; ++step) {
    if (!IpcReadProcess(pid, now)) return false;
    if (now->wakeUps == wakeUps) return true;
    wakeUps = now->wakeUps;
    IpcPause(kSettleStepMs);
  }
  return false;
}

// Runs `body` with a subject in a process of its own; `answer` is its report.
bool WithSubject(IpcProgram program, const IpcPlacement& placement, const std::string& folder,
                 const std::function<bool(Subject&, IpcChannel&)>& body,
                 std::vector<double>* answer) {
  IpcProcess watcher;
  const bool forked = watcher.Fork(placement.clients, [&](IpcChannel& parent) {
    const std::unique_ptr<Subject> subject = NewSubject(program, folder);
    const bool done = subject->Start(placement.server) && body(*subject, parent);
    return subject->Stop() && done;
  });
  return forked && watcher.Channel().Hear(answer) && watcher.Join();
}

}  // namespace

bool IpcMeasureStart(IpcProgram program, const IpcPlacement& placement, const std::string& folder,
                     double* microseconds) {
  std::vector<double> answer;
  const auto body = [](Subject& subject, IpcChannel& parent) {
    return parent.Tell({subject.StartMicroseconds()});
  };
  if (!WithSubject(program, placement, folder, body, &answer)) return false;
  *microseconds = answer[0];
  return true;
}

bool IpcMeasureIdle(IpcProgram program, const IpcPlacement& placement, const std::string& folder,
                    int windowMs, IpcIdle* idle) {
  std::vector<double> answer;
  const auto body = [windowMs](Subject& subject, IpcChannel& parent) {
    IpcProcSnapshot before, after;
    if (!Settle(subject.Pid(), &before)) return false;
    IpcPause(windowMs);
    return IpcReadProcess(subject.Pid(), &after) &&
           parent.Tell({double(after.wakeUps - before.wakeUps),
                        double(after.cpuTime - before.cpuTime) / 1e6, double(after.ussKiB),
                        double(after.rssKiB)});
  };
  if (!WithSubject(program, placement, folder, body, &answer) || answer.size() != 4) return false;
  *idle = {answer[0], answer[1], answer[2], answer[3]};
  return true;
}
