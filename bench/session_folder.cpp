#include "bench/session_folder.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

BenchSessionFolder::BenchSessionFolder()
    : path("/tmp/vlt-bench-XXXXXX"), memoryPath("/dev/shm/vlt-bench-XXXXXX") {
  if (mkdtemp(path.data()) == nullptr) path.clear();
  if (mkdtemp(memoryPath.data()) == nullptr) memoryPath.clear();
  if (path.empty()) return;
  for (const char* name : {"XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"}) {
    const std::string folder = path + "/" + name;
    mkdir(folder.c_str(), 0700);
    setenv(name, folder.c_str(), 1);
  }
  if (!memoryPath.empty()) setenv("XDG_RUNTIME_DIR", memoryPath.c_str(), 1);
  setenv("VLTHOST_LOG", (path + "/log").c_str(), 1);
}

BenchSessionFolder::~BenchSessionFolder() {
  std::error_code ignored;
  for (const std::string& folder : {path, memoryPath}) {
    if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
  }
}

bool BenchSessionFolder::LogIsEmpty() const {
  std::ifstream log(path + "/log");
  std::string line;
  bool isEmpty = true;
  for (; std::getline(log, line); isEmpty = false) std::fprintf(stderr, "log: %s\n", line.c_str());
  return isEmpty;
}
