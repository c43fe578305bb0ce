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
#include "tests/support/session_directory.h"
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

// Says for each of its keys that the commit has succeeded.
TEST_ROLE(Writer) {
  const std::string own = "w" + role.Argument(0) + ".";
  role.SignalReady();
  if (role.Hear(60s) != "go") return kRoleFailed;
  for (int i = 0; i < role.NumberArgument(1); i++) {
    if (CommitKey(own + std::to_string(i), i) == 0) role.Tell(std::to_string(i));
  }
  role.Tell("end");
  return kRoleDone;
}

// Stops in the middle of writing, with the lock.
TEST_ROLE(Victim) {
  ArmFsyncFault(CallFault::kStop, 1);
  CommitKey("victim." + role.Argument(0), 1);
  return kRoleFailed;  // the test kills us first
}

TEST(PreferencesWriters, EveryAcknowledgedKeyIsThere) {
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
  std::vector<std::string> acknowledged;
  for (int i = 0; i < kWriters; i++) {
    for (;;) {
      const std::string line = writers[i]->Hear(120s).value_or("nothing");
      ASSERT_NE("nothing", line) << i;
      if (line == "end") break;
      acknowledged.push_back("w" + std::to_string(i) + "." + line);
    }
    EXPECT_EQ(kRoleDone, writers[i]->Wait(20s));
  }
  // A victim holds the others up, but makes none of them fail.
  EXPECT_EQ(static_cast<size_t>(kWriters) * keys, acknowledged.size()) << TestLogText();

  const std::string path =
      std::string(std::getenv("XDG_CONFIG_DIRS")) + "/veltrane/preferences/" + kDomain + ".plist";
  VLTDictionary list;
  ASSERT_EQ(0, list.load(path.c_str(), false));
  for (const std::string& key : acknowledged) {
    int value = -1;
    EXPECT_EQ(0, list.getInteger(key.c_str(), value)) << key;
    EXPECT_EQ(key.substr(key.find('.') + 1), std::to_string(value));
  }
}

}  // namespace
