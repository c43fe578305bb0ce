#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "aeport/params.h"
#include "clients/device_monitor.h"
#include "clients/device_protocol.h"
#include "examples/device_monitor/device_service.h"
#include "tests/aeport/serving.h"
#include "tests/clients/login_session.h"
#include "tests/support/open_descriptor_check.h"
#include "tests/support/scratch_folder.h"
#include "tests/support/test_role.h"
#include "tests/tools/verbs/verb_runner.h"

// The example device monitor as a program, used with the clients' functions and the command-line
// tool.

namespace {

namespace fs = std::filesystem;

constexpr char kPort[] = "com.veltrane.vltdeviced.1.1";
constexpr DescType kWeird = FourCC('A', 'B', 'C', 'D');

constexpr char kList[] = R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict><key>devices</key><array>
  <dict><key>bus</key><string>FireWire</string><key>serial</key><string>00-11</string>
    <key>attributes</key><dict><key>name</key><string>Old camera</string>
      <key>lenses</key><integer>2</integer><key>zoom</key><real>1.5</real>
      <key>live</key><true/><key>big</key><integer>5000000000</integer>
      <key>flags</key><dict><key>type</key><string>'shor'</string>
        <key>value</key><integer>-3</integer></dict></dict></dict>
  <dict><key>serial</key><string>a device without a bus</string></dict>
  <string>no device at all</string>
</array></dict></plist>
)";

// A monitor of two devices: 1 is from a list, 2 is a camera on the USB with two entries, as the
// kernel shows it. The destructor kills it.
class Monitor {
 public:
  explicit Monitor(const std::vector<std::string>& words = {}, const char* port = kPort) {
    const std::string list = folder.File("devices.plist", kList), usb = "sys/bus/1-4.2/";
    folder.File(usb + "idVendor", "046d\n");
    folder.File(usb + "idProduct", "fffe\n");
    folder.File(usb + "busnum", "1\n");
    folder.File(usb + "devpath", "4.2\n");
    for (const std::string index : {"0", "1"}) {
      const std::string video = "sys/video/video" + index;
      folder.File(video + "/name", "New camera\n");
      folder.File(video + "/index", index + "\n");
      folder.Link(video + "/device", folder.Folder(usb + "1-4.2:1.0"));
    }
    ChildOptions options;
    options.arguments = TestLauncher();
    options.arguments.insert(options.arguments.end(), {VLT_DEVICE_MONITOR, "--devices", list,
                                                       "--video", folder.Path("sys/video")});
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.capture = true;
    EXPECT_TRUE(child.Start(options));
    EXPECT_TRUE(WaitForPort(port, 20s)) << child.Errors();
  }
  // A device that comes is there with all its files at once.
  void Plug(const std::string& name) {
    const std::string away = "sys/away/" + name;
    folder.File(away + "/name",
                "K\xC3\xBC"
                "che\n");
    folder.File(away + "/index", "0\n");
    folder.Link(away + "/device", folder.Folder("sys/bus/" + name));
    fs::rename(folder.Path(away), folder.Path("sys/video/" + name));
  }
  void Unplug(const std::string& name) {
    fs::rename(folder.Path("sys/video/" + name), folder.Path("sys/gone" + name));
    fs::remove_all(folder.Path("sys/gone" + name));
  }
  void WriteList(const std::string& text) { folder.File("devices.plist", text); }
  // More changes than the kernel keeps for one who does not read them.
  void OverflowQueue() {
    size_t most = 16384;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
    const std::string name = folder.Path("sys/video/other");
    for (size_t i = 0; i < most / 2 + 8; ++i) {  // two changes each
      std::ofstream file(name);
      fs::remove(name);
    }
  }
  void Signal(int number) { child.Signal(number); }
  void ExpectEnd() {
    EXPECT_EQ(0, child.Wait(20s));
    EXPECT_EQ("", child.Output() + child.Errors());
  }

 private:
  const ScratchFolder folder;
  ChildProcess child;
};

struct Value {
  const char* key;
  OSType type;
  std::string bytes;
};

template <class T>
Value ValueOf(const char* key, OSType type, T value) {
  return {key, type, std::string(reinterpret_cast<const char*>(&value), sizeof value)};
}

