#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/host/base/file_lock.h"
#include "platform/host/base/open_file.h"
#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "tests/integration/process_use.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/repeated_signals.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Many processes commit keys of their own to one file, and some are killed in the middle.

namespace {

constexpr char kDomain[] = "com.veltrane.writers";
constexpr int kWriters = 16;
constexpr int kKeys = 30;    // of each; scaled
constexpr int kVictims = 3;  // scaled

std::string LockPath() {
  return std::string(std::getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences/." + kDomain +
         ".plist.lock";
}

OSStatus CommitKey(const std::string& key, int value) {
  VLTPreferences preferences(kDomain, kCFPreferencesAnyUser, kCFPreferencesCurrentHost);
  preferences.setInteger(key.c_str(), value);
  return preferences.commit();
}

// Commits so many keys, one by one.
TEST_ROLE(Writer) {
  const std::string own = "w" + role.Argument(0) + ".";
  role.SignalReady();
  if (role.Hear(60s) != "go") return RoleFailed();
  for (int i = 0; i < role.NumberArgument(1); i++) {
    if (CommitKey(own + std::to_string(i), i) != 0) return RoleFailed();
  }
  return kRoleDone;
}

// Stops in the middle of writing while it holds the lock.
TEST_ROLE(Victim) {
  ArmFsyncFault(CallFault::kStop, 1);
  CommitKey("victim." + role.Argument(0), 1);
  return RoleFailed();  // the test kills us first
}

// Commits while signals interrupt its system calls.
TEST_ROLE(Waiter) {
  const RepeatedSignals signals;
  role.Tell("status " + std::to_string(CommitKey("waiter", 1)));
  return kRoleDone;
}

bool HasOpen(pid_t process, int fd) {
  struct stat wanted, found;
  EXPECT_EQ(0, fstat(fd, &wanted));
  std::error_code ended;
  const std::string folder = "/proc/" + std::to_string(process) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(folder, ended)) {
    if (stat(entry.path().c_str(), &found) == 0 && found.st_ino == wanted.st_ino &&
        found.st_dev == wanted.st_dev) {
      return true;
    }
  }
  return false;
}

TEST(PreferencesWriters, AWriterWaitsForTheLockFileThatIsThereWhenItGetsTheLock) {
  OpenDescriptorCheck noLeaks;
  ASSERT_EQ(0, CommitKey("first", 1));
  const std::string path = LockPath();
  const auto takeLock = [&] {
    HostOpenFile file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    EXPECT_TRUE(HostTryLockByte(file.Get(), 0));
    return file;
  };
  HostOpenFile old = takeLock();
  TestProcess waiter("Waiter");
  ASSERT_TRUE(WaitUntil([&] { return HasOpen(waiter.Pid(), old.Get()); }, 60s));
  std::filesystem::remove(path);
  const HostOpenFile replacement = takeLock();
  HostUnlockByte(old.Get(), 0);
  EXPECT_TRUE(WaitUntil(
      [&] {
        return HasOpen(waiter.Pid(), replacement.Get()) || ProcessStateOf(waiter.Pid()) == 'Z';
      },
      60s));
  EXPECT_TRUE(HasOpen(waiter.Pid(), replacement.Get()));
  HostUnlockByte(replacement.Get(), 0);
  EXPECT_EQ("status 0", waiter.Hear(60s));
}

TEST(PreferencesWriters, EveryCommittedKeyIsThere) {
  OpenDescriptorCheck noLeaks;
  const int keys = kKeys * TestScale();
  TestProcesses writers;
  for (int i = 0; i < kWriters; i++) {
    writers.push_back(std::make_unique<TestProcess>(
        "Writer", std::vector<std::string>{std::to_string(i), std::to_string(keys)}));
  }
  ExpectReady(writers);
  for (auto& writer : writers) ASSERT_TRUE(writer->Tell("go"));
  for (int i = 0; i < kVictims * TestScale(); i++) {
    TestProcess victim("Victim", {std::to_string(i)});
    ASSERT_TRUE(WaitUntil([&] { return ProcessStateOf(victim.Pid()) == 'T'; }, 60s));
    ASSERT_TRUE(victim.KillAndWait(10s));
  }
  // A victim delays the others, but no commit fails.
  for (auto& writer : writers) EXPECT_EQ(kRoleDone, writer->Wait(300s));

  const std::string path =
      std::string(std::getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences/" + kDomain + ".plist";
  VLTDictionary list;
  ASSERT_EQ(0, list.load(path.c_str(), false));
  for (int i = 0; i < kWriters * keys; i++) {
    const std::string key = "w" + std::to_string(i / keys) + "." + std::to_string(i % keys);
    int value = -1;
    EXPECT_EQ(0, list.getInteger(key.c_str(), value)) << key;
    EXPECT_EQ(i % keys, value);
  }
}

}  // namespace
