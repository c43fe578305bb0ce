#include "aeport/client_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/aeport/serving.h"
#include "tests/support/repeated_signals.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/session_directory.h"

namespace {

using Lines = std::vector<std::string>;

Lines LinesOf(const std::string& text) {
  std::istringstream stream(text);
  Lines lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

Lines NoticeLines() { return LinesOf(ReadFile(std::getenv("VLTHOST_NOTICES"))); }

// The log without the copies of notices.
Lines FailureLines() {
  Lines lines = LinesOf(TestLogText());
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with("404 "); });
  return lines;
}

void ClearSinks() {
  ClearTestLog();
  std::ofstream(std::getenv("VLTHOST_NOTICES"), std::ios::trunc);
}

// A client whose server has a name of the test's, with everything reported.
class TestClient : public VLTAEClientSupport {
 public:
  explicit TestClient(bool notify = true, bool log = true, bool firstOnly = true)
      : VLTAEClientSupport("Srv", "Cli", "Pkg", 4192, 600, notify, log, firstOnly) {}
  TestClient(const char* server, const char* client, const char* package)
      : VLTAEClientSupport(server, client, package, 0, 600, true, true, true) {}

  OSStatus GetDestinationAddress(VLTPortDestinationAddress& address) override {
    address = VLTPortDestinationAddress(portName.c_str());
    return 0;
  }
  OSStatus VerifyServerRunning() override { return verifyResult; }

  // One whole request for ('test', id), from a thread that does not serve.
  OSStatus Request(UInt32 eventID, SInt32 mode = kAEWaitReply, bool verify = false) {
    VLTPortDestinationAddress address;
    VLTPortAppleEvent event(FourCC('t', 'e', 's', 't'), eventID, mode, nullptr,
                            kAutoGenerateReturnID, kAnyTransactionID);
    OSStatus err = ConstructEvent(address, event, verify);
    if (err == 0) err = SendEvent(event, 0, 0, 0);
    HandleResult(err, &event, "Request", nullptr);
    return err;
  }

  using VLTAEClientSupport::NotifyServerDisabledCompletion;
  using VLTAEClientSupport::sNotificationFlags;
  using VLTAEClientSupport::sNotificationRecord;

  std::string portName = "test.nobody";
  OSStatus verifyResult = 0;
};

constexpr char kGone[] = "The Srv was disabled or removed. Please reinstall the Pkg.";
constexpr char kIncompatible[] =
    "The Cli is incompatible with the Srv. This is probably due to mismatched versions. Please "
    "remove all old verisions of the Pkg and reinstall.";

struct ClientSupport : testing::Test {
  ClientSupport() { ClearSinks(); }
};

TEST_F(ClientSupport, ResultsWithoutAReplyAreClassifiedByTheirNumber) {
  const std::tuple<OSStatus, bool, bool> rows[] = {
      {0, false, false},    {procNotFound, true, true},
      {-1712, true, true},  {connectionInvalid, true, true},
      {1099, false, true},  {1100, true, true},
      {1102, true, true},   {1105, true, true},
      {1106, false, true},  {paramErr, false, true},
      {-1708, false, true}, {-1, false, true},
  };
  for (const auto& [err, isDisabled, isClientError] : rows) {
    SCOPED_TRACE(err);
    ClearSinks();
    TestClient client;
    EXPECT_EQ(isDisabled, client.IsServerDisabled(err));
    EXPECT_EQ(isClientError, client.IsClientError(err, nullptr));
    EXPECT_FALSE(client.IsServerError(err, nullptr));
    client.HandleResult(err, nullptr, "Fn", nullptr);
    EXPECT_EQ(isDisabled ? Lines{kGone} : Lines{}, NoticeLines());
    EXPECT_EQ(err != 0 ? 1u : 0u, FailureLines().size());
  }
}

TEST_F(ClientSupport, LogEntriesAndNoticesHaveTheExactTexts) {
  const std::tuple<const char*, const char*, const char*, const char*, const char*, const char*>
      rows[] = {
          {"Srv", "Cli", "Pkg", "Srv", kGone, kIncompatible},
          {nullptr, nullptr, nullptr, "(null)",
           "The Server was disabled or removed. Please reinstall the Package.",
           "The Client is incompatible with the Server. This is probably due to mismatched versions. "
           "Please remove all old verisions of the Package and reinstall."},
          {"100%s", "%n", "%d", "100%s",
           "The 100%s was disabled or removed. Please reinstall the %d.",
           "The %n is incompatible with the 100%s. This is probably due to mismatched versions. Please "
           "remove all old verisions of the %d and reinstall."},
      };
  for (const auto& [server, clientName, package, loggedServer, gone, incompatible] : rows) {
    SCOPED_TRACE(gone);
    ClearSinks();
    TestClient client(server, clientName, package);
    // Before the first notice the names are as they were given.
    client.HandleResult(procNotFound, nullptr, "DMQuitDemon", nullptr);
    EXPECT_EQ(Lines{"404 DMQuitDemon() - Error -600 (fffffda8) sending message to " +
                    std::string(loggedServer)},
              FailureLines());
    client.setServerName("later");  // the texts are made by now
    client.NotifyServerDisabled(client.PrepareProtocolMessage());
    client.NotifyServerDisabled(client.PrepareNotifyMessage(nullptr));
    client.NotifyServerDisabled(client.PrepareNotifyMessage("own text"));
    EXPECT_EQ((Lines{gone, incompatible, gone, "own text"}), NoticeLines());
  }
}