// Returns the value uncoerced, or the error.
std::string Read(SInt32 id, const Value& value, bool isAttribute) {
  std::string bytes(70000, '-');
  SInt32 size = 0;
  OSType type = 0;
  const auto room = static_cast<SInt32>(bytes.size());
  const OSStatus err =
      isAttribute
          ? DMGetDeviceAttribute(id, value.key, typeWildCard, bytes.data(), room, &size, &type)
          : DMGetDevicePreference(id, value.key, typeWildCard, bytes.data(), room, &size, &type);
  if (err != 0) return "error " + std::to_string(err);
  bytes.resize(static_cast<size_t>(size));
  return type == value.type ? bytes : "of another type";
}

TEST(DeviceMonitor, FindsDevicesOfTheListAndOfTheUSB) {
  OpenDescriptorCheck noLeaks;
  Monitor monitor;
  RunOnThread([] {
    SInt32 ids[3] = {};
    SInt32 count = 0;
    EXPECT_EQ(0, DMGetDeviceIDs(ids, 3, &count));
    EXPECT_EQ(2, count);
    SInt32 id = 0;
    EXPECT_EQ(0, DMGetDeviceID("FireWire", "00-11", id));
    EXPECT_EQ(ids[0], id);
    EXPECT_EQ(0, DMGetDeviceID(0x046d, -2, 0x01420000, id));
    EXPECT_EQ(ids[1], id);
    EXPECT_EQ(fnfErr, DMGetDeviceID(0x046d, -2, 0x01430000, id));
    EXPECT_EQ(fnfErr, DMGetDeviceID("FireWire", "00-12", id));
    const struct {
      SInt32 id;
      Value value;
    } rows[] = {{1, {"name", typeChar, "Old camera"}},
                {1, ValueOf("zoom", typeIEEE64BitFloatingPoint, 1.5)},
                {1, ValueOf("big", typeSInt64, SInt64{5000000000})},
                {1, ValueOf("flags", typeSInt16, SInt16{-3})},
                {2, {"name", typeChar, "New camera"}}};
    for (const auto& row : rows) {
      EXPECT_EQ(row.value.bytes, Read(row.id, row.value, true)) << row.value.key;
    }
    EXPECT_EQ(0, DMQuitDaemon());
  });
  monitor.ExpectEnd();
  EXPECT_TRUE(WaitForNoPort(kPort, 0s));
}

TEST(DeviceMonitor, KeepsSettingsOfEveryTypeAcrossARestart) {
  const Value values[] = {
      ValueOf("float", typeIEEE32BitFloatingPoint, 1.1f),
      ValueOf("code", typeType, OSType{kWeird}),
      {"text", typeChar, "Gr\x9F\xA7 < & >"},  // Mac Roman
      {"zeros", typeChar, std::string("a\0b", 3)},
      {"none", kWeird, ""},
      {"odd", typeSInt32, "abc"},
      {"large", kWeird, std::string(64 * 1024, '\x55')},
  };
  for (const bool isRestarted : {false, true}) {
    SCOPED_TRACE(isRestarted);
    Monitor monitor;
    for (const Value& value : values) {
      const auto size = static_cast<SInt32>(value.bytes.size());
      if (!isRestarted) {
        EXPECT_EQ(0, DMSetDevicePreference(1, value.key, value.type, value.bytes.data(), size));
        EXPECT_EQ(0, DMSetDeviceAttribute(2, value.key, value.type, value.bytes.data(), size));
      }
      EXPECT_EQ(value.bytes, Read(1, value, false)) << value.key;
      EXPECT_EQ(value.bytes, Read(2, value, true)) << value.key;
      EXPECT_EQ("error -1701", Read(2, value, false)) << value.key;
      EXPECT_EQ("error -1701", Read(1, value, true)) << value.key;
    }
    EXPECT_EQ(0, DMQuitDaemon());
    monitor.ExpectEnd();
  }
}

