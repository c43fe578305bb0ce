#pragma once

#include <string>
#include <vector>

// Explains to people why no process owns a port name.

// Returns up to three of `names` that are most like `name`: those in which it occurs, or that
// differ in few characters. Pure function.
std::vector<std::string> NamesLike(const std::string& name, const std::vector<std::string>& names);

// Returns lines for people: published names that are like `name`, the session directory in which it
// was looked for and where its path comes from, and other session directories of this user, which
// exist after su or sudo. One thread.
std::vector<std::string> WhyNobodyOwns(const std::string& name);
