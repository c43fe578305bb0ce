#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/scratch_folder.h"

// TestSink is a file for one of the host layer's sink variables while the object lives. Lines
// returns its contents.
class TestSink {
 public:
  explicit TestSink(const char* name) : variable(name, folder.Path("sink").c_str()) {}

  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream text(ReadFile(folder.Path("sink")));
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
  }

 private:
  const ScratchFolder folder;
  const ScopedVariable variable;
};
