#pragma once

#include <CoreServices/MacTypes.h>

#include <cstddef>

// Hashes for tables whose keys may come from outside. They depend on random bytes of this process,
// so other processes cannot choose keys that collide; two processes get different hashes for the
// same key. Any thread.

UInt32 HostHashBytes(const void* bytes, size_t count);
UInt32 HostHashWord(UInt64 word);  // for words that other processes cannot choose
