#pragma once

#include <CoreServices/MacTypes.h>

// The room of services: small platform calls that need nothing but the base. Here: where the facts
// about the login session come from, for tools, benchmarks and tests only. Any thread.

// The caller's login session and the sources of its facts, as texts for people.
struct HostSession {
  bool isKnown = true;  // false: it cannot be read now; the id is 0
  UInt32 id = 0;
  UInt32 attributes = 0;           // bits as SessionGetInfo gives them
  const char* idSource = "";       // a variable's name, "audit session" or "user id"
  const char* rootSource = "";     // a variable's name, or what decided it
  const char* graphicSource = "";  // likewise
};
HostSession HostDescribeOwnSession();
