#pragma once

#include "platform/host/events/decode.h"
#include "platform/host/events/flatten.h"

// The flattened form of an Apple Event: what follows the frame header on the wire. All numbers are
// big-endian; docs/protocol.md has the byte table. Threads: see the two headers above.

// Deepest nesting of lists and records, the event's own parameters counting as level 1.
inline constexpr int kHostNestingLimit = 64;
