#pragma once

#include <string>
#include <vector>

// Runs the tool on the words after its name and returns the exit status. Results go to standard
// output, messages to standard error.
int RunTool(const std::vector<std::string>& words);
