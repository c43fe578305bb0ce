#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "examples/device_monitor/setting.h"

// A capture device: what identifies it, which process uses it, and its two tables of settings.
// Plain data; one thread at a time.
struct Device {
  SInt32 id = 0;    // assigned by the monitor, valid as long as the monitor runs
  std::string bus;  // "USB", or another bus's name
  SInt16 vendorID = 0;
  SInt16 productID = 0;
  SInt32 location = 0;  // on the USB: the bus in the top byte, then four bits for each port
  std::string serial;   // on another bus: the text that identifies the device there
  SettingTable preferences;
  SettingTable attributes;
  ProcessSerialNumber digitizer = {0, kNoProcess};  // the process that captures pictures from it
  bool isPresent = true;  // a device that has gone keeps its id, in case that it comes back

  // Returns the key under which the device's settings are stored. It is the same at every start.
  std::string Identity() const;
};

// The preferences domain of the settings, and of "devices" if no list file is given.
extern const char kDeviceMonitorDomain[];

// Where devices are found.
struct DeviceSources {
  std::string listFile;     // a property list; "": the preferences
  std::string videoFolder;  // the kernel's list of video devices: a folder for each device, with a
                            // file "name" and a link "device" to the bus's description
  std::string nodeFolder;   // where the devices' nodes are; "": not looked at
};

// Adds the devices of the list and then those of the machine. Returns the error of reading the list
// file.
OSStatus FindDevices(const DeviceSources& sources, std::vector<Device>& devices);

// Adds the devices of the property list's array "devices". Each is a dictionary with "bus"; with
// "vendorID", "productID" and "location" on the USB, else with "serial"; and with "attributes", a
// dictionary of settings. Entries without a bus are ignored. So are those whose bus or serial is
// not Mac Roman text, since no client could name them.
void AddListedDevices(VLTDictionaryBase& list, std::vector<Device>& devices);
