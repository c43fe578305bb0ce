#pragma once

#include <CoreServices/MacErrors.h>

// Returns the File Manager's status for an errno value, ioErr for one that has none. Any thread.
OSErr HostFileStatus(int error);
