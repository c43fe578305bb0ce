#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

#include <Carbon/Carbon.h>

#include "aeport/port_listener.h"

// The program that the launch tests start. It gets no arguments, so it follows the plan in the file
// with its name and ".plan", line by line:
//
//   note FILE    appends its pid to FILE
//   dump FILE    writes what it inherited: descriptors, signals, session, folder
//   say TEXT     prints a line; complain TEXT: to standard error
//   fill N       prints N lines of 1,024 bytes
//   claim NAME   claims a port, which replies to the quit event and 'test' events
//   let-go       gives the port up
//   wait FIFO    waits for a line from FIFO
//   background   continues as a child
//   run PROGRAM  starts another program, in its POSIX session
//   loop         runs the event loop until the quit event comes
//   exit N, kill N
//
// It resets no signals, so a dump shows the inherited ones.

namespace {

OSStatus Answer(UInt32 eventClass, UInt32 eventID, const AEDesc*, AEDesc*, void*) {
  if (eventClass == kCoreEventClass && eventID == kAEQuitApplication) {
    QuitApplicationEventLoop();
    return 0;
  }
  return eventClass == FourCC('t', 'e', 's', 't') ? 0 : errAEEventNotHandled;
}

std::string OwnPath() {
  char path[PATH_MAX];
  const ssize_t size = readlink("/proc/self/exe", path, sizeof path);
  return std::string(path, size > 0 ? static_cast<size_t>(size) : 0);
}

std::string LinkTarget(const std::string& path) {
  char target[PATH_MAX];
  const ssize_t size = readlink(path.c_str(), target, sizeof target);
  return std::string(target, size > 0 ? static_cast<size_t>(size) : 0);
}

// Writes "descriptor 0 /dev/null", "SigBlk: 0...", "session own", ... to a new file and renames it,
// so that the file is complete when it appears.
void Dump(const std::string& path) {
  std::ostringstream text;
  DIR* folder = opendir("/proc/self/fd");
  while (const dirent* entry = folder != nullptr ? readdir(folder) : nullptr) {
    if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == dirfd(folder)) continue;
    text << "descriptor " << entry->d_name << " "
         << LinkTarget(std::string("/proc/self/fd/") + entry->d_name) << "\n";
  }
  if (folder != nullptr) closedir(folder);
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("Sig") && !line.starts_with("SigQ")) text << line << "\n";
  }
  text << "session " << (getsid(0) == getpid() ? "own" : "inherited") << "\n"
       << "parent " << getppid() << "\n"
       << "folder " << LinkTarget("/proc/self/cwd") << "\n"
       << "variable " << (getenv("VLT_LAUNCH_TEST") != nullptr ? getenv("VLT_LAUNCH_TEST") : "")
       << "\n";
  std::ofstream(path + ".new") << text.str();
  rename((path + ".new").c_str(), path.c_str());
}

void Note(const std::string& path) {
  const int file = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  const std::string line = std::to_string(getpid()) + "\n";
  (void)!write(file, line.data(), line.size());
  close(file);
}

void Say(int descriptor, const std::string& text) {
  const std::string line = text + "\n";
  (void)!write(descriptor, line.data(), line.size());
}

void GoIntoTheBackground() {
  if (fork() != 0) _exit(0);
}

void Run(const std::string& program) {
  if (fork() != 0) return;
  execl(program.c_str(), program.c_str(), nullptr);
  _exit(1);
}

std::unique_ptr<VLTPortAEMachPortListener> sListener;

void Claim(const std::string& name) {
  sListener = std::make_unique<VLTPortAEMachPortListener>();
  const OSStatus err = sListener->ListenOnPort(name.c_str(), CFRunLoopGetMain(), Answer, nullptr);
  if (err != 0) _exit(0);  // another copy has it
}

void Do(const std::string& step, const std::string& what) {
  if (step == "say") Say(STDOUT_FILENO, what);
  if (step == "complain") Say(STDERR_FILENO, what);
  for (int i = step == "fill" ? std::stoi(what) : 0; i > 0; i--) {
    Say(STDOUT_FILENO, std::string(1023, 'x'));
  }
  if (step == "note") Note(what);
  if (step == "dump") Dump(what);
  if (step == "claim") Claim(what);
  if (step == "let-go") sListener.reset();
  if (step == "wait") std::ifstream(what).get();
  if (step == "background") GoIntoTheBackground();
  if (step == "run") Run(what);
  if (step == "loop") RunApplicationEventLoop();
  if (step == "exit") _exit(std::stoi(what));
  if (step == "kill") kill(getpid(), std::stoi(what));
}

}  // namespace

int main() {
  std::stringstream plan;
  plan << std::ifstream(OwnPath() + ".plan").rdbuf();
  for (std::string line; std::getline(plan, line);) {
    const size_t space = line.find(' ');
    Do(line.substr(0, space), space != std::string::npos ? line.substr(space + 1) : "");
  }
}
