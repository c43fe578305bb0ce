#include <Carbon/Carbon.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "aeport/port_listener.h"
#include "clients/session_monitor.h"
#include "launch/launch_spec.h"
#include "tests/support/child_process.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"

// Programs with an application event loop under a service manager, which waits for "READY=1".

namespace {

// The service manager's socket. `name` has the form of NOTIFY_SOCKET.
class Manager {
 public:
  explicit Manager(const std::string& name) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name[0] == '@') address.sun_path[0] = 0;
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(socket, reinterpret_cast<sockaddr*>(&address), size));
    own = address;
  }
  ~Manager() { close(socket); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  std::string Hear() {
    pollfd entry = {socket, POLLIN, 0};
    char text[64];
    if (poll(&entry, 1, 20'000) != 1) return "nothing";
    const ssize_t count = recv(socket, text, sizeof text, 0);
    return {text, static_cast<size_t>(count > 0 ? count : 0)};
  }

  // Fills the socket's queue.
  void Fill() {
    while (sendto(socket, "x", 1, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&own), size) == 1) {
    }
  }

 private:
  int socket;
  sockaddr_un own;
  socklen_t size;
};

TEST(ServiceManager, IsNotifiedWhenTheDaemonOwnsItsPortAndWhenItStops) {
  const ScratchFolder scratch;
  for (const std::string& name :
       {scratch.Path("notify"), "@vlt-test-" + std::to_string(getpid())}) {
    SCOPED_TRACE(name);
    Manager manager(name);
    ChildProcess daemon;
    ChildOptions options;
    options.arguments = TestLauncher();
    options.arguments.push_back(VLTSESSIOND_PROGRAM);
    options.environment["NOTIFY_SOCKET"] = name;
    ASSERT_TRUE(daemon.Start(options));
    EXPECT_EQ("READY=1", manager.Hear());
    mach_port_t port = MACH_PORT_NULL;
    EXPECT_EQ(0, VLTPortAEMachPortListener::CheckPortRegistered(gSessionMonitorLaunchSpec.portName,
                                                                port));
    EXPECT_EQ(0, SMQuitDaemon());
    EXPECT_EQ("STOPPING=1", manager.Hear());
    EXPECT_EQ(0, daemon.Wait(20s));
  }
}

TEST(ServiceManager, NeitherAFullNorAnUnusableSocketDelaysTheLoop) {
  const ScratchFolder scratch;
  Manager busy(scratch.Path("busy"));
  busy.Fill();
  const OpenDescriptorCheck noLeaks;
  for (const std::string& name :
       {scratch.Path("busy"), scratch.Path("none"), std::string(), std::string("/"),
        std::string("@"), std::string("busy"), "/" + std::string(200, 'x')}) {
    const ScopedVariable variable("NOTIFY_SOCKET", name.c_str());
    QuitApplicationEventLoop();
    RunApplicationEventLoop();
  }
  EXPECT_EQ("x", busy.Hear());
}

}  // namespace
