#pragma once

#include <CoreServices/Files.h>

// Aliases are symbolic links. Any thread.

#pragma GCC visibility push(default)
extern "C" {

// Replaces `spec` by what the alias file it names stands for: one step, or to the end of the chain.
// What is no alias stays as it is, with `wasAliased` false. fnfErr with `spec` naming the place
// when a target is missing in a folder that is there; dirNFErr when that folder is missing; fnfErr
// with `spec` unchanged when the file itself is missing or the chain has more than 40 links. All
// pointers must be given.
OSErr ResolveAliasFile(FSSpec* spec, Boolean resolveAliasChains, Boolean* targetIsFolder,
                       Boolean* wasAliased);

}  // extern "C"
#pragma GCC visibility pop
