#include "examples/device_monitor/device.h"

#include <CoreFoundation/CoreFoundation.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "clients/device_protocol.h"
#include "plist/preferences.h"

namespace {

namespace fs = std::filesystem;

SInt32 NumberOf(VLTDictionaryBase& entry, const char* key) {
  SInt32 number = 0;
  entry.getLong(key, number);
  return number;
}

void AddListedDevice(CFDictionaryRef listed, std::vector<Device>& devices) {
  VLTDictionary entry(listed);
  Device device;
  device.bus = TextOf(entry, "bus");
  if (device.bus.empty()) return;
  device.vendorID = static_cast<SInt16>(NumberOf(entry, "vendorID"));
  device.productID = static_cast<SInt16>(NumberOf(entry, "productID"));
  device.location = NumberOf(entry, "location");
  device.serial = TextOf(entry, "serial");
  UInt32 typeID = 0;
  if (device.serial.empty() && entry.getType("serial", typeID, nullptr) == 0) return;
  LoadSettings(entry, "attributes", device.attributes);
  devices.push_back(device);
}

// Returns the first line of a small file, or "".
std::string LineOf(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

int Parse(const std::string& text, int base) {
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

// Makes the location of bus number and path: "1" and "4.2" become 0x01420000.
SInt32 LocationOf(int bus, const std::string& ports) {
  UInt32 location = static_cast<UInt32>(bus) << 24;
  int shift = 20;
  for (size_t at = 0; at < ports.size() && shift >= 0; shift -= 4) {
    const size_t dot = std::min(ports.find('.', at), ports.size());
    location |= (static_cast<UInt32>(Parse(ports.substr(at, dot - at), 10)) & 0xF) << shift;
    at = dot + 1;
  }
  return static_cast<SInt32>(location);
}

Device VideoDevice(const fs::path& entry) {
  std::error_code ignored;
  const fs::path interface = fs::canonical(entry / "device", ignored);
  const fs::path usb = interface.parent_path();
  Device device;
  const std::string vendor = LineOf(usb / "idVendor");
  if (!vendor.empty()) {
    device.bus = kDMUSBBus;
    device.vendorID = static_cast<SInt16>(Parse(vendor, 16));
    device.productID = static_cast<SInt16>(Parse(LineOf(usb / "idProduct"), 16));
    device.location = LocationOf(Parse(LineOf(usb / "busnum"), 10), LineOf(usb / "devpath"));
  } else {
    device.bus = "video";
    device.serial = interface.filename();
  }
  device.attributes["name"] = TextSettingOfBytes(LineOf(entry / "name"));
  device.attributes["node"] = TextSettingOfBytes("/dev/" + entry.filename().string());
  return device;
}

// The entry of a device that has gone may outlive its node for a moment.
bool HasNode(const std::string& folder, const fs::path& entry) {
  std::error_code ignored;
  return folder.empty() || fs::exists(folder / entry.filename(), ignored);
}

void AddVideoDevices(const DeviceSources& sources, std::vector<Device>& devices) {
  std::error_code failed;
  std::vector<fs::path> entries;
  fs::directory_iterator entry(sources.videoFolder, failed), end;
  for (; !failed && entry != end; entry.increment(failed)) entries.push_back(entry->path());
  std::sort(entries.begin(), entries.end());
  for (const fs::path& each : entries) {
    // A device has more entries for data other than pictures; only the first one counts.
    const bool isFirst = Parse(LineOf(each / "index"), 10) == 0;
    if (isFirst && HasNode(sources.nodeFolder, each)) devices.push_back(VideoDevice(each));
  }
}

}  // namespace

const char kDeviceMonitorDomain[] = "com.veltrane.devicemonitor.1.1";

std::string Device::Identity() const {
  if (bus != kDMUSBBus) return bus + " " + serial;
  char text[64];
  std::snprintf(text, sizeof text, "%s %04x:%04x at %08x", kDMUSBBus,
                static_cast<unsigned>(static_cast<UInt16>(vendorID)),
                static_cast<unsigned>(static_cast<UInt16>(productID)),
                static_cast<unsigned>(location));
  return text;
}

void AddListedDevices(VLTDictionaryBase& list, std::vector<Device>& devices) {
  CFArrayRef array = nullptr;
  if (list.getArray("devices", array) != 0) return;
  for (CFIndex i = 0; i < CFArrayGetCount(array); ++i) {
    const void* listed = CFArrayGetValueAtIndex(array, i);
    if (CFGetTypeID(listed) == CFDictionaryGetTypeID()) {
      AddListedDevice(static_cast<CFDictionaryRef>(listed), devices);
    }
  }
}

OSStatus FindDevices(const DeviceSources& sources, std::vector<Device>& devices) {
  OSStatus err = 0;
  if (sources.listFile.empty()) {
    VLTPreferences list(kDeviceMonitorDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost);
    AddListedDevices(list, devices);
  } else {
    VLTDictionary list;
    err = list.load(sources.listFile.c_str(), false);
    AddListedDevices(list, devices);
  }
  AddVideoDevices(sources, devices);
  return err;
}
