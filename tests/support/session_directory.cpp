#include "tests/support/session_directory.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

TestSessionDirectory::TestSessionDirectory() {
  const std::pair<const char*, const char*> rows[] = {
      {"XDG_RUNTIME_DIR", "run"},  {"XDG_CONFIG_HOME", "config"}, {"XDG_CONFIG_DIRS", "etc"},
      {"XDG_DATA_HOME", "data"},   {"XDG_DATA_DIRS", "share"},    {"HOME", "home"},
      {"XDG_STATE_HOME", "state"},
  };
  for (const auto& [variable, name] : rows) {
    const std::string path = folder.Path(name);
    mkdir(path.c_str(), 0700);
    setenv(variable, path.c_str(), 1);
  }
  setenv("VLTHOST_LOG", folder.Path("log").c_str(), 1);
  setenv("VLTHOST_NOTICES", folder.Path("notices").c_str(), 1);
}

std::string TestLogText() { return ReadFile(getenv("VLTHOST_LOG")); }

void ClearTestLog() { truncate(getenv("VLTHOST_LOG"), 0); }
