#include "tests/support/session_directory.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

TestSessionDirectory::TestSessionDirectory() {
  char pattern[] = "/tmp/vlt-test-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return;
  path = pattern;
  const struct {
    const char* variable;
    const char* folder;
  } rows[] = {
      {"XDG_RUNTIME_DIR", "run"}, {"XDG_CONFIG_HOME", "config"}, {"XDG_CONFIG_DIRS", "etc"},
      {"XDG_DATA_HOME", "data"},  {"XDG_DATA_DIRS", "share"},    {"HOME", "home"},
  };
  for (const auto& row : rows) {
    const std::string folder = path + "/" + row.folder;
    mkdir(folder.c_str(), 0700);
    setenv(row.variable, folder.c_str(), 1);
  }
  setenv("VLTHOST_LOG", (path + "/log").c_str(), 1);
  setenv("VLTHOST_NOTICES", (path + "/notices").c_str(), 1);
}

TestSessionDirectory::~TestSessionDirectory() {
  std::error_code ignored;
  if (!path.empty()) std::filesystem::remove_all(path, ignored);
}

std::string TestLogText() {
  const char* path = getenv("VLTHOST_LOG");
  std::ifstream file(path != nullptr ? path : "");
  return std::string(std::istreambuf_iterator<char>(file), {});
}

void ClearTestLog() {
  const char* path = getenv("VLTHOST_LOG");
  if (path != nullptr) truncate(path, 0);
}
