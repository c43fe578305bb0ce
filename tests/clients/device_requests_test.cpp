#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

#include "clients/device_monitor.h"
#include "tests/clients/login_session.h"
#include "tests/clients/open_client.h"
#include "tests/clients/recording_peer.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/session_directory.h"
#include "tests/support/test_role.h"
#include "tools/values/value_types.h"

// Each request of the device monitor's clients as it reaches another process, and the results of
// right and wrong replies.

namespace {

constexpr char kPort[] = "com.veltrane.vltdeviced.1.1";
constexpr DescType kWeird = FourCC('A', 'B', 'C', 'D');

// Describes a request's outcome in one line: its result, then its outputs.
template <class... Outputs>
std::string Said(OSStatus err, const Outputs&... outputs) {
  std::ostringstream text;
  text << err;
  ((text << ' ' << outputs), ...);
  return text.str();
}

ProcessSerialNumber kProcess = {0x01020304, 0xA0B0C0D0};

// The forms of the read requests.

using BufferForm = OSStatus (*)(SInt32, const char*, OSType, void*, SInt32, SInt32*, OSType*);
using BlockForm = OSStatus (*)(SInt32, const char*, OSType, void*&, SInt32*, OSType*,
                               AEPtrAllocator);
using HandleForm = OSStatus (*)(SInt32, const char*, OSType, char**, OSType*);

constexpr BufferForm kGetPreference = DMGetDevicePreference;
constexpr BufferForm kGetAttribute = DMGetDeviceAttribute;
constexpr BlockForm kCopyPreference = DMGetDevicePreference;
constexpr BlockForm kCopyAttribute = DMGetDeviceAttribute;
constexpr HandleForm kFillPreference = DMGetDevicePreference;
constexpr HandleForm kFillAttribute = DMGetDeviceAttribute;

std::string IntoBuffer(BufferForm get, OSType type, SInt32 size, bool wantsSize, bool wantsType) {
  char buffer[64];
  std::memset(buffer, '-', sizeof buffer);
  SInt32 actualSize = -1;
  OSType actualType = typeNull;
  const OSStatus err = get(7, "gain", type, buffer, size, wantsSize ? &actualSize : nullptr,
                           wantsType ? &actualType : nullptr);
  SInt32 number = 0;
  std::memcpy(&number, buffer, sizeof number);
  const std::string content =
      type == typeSInt32 ? std::to_string(number) : std::string(buffer, 6);  // or the marks
  return Said(err, content, actualSize, CodeText(actualType));
}

std::string IntoBlock(BlockForm get, OSType type, bool wantsType = true) {
  char before[] = "as before";
  void* data = before;
  SInt32 size = static_cast<SInt32>(std::strlen(before));
  OSType actualType = typeNull;
  const auto allocator = [](SInt32 bytes) { return new char[static_cast<size_t>(bytes)]; };
  const OSStatus err =
      get(7, "gain", type, data, &size, wantsType ? &actualType : nullptr, allocator);
  std::string content = "(none)";
  if (data != nullptr) content.assign(static_cast<char*>(data), static_cast<size_t>(size));
  if (data != before) delete[] static_cast<char*>(data);
  return Said(err, content, CodeText(actualType));
}

std::string IntoHandle(HandleForm get, OSType type) {
  Handle handle = NewHandle(3);
  OSType actualType = typeNull;
  const OSStatus err = get(7, "gain", type, handle, &actualType);
  const std::string content(*handle, static_cast<size_t>(GetHandleSize(handle)));
  DisposeHandle(handle);
  return Said(err, content.size(), content, CodeText(actualType));
}

std::string GetIDs(SInt32 room) {
  SInt32 ids[4] = {-1, -1, -1, -1};
  SInt32 count = -1;
  const OSStatus err = DMGetDeviceIDs(ids, room, &count);
  return Said(err, count, ids[0], ids[1], ids[2], ids[3]);
}

std::string GetIDOnUSB() {
  SInt32 id = -1;
  const OSStatus err = DMGetDeviceID(0x1234, -2, 0x01420000, id);
  return Said(err, id);
}

template <class Ask>
std::string StatusList(Ask ask) {
  AEDescList list = {typeNull, nullptr};
  const OSStatus err = ask(&list);
  const std::string type = CodeText(list.descriptorType);
  AEDisposeDesc(&list);
  return Said(err, type);
}

struct Row {
  const char* name;
  std::function<std::string()> call;
  const char* event;    // as it arrives
  const char* answer;   // in the form of RecordingPeer::Answer
  const char* outcome;  // as Said
};

void Try(const Row& row, RecordingPeer& peer) {
  SCOPED_TRACE(row.name);
  peer.Answer(row.answer);
  EXPECT_EQ(row.outcome, row.call());
  EXPECT_EQ(row.event, peer.Event());
}

// Every request, under the name that a failure of it is logged by.
std::vector<Row> Requests() {
  static const SInt32 number = -5;
  return {
      {"DMGetDeviceIDs", [] { return GetIDs(4); }, "CmoN GtIs wait", "DvIs:long=4,-5,6",
       "0 3 4 -5 6 -1"},
      {"DMGetDeviceIDs", [] { return GetIDs(0); }, "CmoN GtIs wait", "DvIs:long=4,-5,6",
       "0 3 -1 -1 -1 -1"},
      {"DMGetDeviceID", GetIDOnUSB,
       "CmoN UnID wait SPrd:short=-2|SVnd:short=4660|SLoc:long=21102592|SBus:text=USB",
       "DvI#:long=9", "0 9"},
      {"DMGetDeviceID",
       [] {
         SInt32 id = -1;
         const OSStatus err = DMGetDeviceID("FireWire", "00-11", id);
         return Said(err, id);
       },
       "CmoN UnID wait SSer:text=00-11|SBus:text=FireWire", "DvI#:long=9", "0 9"},
      {"DMSetDevicePreference",
       [] { return Said(DMSetDevicePreference(7, "gain", typeSInt32, &number, 4)); },
       "CmoN StPf wait DvI#:long=7|PKey:text=gain|PVal:long=-5", "", "0"},
      {"DMSetDevicAttribute",
       [] { return Said(DMSetDeviceAttribute(-7, "", kWeird, "\x00\xFF", 2)); },
       "CmoN StAt wait DvI#:long=-7|PKey:text=|PVal:'ABCD'=00ff", "", "0"},
      {"DMSetDevicAttribute",
       [] { return Said(DMSetDeviceAttribute(7, "k", typeChar, nullptr, 0)); },
       "CmoN StAt wait DvI#:long=7|PKey:text=k|PVal:text=", "", "0"},
      {"DMGetDevicePreference", [] { return IntoBuffer(kGetPreference, typeChar, 64, true, true); },
       "CmoN GtPf wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 loud-- 4 TEXT"},
      {"DMGetDeviceAttribute", [] { return IntoBuffer(kGetAttribute, typeChar, 64, false, false); },
       "CmoN GtAt wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 loud-- -1 null"},
      // Meant: with an allocator both send the request for the preference, with a handle both that
      // for the attribute, because callers rely on it.
      {"DMGetDevicePreference", [] { return IntoBlock(kCopyPreference, typeChar); },
       "CmoN GtPf wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 loud TEXT"},
      {"DMGetDeviceAttribute", [] { return IntoBlock(kCopyAttribute, typeChar); },
       "CmoN GtPf wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 loud TEXT"},
      {"DMGetDevicePreference", [] { return IntoHandle(kFillPreference, typeChar); },
       "CmoN GtAt wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 4 loud TEXT"},
      {"DMGetDeviceAttribute", [] { return IntoHandle(kFillAttribute, typeChar); },
       "CmoN GtAt wait DvI#:long=7|PKey:text=gain", "PVal:text=loud", "0 4 loud TEXT"},
      {"DMRegisterRemoteDigitizer",
       [] { return Said(DMRegisterRemoteDigitizer(7, kProcess, "cam")); },
       "CmoN RegR none DvI#:long=7|PKey:text=cam|PS#n:'psn '=01020304a0b0c0d0", "", "0"},
      {"DMRegisterForDeviceStatusNotification",
       [] {
         return StatusList([](AEDescList* list) {
           return DMRegisterForDeviceStatusNotification(&kProcess, "port", -3, 0x71, list);
         });
       },
       "CmoN RegN wait PKey:text=port|PS#n:'psn '=01020304a0b0c0d0|ixrP:short=-3|NMsk:long=113",
       "DvLs:long=1", "0 list"},
      {"DMGetDeviceStatus",
       [] { return StatusList([](AEDescList* list) { return DMGetDeviceStatus(0x7F, list); }); },
       "CmoN RegN wait PKey:text=|PS#n:'psn '=0000000000000000|NMsk:long=4208", "DvLs:long=1",
       "0 list"},
      {"DMGetDeviceStatus",
       [] { return StatusList([](AEDescList* list) { return DMGetDeviceStatus(-1, list); }); },
       "CmoN RegN wait PKey:text=|PS#n:'psn '=0000000000000000|NMsk:long=-16", "DvLs:long=1",
       "0 list"},
  };
}

TEST(DeviceRequests, GoOverTheWireAsTheyAre) {
  OpenDescriptorCheck noLeaks;
  RecordingPeer peer(kPort);
  RunOnThread([&] {
    for (const Row& row : Requests()) Try(row, peer);
    Try({"quit", [] { return Said(DMQuitDaemon()); }, "aevt quit none", "", "0"}, peer);
  });
  EXPECT_FALSE(peer.HasEvent());
}

TEST(DeviceRequests, WrongAnswersAreErrorsAndLoseNothing) {
  constexpr char kIDs[] = "CmoN GtIs wait";
  constexpr char kUSB[] =
      "CmoN UnID wait SPrd:short=-2|SVnd:short=4660|SLoc:long=21102592|SBus:text=USB";
  constexpr char kPreference[] = "CmoN GtPf wait DvI#:long=7|PKey:text=gain";
  constexpr char kAttribute[] = "CmoN GtAt wait DvI#:long=7|PKey:text=gain";
  constexpr char kStatus[] =
      "CmoN RegN wait PKey:text=|PS#n:'psn '=0000000000000000|NMsk:long=4096";
  const auto get = [](OSType type, SInt32 size, bool wantsSize, bool wantsType) {
    return [=] { return IntoBuffer(kGetPreference, type, size, wantsSize, wantsType); };
  };
  const auto getStatus = [] {
    return StatusList([](AEDescList* list) { return DMGetDeviceStatus(0, list); });
  };
  const Row rows[] = {
      {"no ids", [] { return GetIDs(4); }, kIDs, "", "-1701 -1 -1 -1 -1 -1"},
      {"an empty list", [] { return GetIDs(4); }, kIDs, "DvIs:'long'=", "0 0 -1 -1 -1 -1"},
      {"as many as there is room for", [] { return GetIDs(3); }, kIDs, "DvIs:long=1,2,3",
       "0 3 1 2 3 -1"},
      {"more than there is room for", [] { return GetIDs(2); }, kIDs, "DvIs:long=1,2,3",
       "-50 -1 -1 -1 -1 -1"},
      {"ids of another type", [] { return GetIDs(4); }, kIDs, "DvIs:short=5", "0 1 5 -1 -1 -1"},
      {"ids that are none", [] { return GetIDs(4); }, kIDs, "DvIs:text=many",
       "-1700 -1 -1 -1 -1 -1"},
      {"no id", GetIDOnUSB, kUSB, "DvIs:long=1", "-1701 -1"},
      {"an id that is none", GetIDOnUSB, kUSB, "DvI#:text=x", "-1700 -1"},
      {"an id of the peer's making", GetIDOnUSB, kUSB, "=-31999", "-31999 -1"},
      {"no value", get(typeChar, 64, false, false), kPreference, "", "-1701 ------ -1 null"},
      {"no value, outputs wanted", get(typeChar, 64, true, true), kPreference, "",
       "-1701 ------ 0 TEXT"},
      {"a value that is cut", get(typeChar, 2, false, false), kPreference, "PVal:text=loud",
       "-1741 lo---- -1 null"},
      {"a value that just fits", get(typeChar, 4, false, false), kPreference, "PVal:text=loud",
       "0 loud-- -1 null"},
      {"a cut that is asked for", get(typeChar, 2, true, true), kPreference, "PVal:text=loud",
       "0 lo---- 4 TEXT"},
      {"only the size", get(typeChar, 0, true, true), kPreference, "PVal:text=loud",
       "0 ------ 4 TEXT"},
      {"another type", get(typeSInt32, 4, true, false), kPreference, "PVal:short=-5",
       "-1700 -5 4 null"},
      {"another type, asked for", get(typeSInt32, 4, true, true), kPreference, "PVal:short=-5",
       "0 -5 4 shor"},
      {"whatever it is", get(typeWildCard, 64, true, true), kPreference, "PVal:'ABCD'=414243",
       "0 ABC--- 3 ABCD"},
      {"no coercion", get(typeSInt32, 4, true, true), kPreference, "PVal:'ABCD'=00",
       "-1700 757935405 0 ABCD"},
      {"no room at all", get(typeSInt32, -1, true, true), kPreference, "PVal:text=loud",
       "-50 757935405 0 TEXT"},
      {"another type, block", [] { return IntoBlock(kCopyPreference, typeChar, false); },
       kPreference, "PVal:short=-5", "-1700 -5 null"},
      {"no value, handle", [] { return IntoHandle(kFillAttribute, typeChar); }, kAttribute, "",
       "-1701 0  null"},
      {"no status list", getStatus, kStatus, "", "-1701 null"},
  };
  OpenDescriptorCheck noLeaks;
  RecordingPeer peer(kPort);
  RunOnThread([&] {
    for (const Row& row : rows) Try(row, peer);
  });
}

TEST(DeviceRequests, WhatCannotBePutIsNotSent) {
  RecordingPeer peer(kPort);
  SInt32 id = 0;
  AEDescList list = {typeNull, nullptr};
  EXPECT_EQ(paramErr, DMSetDevicePreference(1, nullptr, typeChar, "x", 1));
  EXPECT_EQ(paramErr, DMSetDevicePreference(1, "key", typeChar, "x", -1));
  EXPECT_EQ(paramErr, DMSetDevicePreference(1, "key", typeChar, nullptr, 1));
  EXPECT_EQ(paramErr, DMGetDeviceID(nullptr, "x", id));
  EXPECT_EQ(paramErr, DMGetDeviceID("x", nullptr, id));
  EXPECT_EQ(paramErr, DMRegisterForDeviceStatusNotification(nullptr, "x", 0, 0, &list));
  EXPECT_EQ(paramErr, DMGetDeviceStatus(0, nullptr));
  EXPECT_FALSE(peer.HasEvent());
}

// One line of the log.
std::string Logged(const std::string& failureName, OSStatus err, const char* hexadecimal) {
  return "404 " + failureName + "() - Error " + std::to_string(err) + " (" + hexadecimal +
         ") sending message to VeltraneDeviceMonitor\n";
}

TEST(DeviceRequests, WithoutADaemonFailUnderTheirNames) {
  OpenClient client(GetDMClient());
  client.SetReporting(false, true);
  GetDMClient().setReportAllFailures(true);
  for (const Row& row : Requests()) {
    SCOPED_TRACE(row.name);
    ClearTestLog();
    EXPECT_TRUE(row.call().starts_with("-600"));
    EXPECT_EQ(Logged(row.name, procNotFound, "fffffda8"), TestLogText());
  }
  // A daemon that does not run counts as success; a launcher without a way to look one up does not.
  ClearTestLog();
  EXPECT_EQ(0, DMQuitDaemon());
  EXPECT_EQ("", TestLogText());
  GetDeviceMonitorLauncher().setPortName(nullptr);
  EXPECT_EQ(paramErr, DMQuitDaemon());
  EXPECT_EQ(Logged("DMQuitDemon", paramErr, "ffffffce"), TestLogText());
  ClearTestLog();
  EXPECT_EQ(paramErr, DMGetDeviceStatus(0, nullptr));
  EXPECT_EQ(Logged("DMGetDeviceStatus", paramErr, "ffffffce"), TestLogText());
  EXPECT_EQ(0, DMSetDeviceMonitorPortName(kPort));
}

TEST(DeviceRequests, ADaemonThatEndsIsToldAtOnce) {
  OpenClient client(GetDMClient());
  client.SetReporting(false, true);
  const std::tuple<const char*, std::function<OSStatus(RecordingPeer&)>> rows[] = {
      {"while we wait",
       [](RecordingPeer& peer) {
         SInt32 count = 0;
         peer.Answer("die");
         return DMGetDeviceIDs(nullptr, 0, &count);
       }},
      {"between making and sending", [](RecordingPeer& peer) {
         VLTPortDestinationAddress address;
         VLTPortAppleEvent event(FourCC('C', 'm', 'o', 'N'), FourCC('G', 't', 'I', 's'),
                                 kAEWaitReply, nullptr, kAutoGenerateReturnID, 0);
         EXPECT_EQ(0, GetDMClient().ConstructEvent(address, event, true));
         peer.Kill();
         const OSStatus err = GetDMClient().SendEvent(event, 0, 5, 0);
         GetDMClient().HandleResult(err, &event, "DMGetDeviceIDs", nullptr);
         return err;
       }}};
  for (const auto& [when, call] : rows) {
    SCOPED_TRACE(when);
    GetDMClient().ResetSendFailures();
    ClearTestLog();
    OpenDescriptorCheck noLeaks;
    RecordingPeer peer(kPort);
    RunOnThread([&] { EXPECT_EQ(connectionInvalid, call(peer)); });
    EXPECT_EQ(Logged("DMGetDeviceIDs", connectionInvalid, "fffffd9f"), TestLogText());
  }
}

// Each attempt waits a tenth of a second, and a second follows each time-out, also the last one.
// The number of a time-out in a reply counts as a time-out.
TEST(DeviceRequests, ASilentDaemonIsAskedFiveTimesWithPauses) {
  const std::tuple<std::vector<const char*>, const char*, int> rows[] = {
      {{"silent", "silent", "silent", "silent", "silent"}, "-1712 -1 -1 -1 -1 -1", 5},
      {{"silent", "=-1712", "DvIs:long=8"}, "0 1 8 -1 -1 -1", 2},
  };
  using namespace std::chrono;
  RecordingPeer peer(kPort);
  EXPECT_EQ(0, DMSetSendEventTimeout(6));
  for (const auto& [answers, outcome, pauses] : rows) {
    for (const char* answer : answers) peer.Answer(answer);
    const auto begin = steady_clock::now();
    EXPECT_EQ(outcome, GetIDs(4));
    EXPECT_GE(steady_clock::now() - begin, seconds(pauses));
    for (size_t i = 0; i < answers.size(); ++i) EXPECT_EQ("CmoN GtIs wait", peer.Event());
    EXPECT_FALSE(peer.HasEvent());
  }
  EXPECT_EQ(0, DMSetSendEventTimeout(30000));
}

TEST(DeviceConnection, RefusesWhatNamesNothing) {
  const char* name = "x";
  OSType signature = 0;
  EXPECT_EQ(0, DMGetDeviceMonitorPortName(name));
  EXPECT_EQ(nullptr, name);
  EXPECT_EQ(paramErr, DMSetDeviceMonitorPortName(nullptr));
  EXPECT_EQ(paramErr, DMSetDeviceMonitorPortName(""));
  EXPECT_EQ(paramErr, DMSetDeviceMonitorSignature(0));
  EXPECT_EQ(0, DMGetDeviceMonitorSignature(signature));
  EXPECT_EQ(FourCC('C', 'm', 'o', 'N'), signature);
  EXPECT_EQ(paramErr, DMSetDeviceMonitorExecutable(nullptr));
  EXPECT_EQ(procNotFound, DMCheckDaemonRunning());
  EXPECT_EQ(procNotFound, DMVerifyDaemonRunning());  // starts nothing by default
}

TEST(DeviceConnection, ANameMayLieInsideTheOneThatItReplaces) {
  DMLaunch launch(gDeviceMonitorLaunchSpec);
  EXPECT_EQ(0, launch.SetDeviceMonitorPortName("one.name"));
  EXPECT_EQ(0, launch.SetDeviceMonitorPortName(launch.GetDeviceMonitorPortName() + 4));
  EXPECT_STREQ("name", launch.GetDeviceMonitorPortName());
  EXPECT_EQ(0, launch.SetDeviceMonitorPortName(nullptr));
  EXPECT_EQ(nullptr, launch.GetDeviceMonitorPortName());
}

TEST(DeviceConnection, ALauncherFreesTheNamesThatItHasStored) {
  const std::string large(20'000, 'n');
  const size_t before = mallinfo2().uordblks;
  for (int round = 0; round < 10; ++round) {
    DMLaunch launch(gDeviceMonitorLaunchSpec);
    launch.SetDeviceMonitorPortName(large.c_str());
    launch.SetDeviceMonitorPortName(large.c_str() + 1);
  }
  EXPECT_LT(mallinfo2().uordblks, before + 5 * large.size());
}

// Clients prefer the monitor for all sessions and use this session's when the other is gone.
TEST(DeviceConnection, FollowsTheDaemonThroughItsNames) {
  const std::string ours = std::string(kPort) + ".abc123";  // of this test's session id
  const auto ask = [](RecordingPeer& peer, const std::string& expected) {
    const char* name = nullptr;
    EXPECT_EQ(0, DMGetDeviceMonitorPortName(name));
    EXPECT_EQ(expected, name != nullptr ? name : "(none)");
    peer.Answer("DvI#:long=9");
    RunOnThread([] { EXPECT_EQ("0 9", GetIDOnUSB()); });
    EXPECT_TRUE(peer.Event().starts_with("CmoN UnID"));
  };
  RecordingPeer mine(ours.c_str());
  ask(mine, ours);
  {
    RecordingPeer everyones(kPort);
    ask(everyones, kPort);
  }
  ask(mine, ours);
  mine.Kill();
  EXPECT_EQ("-600 -1", GetIDOnUSB());
  const char* name = "x";
  EXPECT_EQ(0, DMGetDeviceMonitorPortName(name));
  EXPECT_EQ(nullptr, name);
  const std::string tooLong(120, 'n');  // with the session id it exceeds 127 bytes
  EXPECT_EQ(0, DMSetDeviceMonitorPortName(tooLong.c_str()));
  EXPECT_EQ(procNotFound, DMCheckDaemonRunning());
  EXPECT_EQ(0, DMSetDeviceMonitorPortName(kPort));
}

TEST_ROLE(InRootSession) {
  setenv("VLTHOST_SESSION_BITS", "1", 1);
  role.Tell(std::to_string(DMCheckDaemonRunning()));
  return kRoleDone;
}

TEST(DeviceConnection, TheRootSessionHasNoNameOfItsOwn) {
  RecordingPeer peer((std::string(kPort) + ".abc123").c_str());
  EXPECT_EQ(0, DMCheckDaemonRunning());
  TestProcess root("InRootSession");
  EXPECT_EQ("-600", root.Hear(20s));
}

}  // namespace
