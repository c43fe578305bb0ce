#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <servers/bootstrap.h>

#include <cstdlib>
#include <filesystem>

#include "tests/integration/fault_server.h"
#include "tests/support/permissions.h"
#include "tests/support/session_directory.h"

// A session directory that is full, may not be changed, or is gone.

namespace {

// Reports "what status" to its test.
void TellStatus(TestRole& role, const std::string& what, OSStatus status) {
  role.Tell(what + " " + std::to_string(status));
}

// Claims a new name, finds it, and lets it go.
void TellClaim(TestRole& role, const std::string& what) {
  static int count = 0;
  const std::string name = std::string(role.PortName()) + "." + std::to_string(++count);
  { const OpenDescriptorCheck makesWhatAProcessKeeps; }
  const size_t before = OpenDescriptors().size();
  OSStatus err = 0;
  {
    VLTPortAEMachPortListener listener;
    err = ListenUnder(listener, name.c_str());
    if (err == 0) err = LookUpPort(name.c_str());
  }
  // A failure must leave neither half a claim nor an open file descriptor.
  const bool clean =
      LookUpPort(name.c_str()) == BOOTSTRAP_UNKNOWN_SERVICE && OpenDescriptors().size() == before;
  TellStatus(role, what + (clean ? "" : " (something is left)"), err);
}

void TellAsking(TestRole& role, const TestProcess& server) {
  // On a thread of its own, so that it connects.
  RunOnThread([&] { TellStatus(role, "asking", AskServer(server.PortName()).status); });
}

// A new process reports the status of a request to the server and of a claim.
void TellNewcomer(TestRole& role, const std::string& server) {
  TestProcess newcomer("Newcomer", server.c_str(), {});
  role.Tell("newcomer " + newcomer.Hear(20s).value_or("nothing"));
  newcomer.Wait(20s);
}

TEST_ROLE(Newcomer) {
  const OSStatus asked = AskServer(role.PortName()).status;
  VLTPortAEMachPortListener listener;
  const OSStatus claimed = ListenUnder(listener, (role.PortName() + std::string(".new")).c_str());
  role.Tell(std::to_string(asked) + " " + std::to_string(claimed));
  return kRoleDone;
}

// The role's mounts end with it, and no other process sees them.
bool UseFileSystem(const std::string& folder, const char* options) {
  return unshare(CLONE_NEWNS) == 0 &&
         mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("tmpfs", folder.c_str(), "tmpfs", 0, options) == 0 &&
         chmod(folder.c_str(), 0700) == 0 && setenv("XDG_RUNTIME_DIR", folder.c_str(), 1) == 0;
}

// Makes files until no more can be made. Returns their folder.
std::string FillWithFiles(const std::string& folder) {
  const std::string path = folder + "/fillers";
  mkdir(path.c_str(), 0700);
  for (int i = 0;; i++) {
    const int fd = open((path + "/" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT, 0600);
    if (fd < 0) return path;
    close(fd);
  }
}

TEST_ROLE(OnFullDisk) {
  const std::string folder = role.Argument(0);
  if (!UseFileSystem(folder, "size=256k,nr_inodes=64")) return RoleFailed();
  ReadyProcess server("FaultServer");
  TellClaim(role, "before");
  const std::string filler = FillWithFiles(folder);
  TellClaim(role, "full");
  TellAsking(role, server);
  TellNewcomer(role, server.PortName());
  std::filesystem::remove_all(filler);
  TellClaim(role, "after");
  TellNewcomer(role, server.PortName());
  return kRoleDone;
}

TEST_ROLE(NewOnFullDisk) {
  const std::string folder = role.Argument(0);
  if (!UseFileSystem(folder, "size=256k,nr_inodes=64")) return RoleFailed();
  const std::string filler = FillWithFiles(folder);
  TellNewcomer(role, role.PortName());
  std::filesystem::remove_all(filler);
  TellNewcomer(role, role.PortName());
  return kRoleDone;
}

TEST_ROLE(OnReadOnlyDisk) {
  const std::string folder = role.Argument(0);
  if (!UseFileSystem(folder, "size=256k")) return RoleFailed();
  ReadyProcess server("FaultServer");
  TellClaim(role, "before");
  // A second mount upon the first, which the server's open files keep writable.
  const char* path = folder.c_str();
  if (mount(path, path, nullptr, MS_BIND, nullptr) != 0) return RoleFailed();
  if (mount(nullptr, path, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
    return RoleFailed();
  }
  TellAsking(role, server);
  TellNewcomer(role, server.PortName());
  if (umount(path) != 0) return RoleFailed();
  TellNewcomer(role, server.PortName());
  return kRoleDone;
}

TEST_ROLE(OnVanishedDisk) {
  const std::string folder = role.Argument(0);
  setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
  ReadyProcess server("FaultServer");
  TellClaim(role, "before");
  std::filesystem::remove_all(folder + "/veltrane");
  TellClaim(role, "vanished");
  TellStatus(role, "looking up", LookUpPort(server.PortName()));
  TellNewcomer(role, server.PortName());  // it makes the folders again
  std::filesystem::remove_all(folder);
  TellNewcomer(role, server.PortName());
  return kRoleDone;
}

TEST_ROLE(OnForbiddenDisk) {
  const std::string folder = role.Argument(0);
  setenv("XDG_RUNTIME_DIR", folder.c_str(), 1);
  if (!ObeyFileModes()) return RoleFailed();
  TellClaim(role, "before");
  const std::string names = folder + "/veltrane/names", ports = folder + "/veltrane/ports";
  chmod(names.c_str(), 0500);
  TellClaim(role, "names");
  chmod(names.c_str(), 0700);
  chmod(ports.c_str(), 0500);
  TellClaim(role, "ports");
  chmod(ports.c_str(), 0700);
  TellClaim(role, "after");
  std::filesystem::remove_all(folder + "/veltrane");
  return kRoleDone;
}

void ExpectTold(const std::string& roleName, const std::vector<std::string>& lines) {
  SCOPED_TRACE(roleName);
  OpenDescriptorCheck noLeaks;
  const ScratchFolder folder;
  TestProcess role(roleName, {folder.Path()});
  for (const std::string& line : lines) {
    EXPECT_EQ(line, role.Hear(30s).value_or("the role ended without a report"))
        << "after a disk fault";
  }
  EXPECT_EQ(kRoleDone, role.Wait(20s));
}

const std::string kAbsent = std::to_string(BOOTSTRAP_UNKNOWN_SERVICE);
const std::string kRefused = std::to_string(BOOTSTRAP_NOT_PRIVILEGED);
const std::string kNoRoom = std::to_string(BOOTSTRAP_NO_MEMORY);
const std::string kFailure = std::to_string(KERN_FAILURE);

TEST(SessionDisk, AVanishedOneIsMadeAgainByTheNextProcess) {
  ExpectTold("OnVanishedDisk",
             {"before 0", "vanished " + kFailure, "looking up " + kAbsent,
              "newcomer " + kAbsent + " 0", "newcomer " + kFailure + " " + kFailure});
}

TEST(SessionDisk, ClaimsFailWhereItsFoldersMayNotBeChanged) {
  ExpectTold("OnForbiddenDisk", {"before 0", "names " + kRefused, "ports " + kRefused, "after 0"});
}

TEST(SessionDisk, AFullOrReadOnlyOneStillLeadsToItsServers) {
  SKIP_IF(NoMounts());
  ExpectTold("OnFullDisk", {"before 0", "full " + kNoRoom, "asking 0", "newcomer 0 " + kNoRoom,
                            "after 0", "newcomer 0 0"});
  ExpectTold("OnReadOnlyDisk", {"before 0", "asking 0", "newcomer 0 " + kRefused, "newcomer 0 0"});
  ClearTestLog();
  ExpectTold("NewOnFullDisk",
             {"newcomer " + kFailure + " " + kFailure, "newcomer " + kAbsent + " 0"});
  const std::string log = TestLogText();
  EXPECT_NE(std::string::npos, log.find("No space left")) << log;
}

}  // namespace
