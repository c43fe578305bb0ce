#pragma once

#include <CoreServices/CoreServices.h>

#include "tools/values/json_value.h"

// Descriptors as JSON values from which all of their bytes can be restored. Each is an object with
// "type" (the code as CodeText writes it) and, depending on the type,
//   value    a bool, a number, a code; integers beyond +-(2^53 - 1), NaN and infinities as strings
//   values   an array of these, if the value is not exactly one number
//   high, low  the words of a process serial number
//   text     text of any encoding
//   items    of a list: descriptors in order
//   fields   of a record: descriptors by keyword
//   attributes, parameters  of an event: descriptors by keyword
//   hex      all bytes, the most significant byte of numbers first. Omitted if the members above
//            are enough to restore them and the type has a name on the command line.
// The functions borrow the descriptor, which only one thread at a time may use. They throw if
// memory runs out.

JsonValue DescModel(const AEDesc& desc);

// Objects with descriptors by keyword; null if `event` is not a record or event.
JsonValue ParametersModel(const AEDesc& event);
JsonValue AttributesModel(const AEDesc& event);
