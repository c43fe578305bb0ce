#pragma once

#include <CoreServices/CoreServices.h>

// Copies parameters whose size the caller does not know, into a block from the caller's allocator
// or into a handle. Any thread; only one thread at a time may use the event, which is borrowed.

// Returns a block of `size` bytes, or null if there is no memory.
using AEPtrAllocator = char* (*)(SInt32 size);

// Allocates a block with `allocator`, or with NewPtr if that is null. The caller frees it in the
// same way. A size below 1 counts as 1. Returns memFullErr, with `block` null, without memory.
OSStatus CallAEPtrAllocator(AEPtrAllocator allocator, void*& block, SInt32 size);

// Copies one parameter's bytes into a new block.
//
// desiredType  the type to coerce to; typeWildCard and typeBest copy the parameter as it is.
// data         receives the block, from CallAEPtrAllocator, or null. A block that is not null
//              belongs to the caller, even after a failure.
// size         null, or receives the number of bytes in the block; 0 without a block.
// actualType   null, or receives the parameter's type before any coercion; typeNull if there is no
//              such parameter. Meant: if it is null and the value had to be coerced, the result is
//              errAECoercionFail although `data` and `size` hold the coerced value, because callers
//              rely on it.
// allocator    null for NewPtr.
// Result       0, errAEDescNotFound, errAECoercionFail, memFullErr, errAEWrongDataType (a coercion
//              to a list, which has no bytes), errAENotAEDesc.
OSStatus AECopyParamData(const AEDesc* event, AEKeyword key, DescType desiredType, void*& data,
                         SInt32* size, DescType* actualType, AEPtrAllocator allocator);

// Copies into `handle` instead and sets its size to that of the copy, or to 0 after any failure: if
// `actualType` is null, a coerced value is lost. Unlocks the handle. Other results: nilHandleErr,
// memWZErr, and memFullErr if a locked handle would have to move.
OSStatus AECopyParamDataToHandle(const AEDesc* event, AEKeyword key, DescType desiredType,
                                 Handle handle, DescType* actualType);
