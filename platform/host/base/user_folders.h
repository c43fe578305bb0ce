#pragma once

#include <string>
#include <vector>

// The folders for data of the user and of the machine, as the environment names them. A relative
// path counts as not set, and programs with raised privileges get the defaults. The functions
// return absolute paths without a slash at the end. Any thread, as long as no other one changes the
// environment.

std::string HostHomeFolder();   // HOME, else from the password database, else ""
std::string HostDataFolder();   // XDG_DATA_HOME, else .local/share in the home folder, else ""
std::string HostStateFolder();  // XDG_STATE_HOME, else .local/state in the home folder, else ""
// XDG_DATA_DIRS, else /usr/local/share and /usr/share.
std::vector<std::string> HostSharedDataFolders();

// Returns the value of a variable if it is an absolute path, else "".
std::string HostFolderVariable(const char* name);
