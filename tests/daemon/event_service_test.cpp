#include "daemon/event_service.h"

#include <gtest/gtest.h>

#include <Carbon/Carbon.h>

#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"

namespace {

TEST(EventService, OpensAndClosesItsPortAndReportsThatItHadOne) {
  EXPECT_EQ(0, removeAEHandlers());
  EXPECT_FALSE(isAEHandlerRegistered());
  for (const char* name : {kSessionDaemonPortName, "", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(checkPortRegistered(name));
  }
  {
    OpenDescriptorCheck noLeaks;
    ASSERT_EQ(0, installAEHandlers());
    EXPECT_TRUE(isAEHandlerRegistered());
    EXPECT_TRUE(checkPortRegistered(kSessionDaemonPortName));
    EXPECT_EQ(errAEEventNotHandled, AskServed(kSessionDaemonPortName, kPing).status);
    EXPECT_EQ(0, removeAEHandlers());
    EXPECT_EQ(0, removeAEHandlers());
  }
  EXPECT_FALSE(checkPortRegistered(kSessionDaemonPortName));
  // Meant: stays true after a removal, because the running check relies on it.
  EXPECT_TRUE(isAEHandlerRegistered());
}

// A quit event before the loop ends it at once; otherwise this test would not end.
TEST(EventService, OnlyTheQuitEventEndsTheLoop) {
  const std::tuple<UInt32, UInt32> rows[] = {{kCoreEventClass, kAEOpenApplication},
                                             {FourCC('A', 'E', 'V', 'T'), kAEQuitApplication},
                                             {kCoreEventClass, FourCC('Q', 'U', 'I', 'T')}};
  for (const auto& [eventClass, eventID] : rows) {
    EXPECT_EQ(errAEEventNotHandled,
              SMAEDispatchCallback(eventClass, eventID, nullptr, nullptr, nullptr));
  }
  EXPECT_EQ(0,
            SMAEDispatchCallback(kCoreEventClass, kAEQuitApplication, nullptr, nullptr, nullptr));
  RunApplicationEventLoop();
}

}  // namespace
