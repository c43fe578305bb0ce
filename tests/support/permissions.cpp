#include "tests/support/permissions.h"

#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// "" if `isPermitted` returns true in a child process.
template <class Attempt>
std::string Try(const char* what, Attempt isPermitted) {
  const pid_t child = fork();
  if (child == 0) {
    errno = 0;
    _exit(isPermitted() ? 0 : errno != 0 ? errno : EPERM);
  }
  int status = 0;
  pid_t ended = -1;
  while (child > 0 && (ended = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
  }
  if (ended == child && WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
  const int error = child < 0 ? errno : WIFEXITED(status) ? WEXITSTATUS(status) : EPERM;
  return std::string("this process may not ") + what + ": " + std::strerror(error);
}

}  // namespace

std::string NoMounts() {
  return Try("mount file systems", [] {
    return unshare(CLONE_NEWNS) == 0 &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/tmp", "tmpfs", 0, nullptr) == 0;
  });
}

std::string NoOtherUsers() {
  return Try("act as other users", [] { return geteuid() == 0 && seteuid(12345) == 0; });
}

bool ObeyFileModes() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  if (syscall(SYS_capget, &header, data) != 0) return false;
  data[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
  return syscall(SYS_capset, &header, data) == 0;
}