TEST(DeviceMonitor, RefusesSettingsThatItCannotStore) {
  Monitor monitor;
  const std::string tooLarge(64 * 1024 + 1, 'x');
  const std::string longKey(256, 'k');
  const auto set = [](SInt32 id, const char* key, const std::string& bytes) {
    return DMSetDevicePreference(id, key, typeChar, bytes.data(),
                                 static_cast<SInt32>(bytes.size()));
  };
  EXPECT_EQ(paramErr, set(0, "k", "x"));
  EXPECT_EQ(paramErr, set(3, "k", "x"));
  EXPECT_EQ(paramErr, set(1, "", "x"));
  EXPECT_EQ(memFullErr, set(1, longKey.c_str(), "x"));
  EXPECT_EQ(memFullErr, set(1, "k", tooLarge));
  AEDescList list = {typeNull, nullptr};
  ProcessSerialNumber nobody = {1, 1};
  EXPECT_EQ(paramErr, DMRegisterForDeviceStatusNotification(&nobody, "port", 0, 0, &list));
  EXPECT_EQ(errAEEventNotHandled, Ask(kPort, kPing).status);
  // If the folder cannot be written to, the sender gets an error and the old value stays.
  EXPECT_EQ(0, set(1, "k", "old"));
  const fs::path store = fs::path(getenv("XDG_CONFIG_HOME")) / "veltrane/preferences";
  ASSERT_TRUE(fs::exists(store));
  const fs::path away = store.parent_path() / "away";
  fs::rename(store, away);
  std::ofstream(store) << "in the way";
  EXPECT_EQ(paramErr, set(1, "k", "new"));
  EXPECT_EQ("old", Read(1, {"k", typeChar, ""}, false));
  fs::remove(store);
  fs::rename(away, store);
  EXPECT_EQ(0, set(1, "k", "new"));
  EXPECT_EQ("new", Read(1, {"k", typeChar, ""}, false));
}

// Describes a notification of a device's status: "param id bits".
std::string HeardStatus(const ServedEvent& served) {
  SInt16 param = 0;
  SInt32 id = 0;
  SInt32 bits = 0;
  EXPECT_EQ(0, GetAEShort(served.event, keyDMStatusParam, &param));
  EXPECT_EQ(0, GetAELong(served.event, keyDMDeviceID, &id));
  EXPECT_EQ(0, GetAELong(served.event, keyStatusBits, &bits));
  return std::to_string(param) + " " + std::to_string(id) + " " + std::to_string(bits);
}

SInt32 StatusOfFirst() {
  AEDescList list = {typeNull, nullptr};
  AERecord record = {typeNull, nullptr};
  SInt32 count = 0;
  SInt32 bits = 0;
  EXPECT_EQ(0, DMGetDeviceStatus(0, &list));
  EXPECT_EQ(0, AECountItems(&list, &count));
  EXPECT_EQ(2, count);
  EXPECT_EQ(0, AEGetNthDesc(&list, 1, typeAERecord, nullptr, &record));
  EXPECT_EQ(0, GetAELong(&record, keyStatusBits, &bits));
  AEDisposeDesc(&record);
  AEDisposeDesc(&list);
  return bits;
}

TEST_ROLE(Digitizer) {
  ProcessSerialNumber own;
  if (GetCurrentProcess(&own) != 0 || DMRegisterRemoteDigitizer(1, own, "cam") != 0) {
    return RoleFailed();
  }
  role.SignalReady();
  role.Hear(60s);
  return kRoleDone;
}

TEST(DeviceMonitor, NotifiesRegisteredProcessesOfAChangeOnce) {
  Monitor monitor;
  const std::string port = UniquePortName();
  std::vector<std::string> heard;
  EventHandler handler = [&](const ServedEvent& served) {
    heard.push_back(HeardStatus(served));
    return OSStatus{0};
  };
  VLTPortAEMachPortListener listener;
  ASSERT_EQ(0, listener.ListenOnPort(port.c_str(), CFRunLoopGetCurrent(), CallHandler, &handler));
  ProcessSerialNumber own;
  ASSERT_EQ(0, GetCurrentProcess(&own));
  AEDescList list = {typeNull, nullptr};
  const auto mask = static_cast<SInt32>(kStatusInUse | kStatusSettingsChanged);
  ASSERT_EQ(0, DMRegisterForDeviceStatusNotification(&own, port.c_str(), -7, mask, &list));
  AEDisposeDesc(&list);

  EXPECT_EQ(0, DMSetDevicePreference(2, "k", typeChar, "x", 1));
  EXPECT_TRUE(RunLoopUntil([&] { return heard.size() == 1; }, 20s));
  EXPECT_EQ(0x10, StatusOfFirst());
  ReadyProcess digitizer("Digitizer");
  EXPECT_TRUE(RunLoopUntil([&] { return heard.size() == 2; }, 20s));
  EXPECT_EQ((std::vector<std::string>{"-7 2 80", "-7 1 48"}), heard);
  EXPECT_EQ(0x30, StatusOfFirst());
  digitizer.KillAndWait(20s);
  EXPECT_EQ(0x10, StatusOfFirst());  // in use as long as its user lives

  // A process that is gone is forgotten and delays nobody.
  listener.Deallocate(0);
  EXPECT_EQ(0, DMSetDevicePreference(2, "k", typeChar, "y", 1));
  EXPECT_EQ(2u, heard.size());
}

