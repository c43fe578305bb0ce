#pragma once

#include <CoreServices/CoreServices.h>

// Files, folders and processes. Any thread.

// The serial number of this process; the platform's status.
OSErr GetCurrentPSN(ProcessSerialNumber* psn);

// The number that means no process, from which enumeration starts.
void FirstPSN(ProcessSerialNumber* psn);
