#pragma once

#include <CoreServices/CoreServices.h>

#include <string>
#include <vector>

#include "examples/device_monitor/setting.h"

// A capture device: what tells it from all others, who uses it, and its two tables of settings.
// Plain data, one thread at a time.
struct Device {
  SInt32 id = 0;    // given by the monitor, good as long as it runs
  std::string bus;  // "USB", or another bus's name
  SInt16 vendorID = 0;
  SInt16 productID = 0;
  SInt32 location = 0;  // on the USB: the bus in the top byte, then a port each four bits
  std::string serial;   // on another bus: the text that names it there
  SettingTable preferences;
  SettingTable attributes;
  ProcessSerialNumber digitizer = {0, kNoProcess};  // who takes pictures from it

  // The same for the same device at every start: what its settings are stored under.
  std::string Identity() const;
};

// Devices in the property list's array "devices", each a dictionary with "bus", and "vendorID",
// "productID" and "location" on the USB, else "serial"; "attributes" is a dictionary of settings.
// Entries without a bus are passed over.
void AddListedDevices(VLTDictionaryBase& list, std::vector<Device>& devices);

// The machine's own video devices, as the kernel tells in `folder`: an entry for each, with its
// "name" and, below "device", what the bus knows. Nothing without such a folder.
void AddVideoDevices(const std::string& folder, std::vector<Device>& devices);
