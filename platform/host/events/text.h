#pragma once

#include <CoreServices/AEDataModel.h>

#include <cstddef>
#include <vector>

#include "platform/host/events/value.h"

// Converts text of every descriptor type for text: TEXT, utxt, ut16, utf8, itxt, STXT. A conversion
// fails as a whole if bytes are not well formed or a character has no form in the target. Pure
// functions, any thread.

bool HostIsTextType(DescType type);

// Converts to Mac Roman. Returns false if the item is not text or has no such form.
bool HostTextToMacRoman(const HostAEItem& item, std::vector<UInt8>* out);

// Make `*out` a new item of a text type, from an item of another or from Mac Roman bytes.
// Return 0, errAECoercionFail or memFullErr; except for 0, `*out` is a null value.
OSStatus HostTextToText(const HostAEItem& from, DescType toType, HostAEItem* out);
OSStatus HostTextFromMacRoman(const void* bytes, size_t size, DescType toType, HostAEItem* out);
