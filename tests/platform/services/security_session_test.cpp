#include <Security/Security.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>

#include "tests/support/few_descriptors.h"
#include "tests/support/permissions.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_process.h"
#include "tests/support/test_role.h"

namespace {

std::string OwnSession() {
  SecuritySessionId id = 0;
  SessionAttributeBits bits = 0;
  const OSStatus err = SessionGetInfo(callerSecuritySession, &id, &bits);
  return std::to_string(err) + " " + std::to_string(id) + " " +
         std::to_string(bits & sessionIsRoot);
}

// Reports its session without file descriptors, with them, and without them again. The file in its
// argument has the login session.
TEST_ROLE(LoggedIn) {
  unsetenv("VLTHOST_SESSION_ID");
  unsetenv("VLTHOST_SESSION_BITS");
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount(role.Argument(0).c_str(), "/proc/self/sessionid", nullptr, MS_BIND, nullptr) != 0) {
    return RoleFailed();
  }
  for (const bool isShort : {true, false, true}) {
    std::string session;
    if (isShort) {
      const FewDescriptors none(0);
      session = OwnSession();
    } else {
      session = OwnSession();
    }
    role.Tell(session);
  }
  return kRoleDone;
}

TEST(SecuritySession, ALackOfFileDescriptorsIsNotTakenForNoLogin) {
  SKIP_IF(NoMounts());
  const ScratchFolder folder;
  TestProcess process("LoggedIn", {folder.File("sessionid", "4711")});
  EXPECT_EQ(std::to_string(errSessionInternal) + " 0 0", process.Hear(20s));
  EXPECT_EQ("0 4711 0", process.Hear(20s));
  EXPECT_EQ("0 4711 0", process.Hear(20s));
  EXPECT_EQ(kRoleDone, process.Wait(20s));
}

}  // namespace
