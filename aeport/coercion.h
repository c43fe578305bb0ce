#pragma once

#include <CoreServices/CoreServices.h>

// Descriptors of a wanted type, or of the first of several types that works, from other descriptors
// or from plain bytes. Any thread; one descriptor by one thread at a time.
//
// A destination that is written is disposed of first, so it must be a descriptor that was made or
// initialised to null; it is the caller's afterwards. It is unchanged on failure, but for a source
// that cannot be copied, which leaves the null descriptor. It may be the source itself.
//
// As a target, typeWildCard and typeBest take everything as it is.

// Which type of a list of `count` types suits `type`: the type itself when it is in the list;
// `wildType` for typeWildCard and `bestType` for typeBest, when the list's first entry is another;
// else 0, as for an empty or a null list.
DescType OSTypeInList(DescType type, const DescType* list, SInt32 count, DescType wildType,
                      DescType bestType);

// Coerces. What has no direct way to a Pascal, C, encoded or Unicode text goes by way of typeChar.
// Result  0, errAECoercionFail, errAENotAEDesc, memFullErr.
OSStatus AECoerceDescToType(const AEDesc& source, DescType target, AEDesc& destination);

// Tries the type that OSTypeInList finds for the source, then each entry in order, in which
// typeWildCard stands for `wildType` and typeBest for `bestType`. The first success ends the
// search, else the result is that of the last try; errAECoercionFail when there is nothing to try.
OSStatus AECoerceDescToTypeList(const AEDesc& source, AEDesc& destination, const DescType* list,
                                SInt32 count, DescType wildType, DescType bestType);

// The same from `size` bytes of `type`, which are copied. Further results: paramErr (negative size,
// no data), errAEWrongDataType (the type of a list, record or event).
OSStatus AECopyPtrToDesc(DescType type, const void* data, SInt32 size, AEDesc& destination);
OSStatus AECoercePtrToDesc(DescType type, const void* data, SInt32 size, DescType target,
                           AEDesc& destination);
OSStatus AECoercePtrToTypeList(DescType type, const void* data, SInt32 size, AEDesc& destination,
                               const DescType* list, SInt32 count, DescType wildType,
                               DescType bestType);
