#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "examples/device_monitor/device.h"
#include "plist/preferences.h"

// The parameters of status lists and notifications besides keyDMDeviceID.
enum : AEKeyword {
  keyStatusBits = FourCC('D', 'v', 'S', 't'),  // long
  keyStatusName = FourCC('D', 'v', 'N', 'm'),  // TEXT or utf8: the attribute "name", or ""
};

// Bits of a status, and of the mask that selects the changes a registered process is notified of.
enum : UInt32 {
  kStatusPresent = 0x10,          // also selects the devices that come and go
  kStatusInUse = 0x20,            // a process captures pictures from it
  kStatusSettingsChanged = 0x40,  // in notifications only
};

// The notification. It is sent to the port name in a registration's key and needs no reply.
constexpr AEEventID kStatusChangedEvent = FourCC('D', 'v', 'S', 'C');

// DeviceService handles the device monitor's events. It owns the devices and the registrations, and
// stores settings in the preferences, so that they survive a restart. Use it only on the thread
// whose run loop its listener is attached to.
class DeviceService {
 public:
  DeviceService();

  // Makes `found` the devices that are present. New ones get the next ids, from 1 on, and their
  // stored settings. A device that has gone keeps its id until the monitor ends, for when it comes
  // back, unless very many others have gone since. Notifies the registered processes of both.
  void Update(std::vector<Device> found);

  // The listener's dispatch callback. `refcon` is the service.
  static OSStatus Dispatch(UInt32 eventClass, UInt32 eventID, const AEDesc* event, AEDesc* reply,
                           void* refcon);

 private:
  using Handler = OSStatus (DeviceService::*)(const AEDesc& event, AEDesc& reply);
  struct Row {
    AEEventClass eventClass;
    AEEventID eventID;
    Handler handler;
  };
  struct Registration {
    ProcessSerialNumber psn;
    std::string portName;
    SInt16 param;
    UInt32 mask;
  };
  using Table = SettingTable Device::*;

  OSStatus GetDeviceIDs(const AEDesc& event, AEDesc& reply);
  OSStatus GetDeviceID(const AEDesc& event, AEDesc& reply);
  OSStatus SetPreference(const AEDesc& event, AEDesc& reply);
  OSStatus SetAttribute(const AEDesc& event, AEDesc& reply);
  OSStatus GetPreference(const AEDesc& event, AEDesc& reply);
  OSStatus GetAttribute(const AEDesc& event, AEDesc& reply);
  OSStatus RegisterDigitizer(const AEDesc& event, AEDesc& reply);
  OSStatus RegisterForStatus(const AEDesc& event, AEDesc& reply);
  OSStatus Quit(const AEDesc& event, AEDesc& reply);

  void Restore(Device& device);
  void ForgetOldest();
  OSStatus FindDevice(const AEDesc& event, Device*& found);
  OSStatus FindSetting(const AEDesc& event, Device*& device, std::string& key);
  OSStatus Get(Table table, const AEDesc& event, AEDesc& reply);
  OSStatus Set(Table table, const AEDesc& event);
  OSStatus Store(const Device& device);
  OSStatus Register(const Registration& registration);
  OSStatus ListStatus(AEDesc& reply);
  void Notify(const Device& device, UInt32 changed);

  static const Row kRows[];

  std::vector<Device> devices;  // by id; also those that have gone
  SInt32 lastID = 0;
  std::vector<Registration> registrations;
  VLTPreferences store;
};
