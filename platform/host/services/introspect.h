#pragma once

#include <CoreServices/MacTypes.h>

// How the login session is known, for tools, benchmarks and tests only. Any thread.

// The caller's login session, and how that is known. The sources are texts for people.
struct HostSession {
  bool isKnown = true;  // false: it cannot be read now; the id is 0
  UInt32 id = 0;
  UInt32 attributes = 0;           // bits as SessionGetInfo gives them
  const char* idSource = "";       // a variable's name, "audit session" or "user id"
  const char* rootSource = "";     // a variable's name, or what decided it
  const char* graphicSource = "";  // likewise
};
HostSession HostDescribeOwnSession();
