#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "platform/host/applications/introspect.h"
#include "tools/values/json_value.h"

// Finding the application that a person names on the command line. One thread.

// One way of finding an application, and its result.
struct Way {
  const char* name;  // path, identifier or signature
  bool found = false;
  std::string text;  // for people
};

struct Search {
  std::vector<Way> ways;  // those that were tried
  FSRef application = {};
  std::string path;
  std::string folder;  // the application folder that contains it; "" if found by its path
  std::vector<std::string> broken;  // bundles that were passed over, each with the reason

  bool Found() const { return !ways.empty() && ways.back().found; }
};

// Tries the ways in the launcher's order; the first that finds an application ends the search. Only
// a word with a slash is a path, so that a file of that name in the working folder is never run by
// accident.
Search FindApplication(const std::string& word);

// The same by one identifier, or by one signature.
Way FindByIdentifier(const std::string& identifier, Search& search);
Way FindBySignature(OSType signature, Search& search);

// The description of what was found, with its program and problem. An empty path without one.
HostApplicationInfo FoundApplication(const Search& search);

// Lines for people: each way and its result, then the broken bundles.
void PrintSearch(const Search& search);
JsonValue SearchModel(const Search& search);  // an array of the ways
JsonValue BrokenModel(const Search& search);  // an array of the texts

// Returns the path that a file reference leads to, "" if there is none.
std::string PathOf(const FSRef& ref);

// Adds bytes, or null if they are empty.
void AddBytesOrNull(JsonValue& object, const char* name, const std::string& bytes);
