#pragma once

#include <CoreServices/CoreServices.h>

#include "examples/device_monitor/device.h"
#include "examples/device_monitor/device_service.h"
#include "examples/device_monitor/folder_watch.h"

// Hotplug keeps the devices of a service up to date: it watches the list file, the kernel's list of
// video devices and their nodes, and lists the devices again after each change there. One thread.
class Hotplug {
 public:
  Hotplug(DeviceSources from, DeviceService& toUpdate);  // the service is borrowed

  // Begins to watch on the current run loop, and lists the devices once. Returns false if changes
  // cannot be noticed; the devices are listed all the same.
  bool Start();

 private:
  void Look();

  const DeviceSources sources;
  DeviceService& service;
  FolderWatch watch;
};
