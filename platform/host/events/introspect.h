#pragma once

#include <CoreServices/MacTypes.h>

#include <vector>

struct AEDesc;

// What an event holds that no documented call lists, for tools, benchmarks and tests only.
// Any thread.

// The keywords of all attributes that an event has, those with a meaning of their own first. Empty
// for what is no event. (AEGetAttributeDesc reads one, but nothing documented lists them.)
std::vector<FourCharCode> HostAttributeKeys(const AEDesc* event);
