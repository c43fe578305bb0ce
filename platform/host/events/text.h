#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <vector>

#include "platform/host/events/value.h"

// Text of every descriptor type that is text: TEXT, utxt, ut16, utf8, itxt, STXT. Conversion is
// strict: bytes that are not well formed, or a character without a form in the target, fail the
// whole. Pure functions, any thread.

bool HostIsTextType(DescType type);

// The text in Mac Roman. False when the item is no text or has no such form.
bool HostTextToMacRoman(const HostAEItem& item, std::vector<UInt8>* out);

// Makes `*out` a new item of a text type, from an item of another or from Mac Roman bytes.
// Result  0; errAECoercionFail, memFullErr; `*out` is then a null value.
OSStatus HostTextToText(const HostAEItem& from, DescType toType, HostAEItem* out);
OSStatus HostTextFromMacRoman(const void* bytes, size_t size, DescType toType, HostAEItem* out);
