#pragma once

#include <CoreServices/CoreServices.h>

// Copies of parameters whose size the caller does not know: into a block of the caller's kind of
// memory, or into a handle. Any thread; the event, borrowed, by one at a time.

// Gives a block of `size` bytes, or null.
using AEPtrAllocator = char* (*)(SInt32 size);

// A block from `allocator`, or from NewPtr without one, for the caller to free the same way. Sizes
// below 1 count as 1. memFullErr, with `block` null, when there is none.
OSStatus CallAEPtrAllocator(AEPtrAllocator allocator, void*& block, SInt32 size);

// Copies one parameter's bytes into a new block.
//
// desiredType  coerced to; typeWildCard and typeBest take the parameter as it is.
// data         the block, from CallAEPtrAllocator, or null. It is the caller's whenever it is not
//              null, also after a failure.
// size         null, or the bytes that the block is meant for: 0 without a block.
// actualType   null, or the parameter's own type, before any coercion; typeNull when there is no
//              such parameter. Null also means that a coercion is not welcome: the result is then
//              errAECoercionFail, and yet `data` and `size` are the coerced value.
// allocator    null for NewPtr.
// Result       0, errAEDescNotFound, errAECoercionFail, memFullErr, errAEWrongDataType (a coercion
//              to a list, which has no bytes), errAENotAEDesc.
OSStatus AECopyParamData(const AEDesc* event, AEKeyword key, DescType desiredType, void*& data,
                         SInt32* size, DescType* actualType, AEPtrAllocator allocator);

// The same into `handle`, which takes the size of what is copied, and size 0 after every failure:
// without `actualType` a coerced value is lost. The handle is unlocked afterwards. Further results:
// nilHandleErr, memWZErr; memFullErr also for a locked handle that would have to move.
OSStatus AECopyParamDataToHandle(const AEDesc* event, AEKeyword key, DescType desiredType,
                                 Handle handle, DescType* actualType);
