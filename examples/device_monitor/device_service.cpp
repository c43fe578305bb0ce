#include "examples/device_monitor/device_service.h"

#include <Carbon/Carbon.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "aeport/event.h"
#include "aeport/param_copy.h"
#include "aeport/params.h"
#include "clients/device_protocol.h"

// The service limits what a client can make it store, and how long a client that does not read its
// notifications can delay it: after one short wait the client's registration is removed.

namespace {

constexpr size_t kLongestText = 255;
constexpr size_t kMostRegistrations = 64;
constexpr size_t kMostGone = 256;   // devices that are remembered after they have gone
constexpr SInt32 kNotifyTicks = 6;  // 1/60 s

// Reads the value with the type that it has in the event.
OSStatus ReadValue(const AEDesc& event, Setting& value) {
  void* data = nullptr;
  Size size = 0;
  OSStatus err = AESizeOfParam(&event, keyDMSettingValue, &value.type, &size);
  if (err == 0 && size > static_cast<Size>(kLargestSetting)) err = memFullErr;
  if (err == 0) {
    err =
        AECopyParamData(&event, keyDMSettingValue, typeWildCard, data, &size, &value.type, nullptr);
  }
  if (err == 0) value.bytes.assign(static_cast<const char*>(data), static_cast<size_t>(size));
  DisposePtr(static_cast<Ptr>(data));
  return err;
}

OSStatus ReadText(const AEDesc& event, AEKeyword key, std::string& text) {
  unsigned char bytes[kLongestText];
  SInt32 count = sizeof bytes;
  const OSStatus err = GetAEText(&event, key, bytes, count);
  if (err != 0) return err;
  if (count > SInt32{sizeof bytes}) return memFullErr;  // the whole text's, cut or not
  text.assign(bytes, bytes + count);
  return text.find('\0') == std::string::npos ? OSStatus{0} : paramErr;
}

OSStatus ReadProcess(const AEDesc& event, ProcessSerialNumber& psn) {
  psn = {0, kNoProcess};
  return AEGetParamPtr(&event, keyDMProcess, typeProcessSerialNumber, nullptr, &psn, sizeof psn,
                       nullptr);
}

bool IsAlive(const ProcessSerialNumber& psn) {
  pid_t pid = 0;
  return GetProcessPID(&psn, &pid) == 0;
}

UInt32 StatusOf(const Device& device) {
  return (device.isPresent ? UInt32{kStatusPresent} : 0) |
         (IsAlive(device.digitizer) ? UInt32{kStatusInUse} : 0);
}

OSStatus PutStatus(AEDesc& record, const Device& device, UInt32 bits) {
  const auto status = static_cast<SInt32>(bits);
  const auto found = device.attributes.find("name");
  Setting name = found != device.attributes.end() ? found->second : Setting();
  if (name.type != typeChar && name.type != typeUTF8Text) name = {typeChar, ""};
  OSStatus err = PutAELong(&record, keyDMDeviceID, &device.id);
  if (err == 0) err = PutAELong(&record, keyStatusBits, &status);
  if (err == 0) {
    err = AEPutParamPtr(&record, keyStatusName, name.type, name.bytes.data(),
                        static_cast<Size>(name.bytes.size()));
  }
  return err;
}

}  // namespace

// All events that the service handles.
const DeviceService::Row DeviceService::kRows[] = {
    {kCoreEventClass, kAEQuitApplication, &DeviceService::Quit},
    {kDMEventClass, kDMGetDeviceIDs, &DeviceService::GetDeviceIDs},
    {kDMEventClass, kDMGetDeviceID, &DeviceService::GetDeviceID},
    {kDMEventClass, kDMSetPreference, &DeviceService::SetPreference},
    {kDMEventClass, kDMSetAttribute, &DeviceService::SetAttribute},
    {kDMEventClass, kDMGetPreference, &DeviceService::GetPreference},
    {kDMEventClass, kDMGetAttribute, &DeviceService::GetAttribute},
    {kDMEventClass, kDMRegisterDigitizer, &DeviceService::RegisterDigitizer},
    {kDMEventClass, kDMRegisterForStatus, &DeviceService::RegisterForStatus},
};

DeviceService::DeviceService()
    : store(kDeviceMonitorDomain, kCFPreferencesCurrentUser, kCFPreferencesAnyHost) {}

void DeviceService::Restore(Device& device) {
  VLTDictionary stored;
  if (store.getDictionary(device.Identity().c_str(), stored) != 0) return;
  LoadSettings(stored, "preferences", device.preferences);
  LoadSettings(stored, "attributes", device.attributes);
}

