#pragma once

#include <CoreServices/CoreServices.h>

// Bytes of values, coerced or not, from any place on, into a buffer of the caller's. Any thread;
// one descriptor by one thread at a time.
//
// Result  the number of bytes copied when positive, an error when negative. 0 when there is nothing
//         behind the offset or no room. A null buffer copies nothing.

// offset    bytes to skip; a negative one counts from the value's end.
// fullSize  null, or receives the bytes that the whole value has, before anything can fail.
// Result    paramErr for a negative buffer size and an offset outside the value; memFullErr. Lists
//           and records have no bytes. For a null buffer the bytes that would have been copied.
SInt32 AECopyDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, SInt32* fullSize,
                       SInt32 offset);

// The same of the value that the source is coerced to. When that fails, its error, and `fullSize`
// is not written.
SInt32 AECoerceDescToPtr(const AEDesc& source, void* buffer, SInt32 bufferSize, DescType target,
                         SInt32* fullSize, SInt32 offset);

// From `size` bytes of `type`. When the target is another type, as above. When it is the same, a
// negative offset is paramErr, and whatever else leaves nothing to copy gives 0: an offset behind
// the data, no room, no buffer. paramErr for a negative size, and for a null pointer with another
// size than 0.
SInt32 AECoercePtrToPtr(DescType type, const void* data, SInt32 size, DescType target, void* buffer,
                        SInt32 bufferSize, SInt32* fullSize, SInt32 offset);
