#pragma once

#include <CoreServices/CoreServices.h>

// Names under which the processes of the package are reached. Any thread.

// Room for a service name and its terminator.
constexpr int kVLTPortNameSize = 128;

// Composes baseName[.suffix][.serial number][.instance] into `outName`, which has room for
// `outSize` bytes, the terminator included.
//
// perProcess  appends this process's serial number: 16 lower-case hexadecimal digits, low word
//             first.
// suffix      left out when null or empty.
// instance    left out when negative.
// Result      0; paramErr for a null or empty base name, a null `outName`, or a name that does not
//             fit (never more than 255 characters); the error of asking for the serial number.
//             `outName` is written on success only.
OSStatus VLTAEMakePortName(char* outName, UInt32 outSize, const char* baseName, bool perProcess,
                           const char* suffix, int instance);
