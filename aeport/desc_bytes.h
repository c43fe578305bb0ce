#pragma once

#include <CoreServices/CoreServices.h>

// Copies the bytes of a value, optionally after coercing it, from a given offset on into the
// caller's buffer. Any thread; only one thread at a time may use a descriptor.
//
// Result  the number of bytes copied, or a negative error. 0 if the offset is the end of the value
//         or the buffer has no room. A null buffer copies nothing.

// Lists and records have no bytes.
//
// offset    bytes to skip; a negative offset counts from the end of the value.
// fullSize  null, or receives the size of the whole value, even if the call then fails.
// Result    with a null buffer, the number of bytes that would have been copied. paramErr for a
//           negative buffer size or an offset outside the value; memFullErr.
SInt32 AECopyDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, SInt32* fullSize,
                       SInt32 offset);

// Coerces the source to `target` first. If that fails, returns its error and leaves `fullSize`
// alone.
SInt32 AECoerceDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, DescType target,
                         SInt32* fullSize, SInt32 offset);

// Copies from the `size` bytes of `data`, which are a value of `type`. If `target` is another type,
// coerces the value to it first, as above. Returns paramErr for a negative size and for null data
// with a size other than 0. If both types are the same, also returns paramErr for a negative
// offset, and 0 if nothing is copied: the offset is beyond the data, or the buffer is null or has
// no room.
SInt32 AECoercePtrToPtr(DescType type, const void* data, SInt32 size, DescType target, void* buffer,
                        SInt32 bufferSize, SInt32* fullSize, SInt32 offset);
