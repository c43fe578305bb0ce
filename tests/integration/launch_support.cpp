#include "tests/integration/launch_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "aeport/event.h"
#include "tests/integration/process_use.h"

namespace {

// The pids of processes whose program lies in `folder`.
std::vector<pid_t> ProcessesOf(const std::string& folder) {
  std::vector<pid_t> pids;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const int pid = std::atoi(entry.path().filename().c_str());
    char program[PATH_MAX];
    const ssize_t size = readlink((entry.path() / "exe").c_str(), program, sizeof program);
    if (pid <= 0 || size <= 0) continue;
    if (std::string(program, static_cast<size_t>(size)).starts_with(folder + "/")) {
      pids.push_back(pid);
    }
  }
  return pids;
}

}  // namespace

LaunchedApplications::LaunchedApplications()
    : data("XDG_DATA_HOME", folder.Folder("data").c_str()),
      shared("XDG_DATA_DIRS", folder.Folder("share").c_str()) {
  folder.Folder("data/veltrane/Applications");
  folder.Folder("share/veltrane/Applications");
}

LaunchedApplications::~LaunchedApplications() {
  for (const pid_t pid : ProcessesOf(folder.Path())) {
    kill(pid, SIGKILL);
    EXPECT_TRUE(WaitForEnd(pid));
  }
}

std::string LaunchedApplications::AddBundle(const std::string& name, const TestBundle& bundle,
                                            const std::string& plan) {
  const std::string place =
      name.starts_with('/') ? name.substr(1) : "data/veltrane/Applications/" + name;
  AddProgram(place + "/Contents/Linux/" + bundle.executable, plan);
  return MakeTestBundle(folder, place, bundle);
}

std::string LaunchedApplications::AddProgram(const std::string& name, const std::string& plan) {
  folder.File(name + ".plan", plan);
  return folder.Program(name, LAUNCHED_PROGRAM);
}

std::vector<pid_t> LaunchedApplications::Starts(const std::string& name) const {
  std::vector<pid_t> pids;
  std::ifstream file(NotePath(name));
  for (pid_t pid; file >> pid;) pids.push_back(pid);
  return pids;
}

bool LaunchedApplications::WaitForStart(const std::string& name, size_t count) const {
  return WaitUntil([&] { return Starts(name).size() >= count; }, 20s);
}

std::string LaunchedApplications::WaitStep(const std::string& name) {
  const std::string path = folder.Path(name + ".go");
  EXPECT_EQ(0, mkfifo(path.c_str(), 0600));
  return "wait " + path + "\n";
}

bool LaunchedApplications::LetGoOn(const std::string& name) {
  int fifo = -1;

  if (!WaitUntil(
          [&] {
            fifo = open(folder.Path(name + ".go").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return fifo >= 0;
          },
          20s)) {
    return false;
  }
  const bool done = write(fifo, "\n", 1) == 1;
  close(fifo);
  return done;
}

FSRef RefOf(const std::string& path) {
  FSRef ref = {};
  EXPECT_EQ(0, FSPathMakeRef(reinterpret_cast<const UInt8*>(path.c_str()), &ref, nullptr)) << path;
  return ref;
}

bool WaitForEnd(pid_t pid) {
  const auto hasEnded = [&] {
    const char state = ProcessStateOf(pid);
    return state == '\0' || state == 'Z' || state == 'X';
  };
  return WaitUntil(hasEnded, 20s);
}

bool QuitAndWait(const std::string& port) {
  OSStatus err = 0;
  // The thread's end closes its connection.
  std::thread([&] {
    VLTPortDestinationAddress address(port.c_str());
    VLTPortAppleEvent event(kCoreEventClass, kAEQuitApplication, kAEWaitReply, &address,
                            kAutoGenerateReturnID, kAnyTransactionID);
    err = address.initialize();
    if (err == 0) err = event.createEvent();
    if (err == 0) err = event.sendEvent(0, 20 * 60, kAENormalPriority);
    event.finalizeEvent();
  }).join();
  return err == 0 && WaitForNoPort(port, 20s);
}
