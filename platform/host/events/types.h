#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <cstdint>

// The properties of type codes. Pure functions, any thread.

// Returns whether a code means a value with a documented layout. No record can have such a code.
bool HostIsValueType(DescType type);

// Bytes of one number of a type that consists of numbers, 1 for everything else.
size_t HostScalarWidth(DescType type);

// Copies a value's bytes from the CPU's byte order to big-endian, number by number, or back: both
// are the same operation. Copies without swapping if `size` is not a multiple of the type's width.
// `to` and `from` may be the same; otherwise they must not overlap.
void HostSwapValue(DescType type, void* to, const void* from, size_t size);
// Returns whether HostSwapValue changes nothing on this CPU.
bool HostSwapIsCopy(DescType type, size_t size);
