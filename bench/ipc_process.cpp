#include "bench/ipc_process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "platform/host/base/clock.h"

namespace {

volatile sig_atomic_t sInterrupted = 0;

void NoteSignal(int) { sInterrupted = 1; }

void SetSignals(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;  // no SA_RESTART: waits are to end
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
}

}  // namespace

void IpcCatchSignals() { SetSignals(NoteSignal); }

bool IpcIsInterrupted() { return sInterrupted != 0; }

bool IpcWaitReadable(int descriptor, int patienceMs) {
  const int64_t deadline = HostNow() + patienceMs * kHostMillisecond;
  pollfd entry = {descriptor, POLLIN, 0};
  while (!IpcIsInterrupted()) {
    const int ready = poll(&entry, 1, HostMillisecondsUntil(deadline, HostNow()));
    if (ready > 0) return true;
    if (ready == 0 || errno != EINTR) return false;
  }
  return false;
}

void IpcPause(int milliseconds) {
  const int64_t deadline = HostNow() + milliseconds * kHostMillisecond;
  int wait = 0;
  while (!IpcIsInterrupted() && (wait = HostMillisecondsUntil(deadline, HostNow())) > 0) {
    poll(nullptr, 0, wait);
  }
}

IpcProcessors IpcAllowedProcessors() {
  cpu_set_t set;
  IpcProcessors processors;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return processors;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (CPU_ISSET(cpu, &set)) processors.push_back(cpu);
  }
  return processors;
}

bool IpcPin(pid_t pid, const IpcProcessors& processors) {
  if (processors.empty()) return true;
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int cpu : processors) CPU_SET(cpu, &set);
  return sched_setaffinity(pid, sizeof set, &set) == 0;
}

void IpcChannel::Reset(int taken) {
  if (descriptor >= 0) close(descriptor);
  descriptor = taken;
}

bool IpcChannel::Tell(const std::vector<double>& numbers) {
  const size_t size = numbers.size() * sizeof(double);
  if (size == 0 || numbers.size() > kMostNumbers) return false;
  return send(descriptor, numbers.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool IpcChannel::Hear(std::vector<double>* numbers, int patienceMs) {
  if (!IpcWaitReadable(descriptor, patienceMs)) return false;
  numbers->resize(kMostNumbers);
  const ssize_t size = recv(descriptor, numbers->data(), kMostNumbers * sizeof(double), 0);
  if (size <= 0 || size % sizeof(double) != 0) return false;
  numbers->resize(static_cast<size_t>(size) / sizeof(double));
  return true;
}

bool IpcProcess::Prepare() {
  Kill();
  void* page =
      mmap(nullptr, sizeof *execTime, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return false;
  execTime = new (page) int64_t(0);
  fflush(nullptr);  // so that the child does not print buffered text again
  return true;
}

void IpcProcess::EnterChild(pid_t parent, const IpcProcessors& processors) {
  SetSignals(SIG_DFL);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(126);  // it ended before the signal was requested
  if (!IpcPin(0, processors)) _exit(126);
}

bool IpcProcess::Fork(const IpcProcessors& processors, const Body& body) {
  int ends[2];
  if (!Prepare() || socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return false;
  const pid_t self = getpid();
  pid = fork();
  if (pid == 0) {
    EnterChild(self, processors);
    close(ends[0]);
    IpcChannel parent(ends[1]);
    exit(body(parent) ? 0 : 1);
  }
  close(ends[1]);
  channel.Reset(ends[0]);
  if (pid > 0) pidDescriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  return pid > 0 && pidDescriptor >= 0;
}

bool IpcProcess::Exec(const IpcProcessors& processors, const std::vector<std::string>& arguments,
                      int passed, int errors) {
  if (!Prepare()) return false;
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& text : arguments) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  const pid_t self = getpid();
  pid = fork();
  if (pid == 0) {
    EnterChild(self, processors);
    dup2(open("/dev/null", O_RDWR | O_CLOEXEC), STDOUT_FILENO);
    if (errors >= 0) dup2(errors, STDERR_FILENO);
    if (passed >= 0) fcntl(passed, F_SETFD, 0);
    *execTime = HostNow();
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  if (pid > 0) pidDescriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  return pid > 0 && pidDescriptor >= 0;
}

int64_t IpcProcess::ExecTime() const { return execTime != nullptr ? *execTime : 0; }

void IpcProcess::Reap() {
  if (pid > 0) {
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  }
  if (pidDescriptor >= 0) close(pidDescriptor);
  if (execTime != nullptr) munmap(execTime, sizeof *execTime);
  pid = 0;
  pidDescriptor = -1;
  execTime = nullptr;
  channel.Close();
}

bool IpcProcess::Join(int patienceMs) {
  if (pid <= 0 || !IpcWaitReadable(pidDescriptor, patienceMs)) {
    Kill();
    return false;
  }
  Reap();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

void IpcProcess::Kill() {
  if (pid > 0) kill(pid, SIGKILL);
  Reap();
}
