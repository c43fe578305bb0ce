#pragma once

#include <string>
#include <vector>

// The installations that this process belongs to: where it looks for what was installed with it.

// Returns the prefixes as absolute paths without a slash at the end, each once: that of the running
// program, if it is in bin, in libexec/veltrane or in an application of share/veltrane, and that of
// the headers that it was compiled with. Programs that run with raised privileges get only the
// second, because others may have linked the program to a folder of theirs. Any thread.
std::vector<std::string> HostInstallPrefixes();

// The prefix of an installed program or header, given its path; "" if the path is not that of one.
std::string HostPrefixOfProgram(const std::string& path);
std::string HostPrefixOfHeader(const std::string& path);