// What `vltctl devices --watch` prints.
class WatchingTool {
 public:
  explicit WatchingTool(std::vector<std::string> words) {
    ChildOptions options;
    options.arguments = TestLauncher();
    options.arguments.push_back(VLTCTL_PROGRAM);
    options.arguments.insert(options.arguments.end(), words.begin(), words.end());
    options.capture = true;
    EXPECT_TRUE(child.Start(options));
  }
  // Waits until as many lines are there, and returns all that have come.
  std::string Output(std::ptrdiff_t lines) {
    EXPECT_TRUE(WaitUntil(
        [&] {
          const std::string text = child.Output();
          return std::count(text.begin(), text.end(), '\n') >= lines;
        },
        60s))
        << child.Output() << child.Errors();
    return child.Output();
  }
  ChildProcess child;
};

TEST(DeviceMonitor, NoticesDevicesThatComeAndGoAndTellsThoseWhoWatch) {
  OpenDescriptorCheck noLeaks;
  Monitor monitor;
  WatchingTool devices({"devices", "--watch"});
  std::string expected = "present  1  Old camera\npresent  2  New camera\n";
  EXPECT_EQ(expected, devices.Output(2));
  WatchingTool status({"device-status", "--watch", "--mask", "0x10", "--count", "4"});
  status.Output(2);

  monitor.Plug("video2");
  EXPECT_EQ(expected +=
            "added    3  K\xC3\xBC"
            "che\n",
            devices.Output(3));
  SInt32 id = 0;
  EXPECT_EQ(0, DMGetDeviceID("video", "video2", id));
  EXPECT_EQ(3, id);
  EXPECT_EQ(0, DMSetDevicePreference(3, "k", typeChar, "x", 1));
  monitor.Unplug("video2");
  EXPECT_EQ(expected +=
            "removed  3  K\xC3\xBC"
            "che\n",
            devices.Output(4));
  EXPECT_EQ(0, status.child.Wait(60s));
  EXPECT_EQ(
      "DvI#:long=1  DvSt:long=16  DvNm:text=Old camera\n"
      "DvI#:long=2  DvSt:long=16  DvNm:text=New camera\n"
      "DvI#:long=3  DvSt:long=16  DvNm:text=K\xC3\xBC"
      "che\n"
      "DvI#:long=3  DvSt:long=0  DvNm:text=K\xC3\xBC"
      "che\n",
      status.child.Output());
  // A device that has gone cannot be used, and gets its number and its settings back.
  EXPECT_EQ(fnfErr, DMGetDeviceID("video", "video2", id));
  EXPECT_EQ("error -50", Read(3, {"k", typeChar, ""}, false));
  SInt32 count = 0;
  EXPECT_EQ(0, DMGetDeviceIDs(nullptr, 0, &count));
  EXPECT_EQ(2, count);
  monitor.Plug("video2");
  EXPECT_EQ(expected +=
            "added    3  K\xC3\xBC"
            "che\n",
            devices.Output(5));
  EXPECT_EQ("x", Read(3, {"k", typeChar, ""}, false));
  // A name that changes.
  EXPECT_EQ(0, DMSetDeviceAttribute(3, "name", typeChar, "Bath", 4));
  EXPECT_EQ(expected += "renamed  3  Bath\n", devices.Output(6));
  EXPECT_EQ(0, DMSetDeviceAttribute(3, "name", typeChar,
                                    "K\x9F"
                                    "che",
                                    5));
  EXPECT_EQ(expected +=
            "renamed  3  K\xC3\xBC"
            "che\n",
            devices.Output(7));

  // Nothing is lost with the kernel's events. The list is read again once it has been written, and
  // one that cannot be read changes nothing.
  monitor.Signal(SIGSTOP);
  monitor.OverflowQueue();
  monitor.Unplug("video2");
  monitor.Signal(SIGCONT);
  EXPECT_EQ(expected +=
            "removed  3  K\xC3\xBC"
            "che\n",
            devices.Output(8));
  monitor.WriteList("no property list");
  monitor.WriteList("<plist version=\"1.0\"><dict><key>devices</key><array/></dict></plist>");
  EXPECT_EQ(expected += "removed  1  Old camera\n", devices.Output(9));

  // Another monitor has other devices.
  EXPECT_EQ(0, DMQuitDaemon());
  EXPECT_EQ(expected += "removed  2  New camera\n", devices.Output(10));
  EXPECT_TRUE(WaitUntil([&] { return !devices.child.Errors().empty(); }, 60s));
  EXPECT_EQ("vltctl: devices: the device monitor has ended; waiting for another one\n",
            devices.child.Errors());
  const Monitor other;
  EXPECT_EQ(expected += "added    1  Old camera\nadded    2  New camera\n", devices.Output(12));
  EXPECT_EQ(0,
            RunVerb({"quit"}, {"com.veltrane.vltctl.watch." + std::to_string(devices.child.Pid())})
                .status);
  EXPECT_EQ(0, devices.child.Wait(60s));
}

