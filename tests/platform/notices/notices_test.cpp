#include <Carbon/Notification.h>
#include <CoreServices/MacErrors.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tests/support/test_sink.h"

namespace {

using Lines = std::vector<std::string>;

int sResponses = 0;
OSErr sRemoved = -999;

void CountResponse(NMRecPtr) { ++sResponses; }
void RemoveInResponse(NMRecPtr record) { sRemoved = NMRemove(record); }

NMRec MakeRecord(unsigned char* text, NMUPP response) {
  NMRec record = {};
  record.qType = nmType;
  record.nmStr = text;
  record.nmResp = response;
  return record;
}

}  // namespace

TEST(Notices, EachInstallationIsShownOnceAndAnswered) {
  const TestSink notices("VLTHOST_NOTICES"), log("VLTHOST_LOG");
  unsigned char text[] =
      "\x07"
      "caf\x8E\n!!";
  NMRec record = MakeRecord(text, NewNMUPP(CountResponse));
  sResponses = 0;
  EXPECT_EQ(noErr, NMInstall(&record));
  EXPECT_EQ(1, sResponses);
  text[1] = 'C';
  EXPECT_EQ(noErr, NMInstall(&record));  // still installed: shown again
  EXPECT_EQ(2, sResponses);
  EXPECT_EQ((Lines{"caf\xC3\xA9 !!", "Caf\xC3\xA9 !!"}), notices.Lines());
  EXPECT_EQ((Lines{"5 caf\xC3\xA9 !!", "5 Caf\xC3\xA9 !!"}), log.Lines());
  EXPECT_EQ(noErr, NMRemove(&record));
  EXPECT_EQ(qErr, NMRemove(&record));
}

TEST(Notices, TheResponseDecidesHowLongARecordStays) {
  const TestSink notices("VLTHOST_NOTICES"), log("VLTHOST_LOG");
  const std::tuple<NMUPP, OSErr> rows[] = {
      {nullptr, noErr}, {kNMRemoveWhenDone, qErr}, {RemoveInResponse, qErr}};
  for (const auto& [response, removed] : rows) {
    NMRec record = MakeRecord(nullptr, response);
    EXPECT_EQ(noErr, NMInstall(&record));
    EXPECT_EQ(removed, NMRemove(&record));
  }
  EXPECT_EQ(noErr, sRemoved);
  EXPECT_TRUE(notices.Lines().empty());  // records without a text show nothing
}

// After NMRemove has returned, the response does not run any more, so the record may be destroyed.
TEST(Notices, RemovingWaitsForTheResponseOfAnotherThread) {
  static std::atomic<bool> sIsInside, sMayReturn, sHasReturned;
  sIsInside = sMayReturn = sHasReturned = false;
  const TestSink notices("VLTHOST_NOTICES"), log("VLTHOST_LOG");
  NMRec record = MakeRecord(nullptr, [](NMRecPtr) {
    sIsInside = true;
    while (!sMayReturn) std::this_thread::yield();
    // Gives a removal that does not wait the time to return.
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    sHasReturned = true;
  });
  std::thread installer([&] { EXPECT_EQ(noErr, NMInstall(&record)); });
  while (!sIsInside) std::this_thread::yield();
  std::thread remover([&] {
    sMayReturn = true;
    EXPECT_EQ(noErr, NMRemove(&record));
    EXPECT_TRUE(sHasReturned);
  });
  installer.join();
  remover.join();
}
