#include "clients/device_monitor.h"
#include "tests/clients/login_session.h"
#include "tests/clients/open_client.h"
#include "tests/integration/notice_support.h"

// Failures of clients as the user sees them: through a notification service on a bus.

namespace {

// A client of its own whose failures are shown and logged. Nobody serves.
struct TalkingClient {
  TalkingClient() { opened.SetReporting(true, true); }

  OSStatus Fail() {
    VLTPortDestinationAddress address;
    VLTPortAppleEvent event(FourCC('C', 'm', 'o', 'N'), FourCC('G', 't', 'I', 's'), kAEWaitReply,
                            nullptr, kAutoGenerateReturnID, 0);
    const OSStatus err = client.ConstructEvent(address, event, true);
    client.HandleResult(err, &event, "DMGetDeviceIDs", nullptr);
    return err;
  }

  DMClient client{GetDeviceMonitorLauncher()};
  OpenClient opened{client};
};

constexpr char kText[] =
    "The VeltraneDeviceMonitor was disabled or removed. Please reinstall the Driver.";

TEST_F(NoticeTest, AClientMayGoWhileItsNoticeIsShown) {
  const PrivateBus bus;
  NotificationService service(bus);
  auto client = std::make_unique<TalkingClient>();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(procNotFound, client->Fail());
  std::vector<NotificationCall> calls = service.Calls(1);
  ASSERT_EQ(1u, calls.size());
  EXPECT_NE(std::string::npos, calls[0].body.find(kText)) << calls[0].body;
  EXPECT_EQ(1, LinesInLog("DMGetDeviceIDs() - Error -600 (fffffda8)"));

  // Gone while it is on the screen, and dismissed after that.
  client.reset();
  service.Close(calls[0].id);

  // The next client's run of failures is shown again.
  TalkingClient next;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(procNotFound, next.Fail());
  calls = service.Calls(2);
  ASSERT_EQ(2u, calls.size());
  EXPECT_EQ("Notify", calls[1].method);
  EXPECT_NE(std::string::npos, calls[1].body.find(kText)) << calls[1].body;
  EXPECT_EQ(2, LinesInLog("DMGetDeviceIDs() - Error -600 (fffffda8)"));
}

}  // namespace