TEST(DeviceMonitor, AWatchThatIsInterruptedLeavesNothing) {
  OpenDescriptorCheck noLeaks;
  const Monitor monitor;
  WatchingTool devices({"devices", "--watch", "--json"});
  EXPECT_EQ(
      "{\"change\":\"present\",\"id\":1,\"name\":\"Old camera\"}\n"
      "{\"change\":\"present\",\"id\":2,\"name\":\"New camera\"}\n",
      devices.Output(2));
  devices.child.Signal(SIGINT);
  EXPECT_EQ(-SIGINT, devices.child.Wait(60s));
  EXPECT_TRUE(
      WaitForNoPort("com.veltrane.vltctl.watch." + std::to_string(devices.child.Pid()), 60s));
  EXPECT_EQ(0, DMSetDevicePreference(2, "k", typeChar, "z", 1));
}

TEST(DeviceMonitor, KeepsEveryCharacterOfATextOrRefusesIt) {
  constexpr char kTexts[] = R"(<plist version="1.0"><dict><key>devices</key><array>
    <dict><key>bus</key><string>a</string><key>serial</key><string>1</string>
      <key>attributes</key><dict><key>name</key><string>Küche</string></dict></dict>
    <dict><key>bus</key><string>a</string><key>serial</key><string>2</string>
      <key>attributes</key><dict><key>name</key><string>Küche 日本</string></dict></dict>
    <dict><key>bus</key><string>a</string><key>serial</key><string>日本</string></dict>
    <dict><key>bus</key><string>日本</string></dict>
    </array></dict></plist>)";
  const ScratchFolder folder;
  std::vector<Device> devices;
  const DeviceSources sources = {folder.File("list.plist", kTexts), folder.Folder("video"),
                                 folder.Folder("nodes")};
  for (const char* const name : {"video0", "video1"}) {
    folder.File("video/" + std::string(name) + "/name", "\xC3\xBC\xE6\x97\xA5\n");
  }
  folder.File("nodes/video1");
  EXPECT_EQ(0, FindDevices(sources, devices));
  // No client could name the others of the list, and a device without a node has gone.
  ASSERT_EQ(3u, devices.size());
  const Setting names[] = {{typeChar,
                            "K\x9F"
                            "che"},
                           {typeUTF8Text,
                            "K\xC3\xBC"
                            "che \xE6\x97\xA5\xE6\x9C\xAC"},
                           {typeUTF8Text, "\xC3\xBC\xE6\x97\xA5"}};
  VLTDictionary stored;
  for (size_t i = 0; i < 3; ++i) {
    const Setting& name = devices[i].attributes["name"];
    EXPECT_EQ(names[i].type, name.type);
    EXPECT_EQ(names[i].bytes, name.bytes);
    SettingTable again;
    EXPECT_EQ(0, StoreSettings(stored, "attributes", devices[i].attributes));
    LoadSettings(stored, "attributes", again);
    EXPECT_EQ(names[i].type, again["name"].type);
    EXPECT_EQ(names[i].bytes, again["name"].bytes);
  }
  // Kept in a form that people can read and write.
  VLTDictionary table, entry;
  EXPECT_EQ(0, stored.getDictionary("attributes", table));
  EXPECT_EQ(0, table.getDictionary("name", entry));
  CFStringRef text = nullptr;
  EXPECT_EQ(0, entry.getString("value", text));
  EXPECT_EQ("\xC3\xBC\xE6\x97\xA5", TextSettingOfBytes("\xC3\xBC\xE6\x97\xA5").bytes);
  EXPECT_EQ("\xFF", TextSettingOfBytes("\xFF").bytes);
}

