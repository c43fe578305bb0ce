#pragma once

#include <CoreServices/CoreServices.h>

// Coerces descriptors or plain bytes to a wanted type, or to the first of several types that works.
// Any thread; only one thread at a time may use a descriptor.
//
// The destination must be a valid or a null descriptor: it is disposed of before it is written, and
// then belongs to the caller. A failure leaves it unchanged, except that a source that cannot be
// copied leaves the null descriptor. Source and destination may be the same.
//
// The targets typeWildCard and typeBest copy the source as it is.

// Chooses the type of a list of `count` types that suits `type`. typeWildCard gives `wildType` and
// typeBest gives `bestType`, unless the list begins with that code. Any other type gives itself if
// it is in the list, else 0. An empty or null list gives 0.
DescType OSTypeInList(DescType type, const DescType* list, SInt32 count, DescType wildType,
                      DescType bestType);

// Coerces `source` to `target`. A value without a direct coercion to a Pascal, C, encoded or
// Unicode text is coerced to typeChar first. Result  0, errAECoercionFail, errAENotAEDesc,
// memFullErr.
OSStatus AECoerceDescToType(const AEDesc& source, DescType target, AEDesc& destination);

// Tries the type that OSTypeInList gives for the source's type, then each entry of the list in
// order, with `wildType` for typeWildCard and `bestType` for typeBest. Returns 0 after the first
// success, otherwise the result of the last attempt, or errAECoercionFail if the list is empty.
OSStatus AECoerceDescToTypeList(const AEDesc& source, AEDesc& destination, const DescType* list,
                                SInt32 count, DescType wildType, DescType bestType);

// Make or coerce a descriptor from `size` bytes of `type`, which are copied. Other results:
// paramErr (negative size, no data), errAEWrongDataType (the type of a list, record or event).
OSStatus AECopyPtrToDesc(DescType type, const void* data, SInt32 size, AEDesc& destination);
OSStatus AECoercePtrToDesc(DescType type, const void* data, SInt32 size, DescType target,
                           AEDesc& destination);
OSStatus AECoercePtrToTypeList(DescType type, const void* data, SInt32 size, AEDesc& destination,
                               const DescType* list, SInt32 count, DescType wildType,
                               DescType bestType);
