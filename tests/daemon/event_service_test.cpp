#include "daemon/event_service.h"

#include <gtest/gtest.h>

#include <Carbon/Carbon.h>

#include "tests/aeport/serving.h"
#include "tests/support/open_descriptor_check.h"

namespace {

TEST(EventService, OpensClosesAndRemembers) {
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
  EXPECT_TRUE(isAEHandlerRegistered());  // meant: it tells that there was a service
}

// A quit that came before the loop ends it at once, and would hang this test if it did not.
TEST(EventService, OnlyTheQuitEventEndsTheLoop) {
  const std::tuple<UInt32, UInt32> rows[] = {
      {kCoreEventClass, kAEOpenApplication},
      {FourCC('A', 'E', 'V', 'T'), kAEQuitApplication},
      {kCoreEventClass, FourCC('Q', 'U', 'I', 'T')},
  };
  for (const auto& [eventClass, eventID] : rows) {
    EXPECT_EQ(errAEEventNotHandled,
              SMAEDispatchCallback(eventClass, eventID, nullptr, nullptr, nullptr));
  }
  EXPECT_EQ(0,
            SMAEDispatchCallback(kCoreEventClass, kAEQuitApplication, nullptr, nullptr, nullptr));
  RunApplicationEventLoop();
}

}  // namespace