TEST_F(ClientSupport, LongNamesAreCutToTheSizeOfANotice) {
  const std::string longName(5000, 'n');
  TestClient client(longName.c_str(), longName.c_str(), longName.c_str());
  client.HandleResult(1102, nullptr, longName.c_str(), longName.c_str());
  client.NotifyServerDisabled(client.PrepareProtocolMessage());
  EXPECT_EQ((Lines{std::string(255, 'n'), "The " + std::string(251, 'n')}), NoticeLines());
  EXPECT_EQ(1u, FailureLines().size());
}

TEST_F(ClientSupport, ARunOfFailuresIsReportedOnce) {
  constexpr OSStatus kDone = 0;
  const std::tuple<bool, bool, bool, std::vector<OSStatus>, size_t, size_t> rows[] = {
      {true, true, true, {-600, -1712, 1102, kDone, -600}, 2, 2},
      {true, true, true, {-600, -50, -600}, 1, 2},  // a client error ends no run
      {true, true, false, {-600, -600, -600}, 3, 3},
      {false, true, true, {-600, kDone, -600}, 0, 2},
      {true, false, true, {-600, kDone, -600}, 2, 0},
  };
  for (const auto& [notify, log, firstOnly, results, notices, lines] : rows) {
    SCOPED_TRACE(testing::PrintToString(results));
    ClearSinks();
    TestClient client(notify, log, firstOnly);
    for (const OSStatus err : results) client.HandleResult(err, nullptr, "Fn", nullptr);
    EXPECT_EQ(notices, NoticeLines().size());
    EXPECT_EQ(lines, FailureLines().size());
  }
}

TEST_F(ClientSupport, TheBusyBitDoesNotSuppressTheNextNotice) {
  TestClient client;
  TestClient::sNotificationFlags = 4;
  client.NotifyServerDisabled(client.PrepareNotifyMessage("one"));
  // Meant: written back, because clients rely on it.
  EXPECT_EQ(4u, TestClient::sNotificationFlags);
  TestClient::sNotificationFlags = 5;
  client.NotifyServerDisabled(client.PrepareNotifyMessage("two"));
  EXPECT_EQ(Lines{"one"}, NoticeLines());
  TestClient::NotifyServerDisabledCompletion(&TestClient::sNotificationRecord);
  EXPECT_EQ(5u, TestClient::sNotificationFlags);  // Meant, as above.
  TestClient::sNotificationFlags = 0;
  EXPECT_EQ(noErr, NMRemove(&TestClient::sNotificationRecord));  // nobody else removes it
}

TEST_F(ClientSupport, ConstructEventStopsAtTheFirstFailure) {
  VLTAEClientSupport plain;
  VLTPortDestinationAddress address;
  VLTPortAppleEvent event(1, 2, kAENoReply, nullptr, kAutoGenerateReturnID, kAnyTransactionID);
  EXPECT_EQ(-1, plain.ConstructEvent(address, event, true));  // no server of its own
  EXPECT_EQ(-1, event.createEvent());  // it has the address nevertheless; else paramErr
  event.finalizeEvent();

  TestClient client(false, false);
  EXPECT_EQ(1102, client.Request(kPing));
  client.verifyResult = procNotFound;
  EXPECT_EQ(procNotFound, client.Request(kPing, kAEWaitReply, true));
  EXPECT_EQ(1102, client.Request(kPing));  // only looks
}

TEST_F(ClientSupport, EachOfTheAttemptsThatTimeOutIsFollowedByAWholeSecondAlsoUnderSignals) {
  int served = 0;
  EventHandler handler = [&served](const ServedEvent&) { return served++ >= 0 ? 0 : -1; };
  VLTPortAEMachPortListener silent;  // nobody runs its loop for now
  TestClient client;
  client.portName = UniquePortName();
  ASSERT_EQ(0, silent.ListenOnPort(client.portName.c_str(), CFRunLoopGetCurrent(), CallHandler,
                                   &handler));
  VLTPortDestinationAddress address;
  VLTPortAppleEvent event(FourCC('t', 'e', 's', 't'), kPing, kAEWaitReply, nullptr,
                          kAutoGenerateReturnID, kAnyTransactionID);
  ASSERT_EQ(0, client.ConstructEvent(address, event, false));
  const RepeatedSignals signals;
  const auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(errAETimeout, client.SendEvent(event, 0, 2, 1));
  EXPECT_GE(std::chrono::steady_clock::now() - before, 2s);
  ServeWhile([&] { client.Request(kPing); });  // arrives after the others
  EXPECT_EQ(3, served);
}

TEST_F(ClientSupport, AnErrorReplyIsNotReportedAsAServerThatIsGone) {
  const struct {
    OSStatus answer;
    Lines notices;
    size_t lines;
    bool armsAnew;
  } rows[] = {
      {0, {}, 0, true},
      {paramErr, {}, 0, true},
      {errAEEventNotHandled, {kIncompatible}, 1, false},
      {procNotFound, {}, 0, false},  // also when the server made it up
      {1104, {}, 0, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.answer);
    ClearSinks();
    EventHandler handler = [&row](const ServedEvent&) { return row.answer; };
    VLTPortAEMachPortListener listener;
    TestClient client;
    client.portName = UniquePortName();
    ASSERT_EQ(0, listener.ListenOnPort(client.portName.c_str(), CFRunLoopGetCurrent(), CallHandler,
                                       &handler));
    client.DoNotificationOnFailure();  // a failure of this run has been reported
    ServeWhile([&] { EXPECT_EQ(row.answer, client.Request(kPing)); });
    EXPECT_EQ(row.notices, NoticeLines());
    EXPECT_EQ(row.lines, FailureLines().size());
    EXPECT_EQ(row.armsAnew, client.DoNotificationOnFailure());
  }
}

}  // namespace
