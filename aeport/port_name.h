#pragma once

#include <CoreServices/CoreServices.h>

// The port names of the package's processes. Any thread.

// The size of a buffer for a port name of up to 127 bytes and its NUL.
constexpr int kVLTPortNameSize = 128;

// Composes baseName[.suffix][.serial number][.instance] in `outName`, a buffer of `outSize` bytes.
//
// perProcess  appends this process's serial number as 16 lower-case hexadecimal digits. Meant: the
//             low word comes first, because other processes compose the same name.
// suffix      omitted if null or empty.
// instance    omitted if negative.
// Result      0; paramErr for a null or empty base name, a null `outName`, or a name that does not
//             fit or has more than 255 characters; or the error of getting the serial number.
//             `outName` is written on success only.
OSStatus VLTAEMakePortName(char* outName, UInt32 outSize, const char* baseName, bool perProcess,
                           const char* suffix, int instance);
