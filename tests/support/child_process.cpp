#include "tests/support/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kNotRun = -1000;
constexpr int kFirstSafeDescriptor = 64;  // above every number that a child is given

// A nameless file that a child writes and the test reads.
int OpenScratchFile() {
  char path[] = "/tmp/vlt-child-XXXXXX";
  const int descriptor = mkostemp(path, O_CLOEXEC);
  if (descriptor >= 0) unlink(path);
  return descriptor;
}

std::string ReadWholeFile(int descriptor) {
  std::string text;
  char block[4096];
  ssize_t count;
  while (descriptor >= 0 && (count = pread(descriptor, block, sizeof block, text.size())) > 0) {
    text.append(block, count);
  }
  return text;
}

std::vector<std::string> MergedEnvironment(const std::map<std::string, std::string>& added) {
  std::vector<std::string> merged;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!added.contains(text.substr(0, text.find('=')))) merged.push_back(text);
  }
  for (const auto& [name, value] : added) merged.push_back(name + "=" + value);
  return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

int SpawnWith(const ChildOptions& options, int output, int errors, pid_t* pid) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  std::vector<int> copies;  // out of the way, so that no dup2 overwrites another's source
  for (const auto& [theirs, ours] : options.descriptors) {
    copies.push_back(fcntl(ours, F_DUPFD_CLOEXEC, kFirstSafeDescriptor));
    posix_spawn_file_actions_adddup2(&actions, copies.back(), theirs);
  }
  if (options.capture) {
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
  }
  std::vector<std::string> arguments = options.arguments;
  std::vector<std::string> environment = MergedEnvironment(options.environment);
  const int err = posix_spawn(pid, arguments[0].c_str(), &actions, nullptr,
                              Pointers(arguments).data(), Pointers(environment).data());
  for (const int copy : copies) close(copy);
  posix_spawn_file_actions_destroy(&actions);
  return err;
}

}  // namespace

std::vector<std::string> TestLauncher() {
#ifdef VLT_TEST_EMULATOR
  return {VLT_TEST_EMULATOR};
#else
  return {};
#endif
}

ChildProcess::~ChildProcess() {
  KillAndWait(10s);
  for (const int descriptor : {pidDescriptor, output, errors}) {
    if (descriptor >= 0) close(descriptor);
  }
}

bool ChildProcess::Start(const ChildOptions& options) {
  if (options.capture) {
    output = OpenScratchFile();
    errors = OpenScratchFile();
    if (output < 0 || errors < 0) return false;
  }
  if (SpawnWith(options, output, errors, &pid) != 0) {
    pid = 0;
    return false;
  }
  pidDescriptor = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidDescriptor < 0) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    pid = 0;
  }
  return pidDescriptor >= 0;
}

void ChildProcess::Signal(int number) {
  if (pid > 0 && !status) kill(pid, number);
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (pid == 0 || status) return status;
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + limit;
  pollfd entry = {pidDescriptor, POLLIN, 0};
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    const int ready = poll(&entry, 1, static_cast<int>(left > 0 ? left : 0));
    if (ready > 0) break;
    if (ready == 0 && left <= 0) return std::nullopt;
  }
  int raw = 0;
  if (waitpid(pid, &raw, 0) == pid) status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -WTERMSIG(raw);
  return status;
}

bool ChildProcess::KillAndWait(std::chrono::milliseconds limit) {
  if (pid == 0) return false;
  Signal(SIGKILL);
  return Wait(limit).has_value();
}

std::string ChildProcess::Output() const { return ReadWholeFile(output); }
std::string ChildProcess::Errors() const { return ReadWholeFile(errors); }

ProgramResult RunProgram(std::vector<std::string> arguments, std::chrono::milliseconds limit,
                         std::map<std::string, std::string> environment) {
  ChildOptions options;
  options.arguments = TestLauncher();
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.environment = std::move(environment);
  options.capture = true;
  ChildProcess child;
  if (!child.Start(options)) return {kNotRun, "", "not started"};
  const std::optional<int> status = child.Wait(limit);
  if (!status) child.KillAndWait(10s);
  return {status.value_or(kNotRun), child.Output(), child.Errors()};
}
