#include <gtest/gtest.h>

#include <CoreFoundation/CoreFoundation.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "plist/dictionary.h"
#include "plist/preferences.h"
#include "tests/integration/process_use.h"
#include "tests/support/interposed_calls.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

// Many processes that commit keys of their own into one file, some of which are killed in the
// middle: every key whose commit succeeded is there.

namespace {

constexpr char kDomain[] = "com.veltrane.writers";
constexpr int kWriters = 16;
constexpr int kKeys = 30;    // of each; scaled
constexpr int kVictims = 3;  // scaled

OSStatus CommitKey(const std::string& key, int value) {
  VLTPreferences preferences(kDomain, kCFPreferencesAnyUser, kCFPreferencesCurrentHost);
  preferences.setInteger(key.c_str(), value);
  return preferences.commit();
}

// Commits so many keys, one by one.
TEST_ROLE(Writer) {
  const std::string own = "w" + role.Argument(0) + ".";
  role.SignalReady();
  if (role.Hear(60s) != "go") return kRoleFailed;
  for (int i = 0; i < role.NumberArgument(1); i++) {
    if (CommitKey(own + std::to_string(i), i) != 0) return kRoleFailed;
  }
  return kRoleDone;
}

// Stops in the middle of writing, with the lock.
TEST_ROLE(Victim) {
  ArmFsyncFault(CallFault::kStop, 1);
  CommitKey("victim." + role.Argument(0), 1);
  return kRoleFailed;  // the test kills us first
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
  // A victim holds the others up, but makes none of them fail.
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
