#include <gtest/gtest.h>

#include <cerrno>

#include "util/app_exception.h"
#include "util/cf_strings.h"
#include "util/errno_status.h"
#include "util/first_error.h"

TEST(CFStrings, TextsAreReadAsMacRoman) {
  const unsigned char pascal[] = {2, 'e', 0x8E, 'x'}, empty[] = {0, 'x'};
  CFStringRef fromC = CStringToCFString("e\x8E");
  CFStringRef fromP = PStringToCFString(pascal);
  CFStringRef fromEmpty = CStringToCFString("");
  EXPECT_EQ(0xE9, CFStringGetCharacterAtIndex(fromC, 1));
  EXPECT_TRUE(CFEqual(fromC, fromP));
  EXPECT_EQ(1, CFGetRetainCount(fromC));
  EXPECT_NE(nullptr, fromEmpty);
  EXPECT_EQ(0, CFStringGetLength(fromEmpty));
  // Meant: null, unlike for an empty C string, because callers rely on it.
  EXPECT_EQ(nullptr, PStringToCFString(empty));
  EXPECT_EQ(nullptr, PStringToCFString(nullptr));
  for (CFStringRef string : {fromC, fromP, fromEmpty}) CFRelease(string);
}

TEST(ErrnoStatus, IsTheValueItselfAndNever0) {
  EXPECT_EQ(EDEADLK, ErrnoToOSStatus(EDEADLK));
  EXPECT_EQ(0xC000, ErrnoToOSStatus(0));
}

TEST(Statuses, TheFirstFailureStays) {
  static_assert(FirstError(0, 0) == 0 && FirstError(0, -2) == -2);
  static_assert(FirstError(-1, -2) == -1 && FirstError(-1, 0) == -1);
  try {
    throw VLTAppException(-4960);
  } catch (const std::exception& caught) {
    EXPECT_EQ(-4960, dynamic_cast<const VLTAppException&>(caught).Status());
  }
}
