#include "tests/support/open_descriptor_check.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <sys/wait.h>

#include <CoreFoundation/CoreFoundation.h>
#include <servers/bootstrap.h>

#include <cstdlib>

namespace {

bool HasChildren() {
  siginfo_t info = {};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0;
}

// Another look-up closes the file that this thread keeps open for its last one.
void LookUpNobody() {
  mach_port_t bootstrap = MACH_PORT_NULL;
  mach_port_t port = MACH_PORT_NULL;
  if (task_get_special_port(mach_task_self(), TASK_BOOTSTRAP_PORT, &bootstrap) == 0) {
    bootstrap_look_up(bootstrap, "test.nobody", &port);
  }
}

void MakeWhatAProcessKeeps() {
  CFRunLoopSourceContext nothing = {};
  CFRunLoopSourceRef source = CFRunLoopSourceCreate(kCFAllocatorDefault, 0, &nothing);
  CFRunLoopAddSource(CFRunLoopGetCurrent(), source, kCFRunLoopDefaultMode);
  CFRunLoopRunInMode(kCFRunLoopDefaultMode, 0, true);
  CFRunLoopSourceInvalidate(source);
  CFRelease(source);
  LookUpNobody();
}

std::string Listed(const std::map<int, std::string>& descriptors) {
  std::string text;
  for (const auto& [number, target] : descriptors) {
    text += "\n  " + std::to_string(number) + " " + target;
  }
  return text;
}

}  // namespace

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> open;
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return open;
  while (const dirent* entry = readdir(folder)) {
    const int number = std::atoi(entry->d_name);
    if (entry->d_name[0] == '.' || number == dirfd(folder)) continue;
    char target[PATH_MAX];
    const ssize_t length = readlinkat(dirfd(folder), entry->d_name, target, sizeof target);
    open[number] = std::string(target, length > 0 ? length : 0);
  }
  closedir(folder);
  return open;
}

OpenDescriptorCheck::OpenDescriptorCheck() {
  MakeWhatAProcessKeeps();
  before = OpenDescriptors();
  hadChildren = HasChildren();
}

OpenDescriptorCheck::~OpenDescriptorCheck() {
  LookUpNobody();
  EXPECT_LE(OpenDescriptors().size(), before.size())
      << "before:" << Listed(before) << "\nafter:" << Listed(OpenDescriptors());
  EXPECT_EQ(hadChildren, HasChildren());
}
