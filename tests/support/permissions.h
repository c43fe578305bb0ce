#pragma once

#include <string>

// What some tests need beyond the rights of an ordinary user. Each function tries it in a child
// process and returns why the system refuses, or "" if it does not. A test that needs it begins
// with
//
//   SKIP_IF(NoMounts());
//
// Programs that run on one thread so far.

// Mounts in a mount namespace of the process's own.
std::string NoMounts();
// Acting as another user, and files of other users. User 0 may.
std::string NoOtherUsers();

// Skips the test, or all tests of a fixture whose SetUp it is in, for a reason that is not "".
#define SKIP_IF(reason) \
  if (const std::string refusal = (reason); !refusal.empty()) GTEST_SKIP() << refusal

// Gives up this process's right to use files without regard to their modes, so that they mean for
// user 0 what they mean for others. Returns false if the kernel refuses.
bool ObeyFileModes();
