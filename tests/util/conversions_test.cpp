#include <gtest/gtest.h>

#include <cerrno>

#include "util/app_exception.h"
#include "util/cf_strings.h"
#include "util/errno_status.h"
#include "util/file_utils.h"
#include "util/first_error.h"
#include "util/handle_utils.h"

TEST(CFStrings, MacRomanBothWays) {
  const unsigned char pascal[] = {2, 'e', 0x8E, 'x'}, empty[] = {0, 'x'};
  CFStringRef fromC = CStringToCFString("e\x8E");
  CFStringRef fromP = PStringToCFString(pascal);
  CFStringRef fromEmpty = CStringToCFString("");
  EXPECT_EQ(0xE9, CFStringGetCharacterAtIndex(fromC, 1));
  EXPECT_TRUE(CFEqual(fromC, fromP));
  EXPECT_EQ(1, CFGetRetainCount(fromC));
  EXPECT_NE(nullptr, fromEmpty);
  EXPECT_EQ(0, CFStringGetLength(fromEmpty));
  EXPECT_EQ(nullptr, PStringToCFString(empty));  // meant: unlike the empty C string
  EXPECT_EQ(nullptr, CStringToCFString(nullptr));
  EXPECT_EQ(nullptr, PStringToCFString(nullptr));
  for (CFStringRef string : {fromC, fromP, fromEmpty}) CFRelease(string);
}

TEST(ErrnoStatus, IsTheValueItselfAndNeverASuccess) {
  EXPECT_EQ(ENOENT, ErrnoToOSStatus(ENOENT));
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

TEST(Handles, ResizingTellsItsResult) {
  EXPECT_EQ(nilHandleErr, NFSetHandleSize(nullptr, 4));
  Handle handle = NewHandle(4);
  EXPECT_EQ(0, NFSetHandleSize(handle, 8));
  EXPECT_EQ(8, GetHandleSize(handle));
  EXPECT_EQ(memFullErr, NFSetHandleSize(handle, -1));
  DisposeHandle(handle);
  EXPECT_EQ(memWZErr, NFSetHandleSize(handle, 4));
}

TEST(Processes, NumbersToStartFrom) {
  ProcessSerialNumber psn = {7, 7}, own = {};
  Boolean same = true;
  FirstPSN(&psn);
  EXPECT_EQ(0u, psn.highLongOfPSN);
  EXPECT_EQ(0u, psn.lowLongOfPSN);
  EXPECT_EQ(0, GetCurrentPSN(&own));
  EXPECT_EQ(0, SameProcess(&psn, &own, &same));
  EXPECT_FALSE(same);
}
