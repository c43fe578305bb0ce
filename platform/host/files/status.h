#pragma once

#include <CoreServices/MacErrors.h>

// The File Manager's status for an errno value; ioErr for what has none. Pure.
OSErr HostFileStatus(int error);