void DeviceService::Update(std::vector<Device> found) {
  const size_t known = devices.size();
  std::vector<bool> isFound(known);
  std::vector<SInt32> changed;
  for (Device& each : found) {
    size_t at = 0;
    while (at < known && (isFound[at] || devices[at].Identity() != each.Identity())) ++at;
    if (at < known) isFound[at] = true;
    if (at < known && devices[at].isPresent) continue;
    each.id = at < known ? devices[at].id : ++lastID;
    Restore(each);
    changed.push_back(each.id);
    if (at < known) {
      devices[at] = std::move(each);
    } else {
      devices.push_back(std::move(each));
    }
  }
  for (size_t at = 0; at < known; ++at) {
    if (isFound[at] || !devices[at].isPresent) continue;
    devices[at].isPresent = false;
    devices[at].digitizer = {0, kNoProcess};
    changed.push_back(devices[at].id);
  }
  for (const Device& device : devices) {
    if (std::find(changed.begin(), changed.end(), device.id) != changed.end()) {
      Notify(device, kStatusPresent);
    }
  }
  ForgetOldest();
}

// Removes the devices with the lowest ids among those that have gone, if there are too many.
void DeviceService::ForgetOldest() {
  const auto isGone = [](const Device& device) { return !device.isPresent; };
  auto surplus = std::count_if(devices.begin(), devices.end(), isGone);
  std::erase_if(devices, [&](const Device& device) {
    return isGone(device) && surplus-- > static_cast<ptrdiff_t>(kMostGone);
  });
}

// If this returns 0, the sender gets the reply as the handler filled it. Any other number becomes
// the result of the sender's request.
OSStatus DeviceService::Dispatch(UInt32 eventClass, UInt32 eventID, const AEDesc* event,
                                 AEDesc* reply, void* refcon) {
  auto* const service = static_cast<DeviceService*>(refcon);
  for (const Row& row : kRows) {
    if (row.eventClass == eventClass && row.eventID == eventID) {
      return (service->*row.handler)(*event, *reply);
    }
  }
  return errAEEventNotHandled;
}

OSStatus DeviceService::Quit(const AEDesc&, AEDesc&) {
  QuitApplicationEventLoop();
  return 0;
}

OSStatus DeviceService::GetDeviceIDs(const AEDesc&, AEDesc& reply) {
  std::vector<SInt32> ids;
  for (const Device& device : devices) {
    if (device.isPresent) ids.push_back(device.id);
  }
  ids.reserve(1);  // also an empty array needs a pointer
  return PutAELongArray(&reply, keyDMDeviceIDs, ids.data(), static_cast<SInt32>(ids.size()));
}

OSStatus DeviceService::GetDeviceID(const AEDesc& event, AEDesc& reply) {
  Device wanted;
  OSStatus err = ReadText(event, keyDMBus, wanted.bus);
  if (err == 0 && wanted.bus == kDMUSBBus) {
    err = GetAEShort(&event, keyDMVendorID, &wanted.vendorID);
    if (err == 0) err = GetAEShort(&event, keyDMProductID, &wanted.productID);
    if (err == 0) err = GetAELong(&event, keyDMLocation, &wanted.location);
  } else if (err == 0) {
    err = ReadText(event, keyDMSerial, wanted.serial);
  }
  if (err != 0) return err;
  for (const Device& device : devices) {
    if (device.isPresent && device.Identity() == wanted.Identity()) {
      return PutAELong(&reply, keyDMDeviceID, &device.id);
    }
  }
  return fnfErr;
}

// Returns paramErr if there is no such device.
OSStatus DeviceService::FindDevice(const AEDesc& event, Device*& found) {
  SInt32 id = 0;
  const OSStatus err = GetAELong(&event, keyDMDeviceID, &id);
  if (err != 0) return err;
  for (Device& device : devices) {
    if (device.id != id || !device.isPresent) continue;
    found = &device;
    return 0;
  }
  return paramErr;
}

OSStatus DeviceService::FindSetting(const AEDesc& event, Device*& device, std::string& key) {
  OSStatus err = FindDevice(event, device);
  if (err == 0) err = ReadText(event, keyDMSettingKey, key);
  return err;
}

OSStatus DeviceService::Get(Table table, const AEDesc& event, AEDesc& reply) {
  Device* device = nullptr;
  std::string key;
  const OSStatus err = FindSetting(event, device, key);
  if (err != 0) return err;
  const auto found = (device->*table).find(key);
  if (found == (device->*table).end()) return errAEDescNotFound;
  const Setting& setting = found->second;
  return AEPutParamPtr(&reply, keyDMSettingValue, setting.type, setting.bytes.data(),
                       static_cast<Size>(setting.bytes.size()));
}

// If a value cannot be stored, the sender gets the error and the old value is kept.
OSStatus DeviceService::Set(Table table, const AEDesc& event) {
  Device* device = nullptr;
  std::string key;
  Setting setting;
  OSStatus err = FindSetting(event, device, key);
  if (err == 0) err = ReadValue(event, setting);
  if (err == 0 && key.empty()) err = paramErr;
  if (err != 0) return err;

  Device changed = *device;
  (changed.*table)[key] = setting;
  if ((changed.*table).size() > kMostSettings) return memFullErr;
  err = Store(changed);
  if (err != 0) {
    Store(*device);
    return err;
  }
  *device = std::move(changed);
  Notify(*device, kStatusSettingsChanged);
  return 0;
}

