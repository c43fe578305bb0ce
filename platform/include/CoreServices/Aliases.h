#pragma once

#include <CoreServices/Files.h>

// Aliases are symbolic links. Any thread.

#pragma GCC visibility push(default)
extern "C" {

// If `spec` is that of an alias file, replaces it by the file spec of the target: after one step,
// or at the end of the chain. Otherwise leaves it as it is and sets `wasAliased` to false. If a
// target is missing in an existing folder, returns fnfErr and stores the missing item in `spec`; if
// that folder is missing, returns dirNFErr. If the file itself is missing or the chain has more
// than 40 links, returns fnfErr and leaves `spec` unchanged. No pointer may be null. Any thread.
OSErr ResolveAliasFile(FSSpec* spec, Boolean resolveAliasChains, Boolean* targetIsFolder,
                       Boolean* wasAliased);

}  // extern "C"
#pragma GCC visibility pop
