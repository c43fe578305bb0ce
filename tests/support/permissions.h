#pragma once

#include <string>

// Rights that some tests need beyond those of an ordinary user. Each function tries one in a child
// process and returns why the system refuses it, or "". A test that needs it begins with
//
//   SKIP_IF(NoMounts());
//
// Programs that run on one thread so far.

// Mounts in a mount namespace of the process's own.
std::string NoMounts();
// Acting as another user, and files of other users, as user 0 may.
std::string NoOtherUsers();

// Skips the test, or all tests of a fixture whose SetUp it is in, for a reason that is not "".
#define SKIP_IF(reason) \
  if (const std::string refusal = (reason); !refusal.empty()) GTEST_SKIP() << refusal

// Gives up this process's right to ignore the modes of files, which user 0 has. Returns false if
// the kernel refuses.
bool ObeyFileModes();
