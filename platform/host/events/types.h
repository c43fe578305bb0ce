#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <cstdint>

// What is known about type codes. Pure functions, any thread.

// True for a code that stands for a value of a documented layout: no record can bear it.
bool HostIsValueType(DescType type);

// Bytes of one number of a type that consists of numbers, 1 for everything else.
size_t HostScalarWidth(DescType type);

// Copies a value's bytes between the host's order and big-endian, number by number; the same
// call does either. Plain copy when `size` is no multiple of the type's width. `to` and `from` may
// be the same, else they must not overlap.
void HostSwapValue(DescType type, void* to, const void* from, size_t size);
// True when HostSwapValue would change nothing on this host.
bool HostSwapIsCopy(DescType type, size_t size);
