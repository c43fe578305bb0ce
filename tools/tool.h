#pragma once

#include <string>
#include <vector>

// Runs the tool with the arguments after its name and returns the exit status. Results go to
// standard output, messages to standard error. One thread.
int RunTool(const std::vector<std::string>& words);
