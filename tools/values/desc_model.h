#pragma once

#include <CoreServices/CoreServices.h>

#include "tools/values/json_value.h"

// Descriptors as values to print, complete: what can be read can be told back to the byte. Each is
// an object with "type" (the code as CodeText writes it) and, by type,
//   value    a bool, a number, a code; integers beyond +-(2^53 - 1), NaN and infinities as strings
//   values   the same as an array, where the value is none or several numbers
//   high, low  the words of a process serial number
//   text     text, of whatever encoding
//   items    of a list: descriptors in order
//   fields   of a record: descriptors by keyword
//   attributes, parameters  of an event: descriptors by keyword
//   hex      all bytes, numbers most significant byte first. Left out where the members above say
//            it all and the type has a name on the command line.
// The functions borrow the descriptor; one descriptor by one thread at a time. They throw when
// memory ends.

JsonValue DescModel(const AEDesc& desc);

// By keyword. Null when there is no event or record.
JsonValue ParametersModel(const AEDesc& event);
JsonValue AttributesModel(const AEDesc& event);
