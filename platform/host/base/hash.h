#pragma once

#include <CoreServices/MacTypes.h>

#include <cstddef>

// Hashes for tables whose keys may be chosen by somebody else: keyed with random bytes of this
// process, so that nobody outside can tell which keys collide, and not the same in two processes.
// Any thread.

UInt32 HostHashBytes(const void* bytes, size_t count);
UInt32 HostHashWord(UInt64 word);  // for words that are not hostile
