#pragma once

#include <string>
#include <vector>

// Where the user and the machine keep data, as the environment tells. Relative values count as not
// set; programs that run with raised privileges get the defaults. Absolute paths without a slash at
// their end. Any thread that does not race with changes of the environment.

std::string HostHomeFolder();  // HOME, else the password database; "" when neither tells
std::string HostDataFolder();  // XDG_DATA_HOME, else .local/share in the home folder; "" without
// XDG_DATA_DIRS, else /usr/local/share and /usr/share.
std::vector<std::string> HostSharedDataFolders();

// The value of a variable that holds an absolute path, "" otherwise.
std::string HostFolderVariable(const char* name);
