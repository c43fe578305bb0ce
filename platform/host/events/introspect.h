#pragma once

#include <CoreServices/MacTypes.h>

#include <vector>

struct AEDesc;

// Lists what no platform call lists of an event. For tools, benchmarks and tests only. Any thread.

// Returns the keywords of all attributes that an event has, the predefined ones first. Empty if
// `event` is not an event.
std::vector<FourCharCode> HostAttributeKeys(const AEDesc* event);
