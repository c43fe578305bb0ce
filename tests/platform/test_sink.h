#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

// TestSink is a file that one of the host layer's sink variables names while the object lives, and
// what was written to it.
class TestSink {
 public:
  explicit TestSink(const char* variableName) : variable(variableName) {
    close(mkstemp(path));
    setenv(variable, path, 1);
  }
  ~TestSink() {
    unsetenv(variable);
    unlink(path);
  }
  TestSink(const TestSink&) = delete;
  TestSink& operator=(const TestSink&) = delete;

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
  }

 private:
  const char* variable;
  char path[32] = "/tmp/vlt-sink-XXXXXX";
};