OSStatus DeviceService::Store(const Device& device) {
  VLTDictionary stored;
  OSStatus err = StoreSettings(stored, "preferences", device.preferences);
  if (err == 0) err = StoreSettings(stored, "attributes", device.attributes);
  if (err == 0) err = store.setDictionary(device.Identity().c_str(), stored);
  return err == 0 ? store.commit() : err;
}

OSStatus DeviceService::GetPreference(const AEDesc& event, AEDesc& reply) {
  return Get(&Device::preferences, event, reply);
}
OSStatus DeviceService::GetAttribute(const AEDesc& event, AEDesc& reply) {
  return Get(&Device::attributes, event, reply);
}
OSStatus DeviceService::SetPreference(const AEDesc& event, AEDesc&) {
  return Set(&Device::preferences, event);
}
OSStatus DeviceService::SetAttribute(const AEDesc& event, AEDesc&) {
  return Set(&Device::attributes, event);
}

// A device has at most one digitizer: the process that registered last, until it ends.
OSStatus DeviceService::RegisterDigitizer(const AEDesc& event, AEDesc&) {
  Device* device = nullptr;
  std::string key;
  ProcessSerialNumber psn;
  OSStatus err = FindSetting(event, device, key);
  if (err == 0) err = ReadProcess(event, psn);
  if (err == 0 && !IsAlive(psn)) err = paramErr;
  if (err != 0) return err;
  device->digitizer = psn;
  Notify(*device, kStatusInUse);
  return 0;
}

OSStatus DeviceService::RegisterForStatus(const AEDesc& event, AEDesc& reply) {
  Registration registration = {};
  SInt32 mask = 0;
  OSStatus err = ReadText(event, keyDMSettingKey, registration.portName);
  if (err == 0) err = ReadProcess(event, registration.psn);
  if (err == 0) err = GetAELong(&event, keyDMStatusMask, &mask);
  registration.mask = static_cast<UInt32>(mask);
  if (err == 0 && (registration.mask & kDMStatusOnce) == 0) {
    err = GetAEShort(&event, keyDMStatusParam, &registration.param);
    if (err == 0) err = Register(registration);
  }
  return err == 0 ? ListStatus(reply) : err;
}

// There is one registration for each process and port. Registrations of processes that have ended
// are removed first.
OSStatus DeviceService::Register(const Registration& registration) {
  if (registration.portName.empty() || !IsAlive(registration.psn)) return paramErr;
  std::erase_if(registrations, [&](const Registration& each) {
    Boolean isSame = false;
    SameProcess(&each.psn, &registration.psn, &isSame);
    return !IsAlive(each.psn) || (isSame && each.portName == registration.portName);
  });
  if (registrations.size() == kMostRegistrations) return memFullErr;
  registrations.push_back(registration);
  return 0;
}

OSStatus DeviceService::ListStatus(AEDesc& reply) {
  AEDescList list;
  OSStatus err = AECreateList(nullptr, 0, false, &list);
  for (const Device& device : devices) {
    if (!device.isPresent) continue;
    AERecord record = {typeNull, nullptr};
    if (err == 0) err = AECreateList(nullptr, 0, true, &record);
    if (err == 0) err = PutStatus(record, device, StatusOf(device));
    if (err == 0) err = AEPutDesc(&list, 0, &record);
    AEDisposeDesc(&record);
  }
  if (err == 0) err = AEPutParamDesc(&reply, keyDMDeviceList, &list);
  AEDisposeDesc(&list);
  return err;
}

// Notifies the processes whose mask has a bit of `changed`. Removes the registration of a process
// that has ended or does not take the notification.
void DeviceService::Notify(const Device& device, UInt32 changed) {
  const UInt32 bits = StatusOf(device) | (changed & kStatusSettingsChanged);
  std::erase_if(registrations, [&](const Registration& each) {
    if ((each.mask & changed) == 0) return false;
    VLTPortDestinationAddress address(each.portName.c_str());
    VLTPortAppleEvent event(kDMEventClass, kStatusChangedEvent, kAENoReply, &address,
                            kAutoGenerateReturnID, kAnyTransactionID);
    OSStatus err = address.initialize();
    if (err == 0) err = event.createEvent();
    if (err == 0) err = PutAEShort(&event.event, keyDMStatusParam, &each.param);
    if (err == 0) err = PutStatus(event.event, device, bits);
    if (err == 0) err = event.sendEvent(0, kNotifyTicks, kAENormalPriority);
    event.finalizeEvent();
    return err != 0;
  });
}