TEST(DeviceMonitor, ServesOneSessionUnderItsOwnName) {
  const std::string port = std::string(kPort) + ".abc123";
  Monitor mine({"--session"}, port.c_str());
  const char* name = nullptr;
  EXPECT_EQ(0, DMGetDeviceMonitorPortName(name));
  EXPECT_STREQ(port.c_str(), name);
  Monitor everyones;
  EXPECT_EQ(0, DMGetDeviceMonitorPortName(name));
  EXPECT_STREQ(kPort, name);
  EXPECT_EQ(0, DMQuitDaemon());
  everyones.ExpectEnd();
  EXPECT_EQ(0, DMQuitDaemon());
  mine.ExpectEnd();
  EXPECT_EQ(0, DMQuitDaemon());  // no daemon to quit counts as success
}

TEST(DeviceMonitor, ServesTheCommandLineTool) {
  Monitor monitor;
  const std::vector<VerbRun> runs = {
      {{"devices"}, 0, "1  Old camera\n2  New camera\n", ""},
      {{"devices", "--json"},
       0,
       "{\"id\":1,\"name\":\"Old camera\"}\n{\"id\":2,\"name\":\"New camera\"}\n",
       ""},
      {{"device", "1", "set", "gr\xC3\xBC\xC3\x9F", "float", "1.5"}, 0, "", ""},
      {{"device", "1", "get", "gr\xC3\xBC\xC3\x9F"}, 0, "gr\xC3\xBC\xC3\x9F:float=1.5\n", ""},
      {{"device", "1", "get", "gr\xC3\xBC\xC3\x9F", "--attribute"}, 5, "", "errAEDescNotFound"},
      {{"device", "2", "set", "rate", "'ABCD'", "00ff", "--attribute", "--json"},
       0,
       "{\"device\":2,\"key\":\"rate\",\"attribute\":true,\"error\":{\"number\":0,\"name\":"
       "\"noErr\"},\"value\":{\"type\":\"ABCD\",\"hex\":\"00ff\"}}\n",
       ""},
      {{"device", "9", "get", "rate", "--json"},
       5,
       "{\"device\":9,\"key\":\"rate\",\"attribute\":false,\"error\":{\"number\":-50,\"name\":"
       "\"paramErr\"},\"value\":null}\n",
       "paramErr"},
      {{"device-status"},
       0,
       "DvI#:long=1  DvSt:long=16  DvNm:text=Old camera\n"
       "DvI#:long=2  DvSt:long=16  DvNm:text=New camera\n",
       ""},
      {{"device", "1", "set", "name", "text", "\xE6\x97\xA5", "--attribute"}, 2, "", "use utf8"},
      {{"device", "1", "set", "name", "utf8", "\xE6\x97\xA5", "--attribute"}, 0, "", ""},
      {{"devices"}, 0, "1  \xE6\x97\xA5\n2  New camera\n", ""},
      {{"device-status"},
       0,
       "DvI#:long=1  DvSt:long=16  DvNm:utf8=\xE6\x97\xA5\n"
       "DvI#:long=2  DvSt:long=16  DvNm:text=New camera\n",
       ""},
      {{"device", "1", "set", "name", "text", "Old camera", "--attribute"}, 0, "", ""},
      {{"devices", "--watch", "--count", "0"}, 2, "", "\"0\" is not a number above 0"},
      {{"device", "1", "set", "k", "long", "many"}, 2, "", "\"many\" is not a value of type long"},
      {{"quit", kPort}, 0, "", ""},
      {{"devices", "--watch"}, 3, "", "the device monitor (com.veltrane.vltdeviced.1.1) is not"},
      {{"devices"}, 3, "", "the device monitor (com.veltrane.vltdeviced.1.1) is not running"},
  };
  // Longer than the room of the tool's first attempt.
  const std::string text(5000, 'x');
  ExpectRuns({"device", "1"}, {{{"set", "long", "text", text}, 0, "", ""},
                               {{"get", "long"}, 0, "long:text=" + text + "\n", ""}});
  ExpectRuns({}, runs);
  monitor.ExpectEnd();
}

}  // namespace
