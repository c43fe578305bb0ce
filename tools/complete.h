#pragma once

#include <string>
#include <vector>

// Completes command lines for the shells. The shells' scripts that call it are in
// packaging/completion/.

// Prints what the last of `words`, the arguments after the tool's name up to the cursor, may
// become: one candidate on each line, with a tab and a description if it has one. The line ":files"
// stands for names of files. Returns the exit status. One thread.
int CompleteWords(const std::vector<std::string>& words);
