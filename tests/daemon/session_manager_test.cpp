#include "daemon/session_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/session_monitor.h"

namespace {

// What only the manager itself sees.
class OpenManager : public SessionManager {
 public:
  static const char* LoadName(const SessionManager& manager) {
    return manager.*(&OpenManager::loadPreferencesFilename);
  }
  static const char* SaveName(const SessionManager& manager) {
    return manager.*(&OpenManager::savePreferencesFilename);
  }
  bool IsInitialised() const { return initialised; }
  void MarkModified() { preferencesModified = true; }
};

std::string TextOf(const char* text) { return text != nullptr ? text : "(none)"; }

TEST(SessionManager, IsInitialisedByFinishInitOnly) {
  OpenManager manager;
  EXPECT_EQ(nullptr, OpenManager::LoadName(manager));
  EXPECT_EQ(nullptr, OpenManager::SaveName(manager));
  EXPECT_EQ(0, manager.init());
  EXPECT_FALSE(manager.IsInitialised());
  manager.MarkModified();
  EXPECT_EQ(0, manager.prefsModified());
  EXPECT_EQ(0, manager.finishInit());
  EXPECT_TRUE(manager.IsInitialised());
  EXPECT_EQ(0, manager.prefsModified());
  EXPECT_EQ(0, manager.identify());
}

TEST(SessionDaemonOptions, FileNamesAreTakenWholeAndTheLastWins) {
  const struct {
    std::vector<std::string> words;
    const char* load;
    const char* save;
  } rows[] = {
      {{"-lp"}, "(none)", "(none)"},  // no value: passed over
      {{"-lp", "a", "-savePrefs", "b"}, "a", "b"},
      {{"-loadPrefs", "a", "-lp", "b"}, "b", "(none)"},
      {{"-sp", "-q"}, "(none)", "-q"},  // a value, whatever it looks like
      {{"-LP", "a", "--lp", "b", "-l", "c", "-lpx", "d"}, "(none)", "(none)"},
      {{"x", "-lp", "", "-sp"}, "", "(none)"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> words = {"vltsessiond"};
    words.insert(words.end(), row.words.begin(), row.words.end());
    SCOPED_TRACE(testing::PrintToString(words));
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    gSessionManager.setLoadPreferencesFilename(nullptr);
    gSessionManager.setSavePreferencesFilename(nullptr);
    ParseSessionDaemonOptions(static_cast<int>(words.size()), argv.data());
    EXPECT_EQ(row.load, TextOf(OpenManager::LoadName(gSessionManager)));
    EXPECT_EQ(row.save, TextOf(OpenManager::SaveName(gSessionManager)));
  }
  gSessionManager.setLoadPreferencesFilename(nullptr);
  gSessionManager.setSavePreferencesFilename(nullptr);
  ParseSessionDaemonOptions(0, nullptr);
}

}  // namespace
