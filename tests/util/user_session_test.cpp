#include "util/user_session.h"

#include <Security/Security.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <string>

#include "tests/support/scratch_folder.h"

namespace {

constexpr uid_t kOther = 12345;

TEST(UserSession, GivesThePlatformsIdAndAttributes) {
  const ScopedVariable id("VLTHOST_SESSION_ID", "77"), bits("VLTHOST_SESSION_BITS", "0xFFEE");
  UInt32 session = 0, flags = 0;
  bool isRoot = true, hasGraphicAccess = true;
  EXPECT_EQ(noErr, GetUserSessionID(session));
  EXPECT_EQ(77u, session);
  EXPECT_EQ(noErr, GetUserSessionFlags(flags));
  EXPECT_EQ(0xFFEEu, flags);
  EXPECT_EQ(noErr, GetUserSessionIsRoot(isRoot));
  EXPECT_EQ(noErr, GetUserSessionHasGraphicAccess(hasGraphicAccess));
  EXPECT_FALSE(isRoot || hasGraphicAccess);
  const ScopedVariable both("VLTHOST_SESSION_BITS", "0x11");
  EXPECT_EQ(noErr, GetUserSessionIsRoot(isRoot));
  EXPECT_EQ(noErr, GetUserSessionHasGraphicAccess(hasGraphicAccess));
  EXPECT_TRUE(isRoot && hasGraphicAccess);
}

TEST(UserSession, ARefusedChangeByNumberIsReportedInTheFlags) {
  const uid_t own = geteuid();
  uid_t previous = 1;
  bool succeeded = false, changed = true;
  EXPECT_EQ(noErr, SetUserID(own, previous, succeeded, changed));
  EXPECT_EQ(own, previous);
  EXPECT_TRUE(succeeded);
  EXPECT_FALSE(changed);
  // Only user 0 may change.
  EXPECT_EQ(noErr, SetUserID(kOther, previous, succeeded, changed));
  EXPECT_EQ(own, previous);
  EXPECT_TRUE(changed);
  EXPECT_EQ(own == 0, succeeded);
  EXPECT_EQ(own == 0 ? kOther : own, geteuid());
  if (own == 0) {
    // The change to a third user is refused.
    EXPECT_EQ(noErr, SetUserID(kOther + 1, previous, succeeded, changed));
    EXPECT_TRUE(changed);
    EXPECT_FALSE(succeeded);
    EXPECT_EQ(noErr, SetUserID(static_cast<uid_t>(0), previous, succeeded, changed));
    EXPECT_EQ(kOther, previous);
  }
  EXPECT_EQ(own, geteuid());
}

TEST(UserSession, AnUnknownUserNameChangesNothing) {
  uid_t previous = 1;
  bool succeeded = true, changed = true;
  EXPECT_EQ(paramErr, SetUserID("", previous, succeeded, changed));
  EXPECT_EQ(paramErr, SetUserID(nullptr, previous, succeeded, changed));
  EXPECT_EQ(1u, previous);
  EXPECT_EQ(noErr, SetUserID("vlt-no-such-user", previous, succeeded, changed));
  EXPECT_EQ(geteuid(), previous);
  EXPECT_FALSE(succeeded || changed);
  const passwd* own = getpwuid(geteuid());
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(noErr, SetUserID(std::string(own->pw_name).c_str(), previous, succeeded, changed));
  EXPECT_TRUE(succeeded && !changed);
}

TEST(UserSession, TheNameIsTheRealUsersAndFitsWithItsTerminator) {
  const passwd* real = getpwuid(getuid());
  ASSERT_NE(nullptr, real);
  const std::string name = real->pw_name;
  const auto size = static_cast<UInt32>(name.size());
  const StUseridSetter other(kOther);  // changes nothing unless this is user 0
  std::string buffer(size + 2, '#');
  EXPECT_EQ(paramErr, GetCurrentUserName(nullptr, size + 1));
  EXPECT_EQ(paramErr, GetCurrentUserName(buffer.data(), 0));
  EXPECT_EQ(paramErr, GetCurrentUserName(buffer.data(), size));
  EXPECT_EQ(std::string(size + 2, '#'), buffer);
  EXPECT_EQ(noErr, GetCurrentUserName(buffer.data(), size + 1));
  EXPECT_EQ(name + '\0' + '#', buffer);
}

TEST(UserSession, ASetterGoesBackWhenItHasChangedAnything) {
  const uid_t own = geteuid();
  {
    const StUseridSetter setter(kOther);
    EXPECT_EQ(own == 0 ? kOther : own, geteuid());
    const StUseridSetter refused(kOther + 1);
    EXPECT_EQ(own == 0 ? kOther : own, geteuid());
  }
  EXPECT_EQ(own, geteuid());
}

}  // namespace
