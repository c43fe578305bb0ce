#include "examples/device_monitor/hotplug.h"

#include <cstdio>
#include <filesystem>
#include <utility>

Hotplug::Hotplug(DeviceSources from, DeviceService& toUpdate)
    : sources(std::move(from)),
      service(toUpdate),
      watch(CFRunLoopGetCurrent(), [this] { Look(); }) {}

bool Hotplug::Start() {
  const bool isWatching = watch.Start();
  Look();
  return isWatching;
}

// Watches first and lists then, so that no change falls between the two. The folders are watched
// again each time, because one may be new.
void Hotplug::Look() {
  const std::filesystem::path list = sources.listFile;
  if (!list.empty()) {
    watch.Add(list.has_parent_path() ? list.parent_path().string() : ".", list.filename());
  }
  for (const std::string& folder : {sources.videoFolder, sources.nodeFolder}) {
    if (!folder.empty()) watch.Add(folder);
  }
  std::vector<Device> devices;
  const OSStatus err = FindDevices(sources, devices);
  if (err == 0) return service.Update(std::move(devices));
  std::fprintf(stderr, "device_monitor: %s cannot be read (%d); the devices stay as they were\n",
               sources.listFile.c_str(), static_cast<int>(err));
}
