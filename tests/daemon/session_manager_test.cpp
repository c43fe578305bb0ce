#include "daemon/session_manager.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/session_monitor.h"

namespace {

// Makes protected members visible.
class OpenManager : public SessionManager {
 public:
  static const char* LoadName(const SessionManager& manager) {
    return manager.*(&OpenManager::loadPreferencesFilename);
  }
  static const char* SaveName(const SessionManager& manager) {
    return manager.*(&OpenManager::savePreferencesFilename);
  }
};

std::string TextOf(const char* text) { return text != nullptr ? text : "(none)"; }

TEST(SessionDaemonOptions, FileNamesAreTakenWholeAndTheLastWins) {
  const struct {
    std::vector<std::string> words;
    const char *load, *save;
  } rows[] = {
      {{"-lp"}, "(none)", "(none)"},  // ignored without a value
      {{"-loadPrefs", "a", "-lp", "b", "-savePrefs", "c"}, "b", "c"},
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
}

}  // namespace
